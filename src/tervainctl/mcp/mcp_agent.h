// The MCP server's side of the agent: one shared request connection, opened when first needed
// and re-opened after it breaks.
#pragma once

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/tervain_client.h"

namespace tervain::mcp {

// Element refs live as long as the connection that minted them, so every tool that uses the
// request connection goes through this one object. Requests are serialised on it (the agent
// answers one connection strictly in order). Thread-safe.
class AgentSession {
 public:
  AgentSession(client::Address address, std::chrono::milliseconds replyTimeout);

  const client::Address& address() const { return where; }

  // Sends one request and returns the agent's reply. A connection found closed by the agent
  // is replaced before the request goes out. When the connection breaks during the request it
  // is dropped; a retryable request (one that changes nothing in the guest) is then sent once
  // more on a new connection, any other throws ConnectionError. notice receives, once, the news
  // that the connection was re-opened since the last reply, which made earlier refs stale.
  Json call(const Json& request, bool retryable, std::string& notice);

  // The "features" the agent's ping names (operation names and options); empty for an agent
  // that has none, or when no connection can be made. Asked once per connection.
  std::vector<std::string> features();
  // Whether features() names this one, without copying the list.
  bool hasFeature(std::string_view name);

 private:
  // Caller holds mutex.
  client::Connection& connection();
  void drop();
  const std::vector<std::string>& featuresLocked();

  const client::Address where;
  const std::chrono::milliseconds replyTimeout;
  std::mutex mutex;
  std::optional<client::Connection> current;
  bool refsStale = false;  // a connection was lost since the last reply was handed out
  std::optional<std::vector<std::string>> featureList;  // of the current connection
};

}  // namespace tervain::mcp
