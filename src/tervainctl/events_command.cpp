// tervainctl events: the agent shell's spooled events, unchanged, on standard output.
#include <unistd.h>

#include "tervainctl/tervainctl.h"

namespace tervain::ctl {
namespace {

struct EventsOptions {
  client::ShellEventsRequest request;
  bool json = false;
};

}  // namespace

void addEventsCommand(CommandSet& set) {
  EventsOptions& o = set.state<EventsOptions>();
  CLI::App* events =
      set.add("events", "Write the agent shell's spooled events to stdout", [&set, &o] {
        client::Connection agent = set.connect();
        const auto result = agent.shellEvents(o.request);
        const int status = finish<client::ShellEvents>(result, o.json, [](const auto& e) {
          writeFully(STDOUT_FILENO, e.events);
        });
        if (result.ok && result.value.truncated) {
          complain("more events wait in the spool (over the byte budget): run events again");
        }
        return status;
      });
  events->add_option("--dir", o.request.dir, "Spool directory (default: the agent's)");
  events->add_option("--max-bytes", o.request.maxBytes, "Byte budget (default 4 MiB)");
  events->add_flag("--truncate", o.request.truncate,
                   "Delete the delivered event files from the spool");
  events->add_flag("--json", o.json,
                   "Print the reply as JSON (the events base64-encoded in \"events\")");
}

}  // namespace tervain::ctl
