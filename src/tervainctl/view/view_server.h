// The server behind `tervainctl view`: a small HTTP server that shows a guest in a browser and
// lets the page drive it, through one agent connection shared by every request, so the refs
// the page sees stay valid from one request to the next.
//
// Every request must carry the token the server was started with (the `token` query member,
// or an X-Tervain-Token header): other local users and web pages that cannot read the printed
// URL get 403. What is served comes only from the files compiled into the program and from the
// agent; paths are matched exactly, never mapped onto a file system.
#pragma once

#include <memory>
#include <string>

#include "client/tervain_client.h"

namespace tervain::view {

struct ViewOptions {
  client::Address agent;
  std::string host = "127.0.0.1";  // the interface to listen on
  int port = 0;                    // 0 takes a free one
  std::string token;               // empty: a random one
};

class ViewServer {
 public:
  explicit ViewServer(ViewOptions options);
  ~ViewServer();
  ViewServer(const ViewServer&) = delete;
  ViewServer& operator=(const ViewServer&) = delete;

  // Binds the listening socket; the port, or -1 when it cannot be bound (error says why).
  int bind(std::string& error);
  // The page's address with its token.
  std::string url() const;
  const std::string& token() const;
  // Serves until stop(); false when the server could not run.
  bool serve();
  // Ends serve() from any thread.
  void stop();

 private:
  struct State;
  std::unique_ptr<State> state;
};

// A token of 32 random hex digits from the system's random source.
std::string randomToken();

}  // namespace tervain::view
