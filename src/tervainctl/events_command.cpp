// tervainctl events: the agent shell's spooled events, unchanged, on standard output.
//
// --truncate never deletes what did not reach standard output: on one connection it drains
// without deleting (asking for the list of files delivered), writes the events, and only once the
// write succeeded asks the agent to delete exactly those files at exactly those sizes. A file that
// grew in between stays in the spool and is delivered again, in full, by the next run.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

struct EventsOptions {
  client::ShellEventsRequest request;
  bool json = false;
};

// A reader that went away (`| head -c1`) must make the write fail with EPIPE, so that tervainctl
// can say so and keep the spool, rather than end it silently.
class PipeSignalIgnored {
 public:
  PipeSignalIgnored() { previous = ::signal(SIGPIPE, SIG_IGN); }
  ~PipeSignalIgnored() { ::signal(SIGPIPE, previous); }
  PipeSignalIgnored(const PipeSignalIgnored&) = delete;
  PipeSignalIgnored& operator=(const PipeSignalIgnored&) = delete;

 private:
  void (*previous)(int) = SIG_DFL;
};

int runEvents(const CommandSet& set, const EventsOptions& o) {
  if (o.request.maxBytes && *o.request.maxBytes < 0) {
    throw UsageError{"--max-bytes wants a byte count of 0 or more, not " +
                     std::to_string(*o.request.maxBytes)};
  }
  if (o.request.dir && o.request.dir->empty()) throw UsageError{"--dir needs a folder"};

  const PipeSignalIgnored pipeSignal;
  client::Connection agent = set.connect();
  client::ShellEventsRequest drain = o.request;
  drain.truncate = false;
  drain.listFiles = true;
  const auto result = agent.shellEvents(drain);
  if (!result.ok) {
    complain(result.error);
    return kExitRefused;
  }
  // The agent's own spool does not exist until the shell first writes to it; a folder the user
  // named is a mistake when it is not there.
  if (o.request.dir && result.value.folderMissing) {
    complain("no spool folder " + *o.request.dir + " on the guest (or it cannot be read)");
    return kExitRefused;
  }

  const std::string& out = o.json ? result.reply.dump() + "\n" : result.value.events;
  if (!writeFully(STDOUT_FILENO, out)) {
    const std::string reason = std::strerror(errno);
    complain("cannot write the events to standard output (" + reason + ")" +
             (o.request.truncate ? "; nothing was deleted from the spool" : ""));
    return kExitRefused;
  }
  // A regular file as output: the events are on disk before the spool lets go of them.
  if (o.request.truncate && ::fsync(STDOUT_FILENO) != 0 && errno != EINVAL && errno != EROFS) {
    complain(std::string("cannot flush standard output (") + std::strerror(errno) +
             "); nothing was deleted from the spool");
    return kExitRefused;
  }
  if (result.value.truncated) {
    complain("more events wait in the spool (over the byte budget): run events again");
  }
  if (!o.request.truncate) return kExitOk;

  if (!result.value.delivered) {
    complain("the agent cannot delete exactly the events it delivered (it is too old); "
             "nothing was deleted from the spool");
    return kExitRefused;
  }
  if (result.value.delivered->empty()) return kExitOk;
  const auto deletion = agent.deleteShellEvents(*result.value.delivered, o.request.dir);
  if (!deletion.ok) {
    complain(deletion.error);
    return kExitRefused;
  }
  if (const std::size_t kept = deletion.value.kept.size(); kept > 0) {
    complain(std::to_string(kept) + " event file(s) changed while being written and stay in the "
             "spool: the next run delivers them again in full");
  }
  return kExitOk;
}

}  // namespace

void addEventsCommand(CommandSet& set) {
  EventsOptions& o = set.state<EventsOptions>();
  CLI::App* events = set.add("events", "Write the agent shell's spooled events to stdout",
                             [&set, &o] { return runEvents(set, o); });
  events->add_option("--dir", o.request.dir, "Spool directory (default: the agent's)");
  events->add_option("--max-bytes", o.request.maxBytes, "Byte budget (default 4 MiB)");
  events->add_flag("--truncate", o.request.truncate,
                   "Delete the delivered event files from the spool, once written to stdout");
  events->add_flag("--json", o.json,
                   "Print the reply as JSON (the events base64-encoded in \"events\")");
}

}  // namespace tervain::ctl
