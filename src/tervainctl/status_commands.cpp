// tervainctl ping and call: what the agent is, and any request by hand.
#include "client/render.h"
#include "tervainctl/tervainctl.h"

namespace tervain::ctl {

void addStatusCommands(CommandSet& set) {
  bool& pingJson = set.state<bool>();
  set.add("ping", "Show the agent's protocol version, displays and grants", [&set, &pingJson] {
       client::Connection agent = set.connect();
       return finish<client::PingInfo>(agent.ping(), pingJson,
                                       [](const auto& p) { print(client::renderPing(p)); });
     })->add_flag("--json", pingJson, "Print the reply as JSON");

  std::string& callText = set.state<std::string>();
  set.add("call", "Send one request (a JSON object) and print the agent's reply line", [&set,
                                                                                       &callText] {
       const Json request = Json::parse(callText, nullptr, false);
       if (request.is_discarded() || !request.is_object() || !request.contains("op") ||
           !request["op"].is_string()) {
         throw UsageError{R"(call needs one JSON object with an "op", e.g. call '{"op":"ping"}')"};
       }
       if (request["op"] == "exec") throw UsageError{"call cannot run exec: use tervainctl exec"};
       client::Connection agent = set.connect();
       const std::string line = agent.callRaw(request);
       const auto result = client::parseReply(Json::parse(line, nullptr, false));
       if (result.ok) print(line + "\n");
       return finish(result);
     })
      ->add_option("JSON", callText, "The request, e.g. '{\"op\":\"cursor_position\"}'")
      ->required();
}

}  // namespace tervain::ctl
