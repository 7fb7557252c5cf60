// tervainctl view: the guest live in a browser, through a token-guarded server on 127.0.0.1.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "tervainctl/tervainctl.h"
#include "tervainctl/view/view_server.h"

extern char** environ;

namespace tervain::ctl {
namespace {

struct ViewCommandOptions {
  int port = 0;
  std::string listen;
  bool open = false;
};

// Opens the address in the desktop's browser, without waiting for it.
void openBrowser(const std::string& url) {
#ifdef __APPLE__
  const char* opener = "open";
#else
  const char* opener = "xdg-open";
#endif
  std::string program = opener;
  std::string arg = url;
  char* argv[] = {program.data(), arg.data(), nullptr};
  pid_t pid = -1;
  if (::posix_spawnp(&pid, opener, nullptr, nullptr, argv, environ) != 0) {
    complain(std::string("cannot start ") + opener + " to open the page; open the address above by hand");
    return;
  }
  // Reaped on a thread of its own so it leaves no zombie while the server runs.
  std::thread([pid] { ::waitpid(pid, nullptr, 0); }).detach();
}

std::atomic<view::ViewServer*> running{nullptr};

}  // namespace

void addViewCommand(CommandSet& set) {
  ViewCommandOptions& o = set.state<ViewCommandOptions>();
  CLI::App* view = set.add("view", "Watch and drive the guest from a browser (prints the page's address)", [&set, &o] {
    view::ViewOptions options{.agent = set.address(), .port = o.port};
    if (!o.listen.empty()) {
      options.host = o.listen;
      if (o.listen != "127.0.0.1" && o.listen != "::1" && o.listen != "localhost") {
        complain("warning: listening on " + o.listen +
                 ": anyone who can reach it and learns the address can see and drive the guest");
      }
    }
    view::ViewServer server(std::move(options));
    std::string error;
    if (server.bind(error) < 0) {
      complain(error);
      return kExitRefused;
    }
    print(server.url() + "\n");
    std::fflush(stdout);
    if (o.open) openBrowser(server.url());
    // Ctrl-C and SIGTERM end the server cleanly: its stop() is safe from another thread, so a
    // thread waits for the signals and calls it.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    running = &server;
    std::thread waiter([signals] {
      int signal = 0;
      sigwait(&signals, &signal);
      if (view::ViewServer* server = running.load(); signal != 0 && server) server->stop();
    });
    const bool served = server.serve();
    running = nullptr;
    ::pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();
    return served ? kExitOk : kExitRefused;
  });
  view->add_option("--port", o.port, "Port to listen on (default: any free one)")->check(CLI::Range(0, 65535));
  view->add_option("--listen", o.listen, "Interface to listen on (default 127.0.0.1; others are reachable from elsewhere)");
  view->add_flag("--open", o.open, "Open the page in the desktop's browser");
}

}  // namespace tervain::ctl
