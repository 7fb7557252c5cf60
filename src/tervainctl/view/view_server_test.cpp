#include "tervainctl/view/view_server.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

#include "agent_process.h"

namespace tervain::view {
namespace {

struct HttpReply {
  int status = 0;
  std::string head;
  std::string body;
};

// One request over a fresh TCP connection, exactly as given; the reply as received.
HttpReply exchange(in_addr_t address, int port, const std::string& request) {
  HttpReply reply;
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{.sin_family = AF_INET, .sin_port = htons(static_cast<std::uint16_t>(port)),
                 .sin_addr = {address}, .sin_zero = {}};
  std::string all;
  const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
  if (connected) (void)!::write(fd, request.data(), request.size());  // else status 0: refused
  char buffer[65536];
  for (int i = 0; connected && i < 2000; ++i) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 10000) <= 0) break;
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    all.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  const std::size_t split = all.find("\r\n\r\n");
  reply.head = all.substr(0, split);
  if (split != std::string::npos) reply.body = all.substr(split + 4);
  if (all.starts_with("HTTP/1.1 ")) reply.status = std::atoi(all.c_str() + 9);
  return reply;
}

class ViewServerTest : public ::testing::Test {
 protected:
  void start(const client::Address& agentAddress) {
    server = std::make_unique<ViewServer>(ViewOptions{.agent = agentAddress, .token = kToken});
    std::string error;
    port = server->bind(error);
    ASSERT_GT(port, 0) << error;
    serving = std::thread([this] { server->serve(); });
  }
  void TearDown() override {
    if (server) server->stop();
    if (serving.joinable()) serving.join();
  }
  HttpReply get(const std::string& target, const std::string& method = "GET",
                const std::string& headers = "", const std::string& body = "") {
    return exchange(htonl(INADDR_LOOPBACK), port, method + " " + target +
                    " HTTP/1.1\r\nConnection: close\r\n" + headers + "\r\n" + body);
  }

  static constexpr const char* kToken = "0123456789abcdef0123456789abcdef";
  std::unique_ptr<ViewServer> server;
  std::thread serving;
  int port = -1;
};

TEST_F(ViewServerTest, TheTokenThePathAndTheMethodAreCheckedInThatOrder) {
  testing::AgentProcess agent;
  start(client::Address{.path = agent.socketPath()});
  const std::string t = std::string("token=") + kToken;
  struct Case {
    std::string method, target, header;
    int status;
    std::string inBody;
    std::string body = "";
  } cases[] = {
      {"GET", "/", "", 403, "the token that tervainctl view printed"},
      {"GET", "/?token=0123456789abcdef0123456789abcdee", "", 403, ""},
      {"GET", "/nowhere", "", 403, ""},  // no token: not even a 404 to learn paths from
      {"GET", "/?" + t, "", 200, std::string("view.js?token=") + kToken},
      {"GET", "/view.js?" + t, "", 200, "'use strict'"},
      {"GET", "/api/status", std::string("X-Tervain-Token: ") + kToken + "\r\n", 200, "\"desktop\":\"headless\""},
      {"GET", "/../CMakeLists.txt?" + t, "", 404, ""},
      {"GET", "/%2e%2e/%2e%2e/etc/passwd?" + t, "", 404, ""},
      {"POST", "/?" + t, "", 405, "POST is not allowed on /"},
      {"DELETE", "/api/tree?" + t, "", 405, ""},
      {"GET", "/api/input?" + t, "", 405, ""},
      {"POST", "/api/input?" + t, "", 400, "click, type, key or scroll", R"({"op":"exec","argv":["id"]})"},
      {"GET", "/api/screenshot?maxWidth=wide&" + t, "", 400, "maxWidth"},
      {"GET", "/api/hit?x=1&" + t, "", 400, "x and y"},
      // The agent's refusals pass through as its replies.
      {"GET", "/api/tree?" + t, "", 200, "Accessibility"},
      {"POST", "/api/input?" + t, "", 200, "\"ok\":false", R"({"op":"click","x":1,"y":1})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method + " " + c.target);
    const std::string length =
        c.method == "POST" ? "Content-Length: " + std::to_string(c.body.size()) + "\r\n" : "";
    const HttpReply reply = get(c.target, c.method, c.header + length, c.body);
    EXPECT_EQ(reply.status, c.status) << reply.head << "\n" << reply.body;
    EXPECT_NE(reply.body.find(c.inBody), std::string::npos) << reply.body.substr(0, 300);
  }
}

TEST_F(ViewServerTest, ListensOnLoopbackOnlyAndSaysWhenTheAgentIsAway) {
  start(client::Address{.path = "/nonexistent/agent.sock"});
  const HttpReply away = get(std::string("/api/tree?token=") + kToken);
  EXPECT_EQ(away.status, 502);
  EXPECT_NE(away.body.find("no answer from the agent at unix:/nonexistent/agent.sock"), std::string::npos)
      << away.body;

  // Another interface of this machine, when it has one, is not served.
  ifaddrs* interfaces = nullptr;
  ASSERT_EQ(::getifaddrs(&interfaces), 0);
  int tried = 0;
  for (ifaddrs* i = interfaces; i != nullptr; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
    const in_addr_t address = reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr;
    if ((ntohl(address) >> 24) == 127) continue;
    ++tried;
    EXPECT_EQ(exchange(address, port, "GET / HTTP/1.1\r\nConnection: close\r\n\r\n").status, 0)
        << i->ifa_name;
  }
  ::freeifaddrs(interfaces);
  if (tried == 0) GTEST_SKIP() << "no interface but loopback to try";
}

}  // namespace
}  // namespace tervain::view
