#include "tervainctl/mcp/mcp_agent.h"

#include <poll.h>

#include <algorithm>

namespace tervain::mcp {
namespace {

// The agent never writes unprompted on a request connection, so an idle connection that polls
// readable has been closed (or reset) by the agent: an agent that restarted, say.
bool closedByAgent(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) != 0;
}

constexpr const char* kReopened =
    "The connection to the agent was lost and has been re-opened: element refs from earlier "
    "results are stale, so call tree again before acting on elements.";

}  // namespace

AgentSession::AgentSession(client::Address address, std::chrono::milliseconds replyTimeout)
    : where(std::move(address)), replyTimeout(replyTimeout) {}

client::Connection& AgentSession::connection() {
  if (current && closedByAgent(current->descriptor())) drop();
  if (!current) {
    current.emplace(client::Connection::open(where));
    current->setReplyTimeout(replyTimeout);
  }
  return *current;
}

void AgentSession::drop() {
  current.reset();
  featureList.reset();
  refsStale = true;
}

Json AgentSession::call(const Json& request, bool retryable, std::string& notice) {
  std::lock_guard lock(mutex);
  for (int attempt = 0;; ++attempt) {
    try {
      Json reply = connection().call(request);
      if (refsStale) notice = kReopened;
      refsStale = false;
      return reply;
    } catch (const client::ConnectionError&) {
      if (current) drop();
      if (!retryable || attempt > 0) throw;
    } catch (const client::ProtocolError& e) {
      // Out of step with the agent: the connection is of no further use.
      drop();
      throw client::ConnectionError(e.what());
    }
  }
}

std::vector<std::string> AgentSession::features() {
  std::lock_guard lock(mutex);
  return featuresLocked();
}

bool AgentSession::hasFeature(std::string_view name) {
  std::lock_guard lock(mutex);
  const std::vector<std::string>& names = featuresLocked();
  return std::find(names.begin(), names.end(), name) != names.end();
}

const std::vector<std::string>& AgentSession::featuresLocked() {
  static const std::vector<std::string> none;
  try {
    client::Connection& c = connection();
    if (!featureList) {
      const Json reply = c.call({{"op", "ping"}});
      std::vector<std::string> names;
      if (const auto f = reply.find("features"); f != reply.end() && f->is_array()) {
        for (const Json& name : *f) {
          if (name.is_string()) names.push_back(name.get<std::string>());
        }
      }
      featureList = std::move(names);
    }
    return *featureList;
  } catch (const client::ClientError&) {
    if (current) drop();
    return none;
  }
}

}  // namespace tervain::mcp
