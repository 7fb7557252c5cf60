// Pings the agent at the address given, through the installed client library.
#include <client/tervain_client.h>

#include <iostream>

int main(int argc, char** argv) {
  using namespace tervain::client;
  std::string error;
  const auto address = parseAddress(argc > 1 ? argv[1] : "", error);
  if (!address) {
    std::cerr << error << "\n";
    return 2;
  }
  Connection agent = Connection::open(*address);
  const Result<PingInfo> ping = agent.ping();
  std::cout << "protocol v" << ping.value.version << "\n";
  return ping.ok ? 0 : 1;
}
