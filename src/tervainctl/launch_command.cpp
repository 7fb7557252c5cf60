// tervainctl launch: start or bring up an application.
#include "tervainctl/tervainctl.h"

namespace tervain::ctl {

void addLaunchCommand(CommandSet& set) {
  std::string& name = set.state<std::string>();
  set.add("launch", "Launch (or bring up) an application by name",
          [&set, &name] {
            client::Connection agent = set.connect();
            return finish(agent.launchApp(name));
          })
      ->add_option("NAME", name, "e.g. TextEdit or Terminal")
      ->required();
}

}  // namespace tervain::ctl
