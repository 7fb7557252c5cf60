#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "client/tervain_client.h"

namespace tervain::client {
namespace {

Address parsed(std::string_view text) {
  std::string error;
  const auto address = parseAddress(text, error);
  EXPECT_TRUE(address.has_value()) << text << ": " << error;
  return address.value_or(Address{});
}

std::string refusal(std::string_view text) {
  std::string error;
  const auto address = parseAddress(text, error);
  EXPECT_FALSE(address.has_value()) << text;
  return error;
}

TEST(AddressTest, ReadsEachForm) {
  const Address unixAddress = parsed("unix:/tmp/tervain.sock");
  EXPECT_EQ(unixAddress.kind, Address::Kind::unixSocket);
  EXPECT_EQ(unixAddress.path, "/tmp/tervain.sock");

  const Address vsock = parsed("vsock:3:5000");
  EXPECT_EQ(vsock.kind, Address::Kind::vsock);
  EXPECT_EQ(vsock.cid, 3u);
  EXPECT_EQ(vsock.port, 5000u);

  const Address fd = parsed("fd:7");
  EXPECT_EQ(fd.kind, Address::Kind::descriptor);
  EXPECT_EQ(fd.fd, 7);
}

TEST(AddressTest, KeepsUnixPathsAsGiven) {
  // Colons and spaces belong to the path; only the first colon ends the scheme.
  EXPECT_EQ(parsed("unix:relative/dir:with colon").path, "relative/dir:with colon");
}

TEST(AddressTest, VsockWithoutPortMeansTheAgentsDefaultPort) {
  const Address vsock = parsed("vsock:42");
  EXPECT_EQ(vsock.cid, 42u);
  EXPECT_EQ(vsock.port, 2035u);
  EXPECT_EQ(parsed("vsock:4294967295:1").cid, 4294967295u);
}

TEST(AddressTest, RefusesMalformedAddressesWithAHint) {
  EXPECT_EQ(refusal("/tmp/tervain.sock"),
            "unknown address '/tmp/tervain.sock': use vsock:CID:PORT, unix:PATH or fd:N");
  EXPECT_EQ(refusal("tcp:1.2.3.4:5"),
            "unknown address 'tcp:1.2.3.4:5': use vsock:CID:PORT, unix:PATH or fd:N");
  EXPECT_EQ(refusal(""), "unknown address '': use vsock:CID:PORT, unix:PATH or fd:N");
  EXPECT_EQ(refusal("unix:"), "unix address needs a socket path, e.g. unix:/tmp/tervain.sock");
  for (const char* bad : {"vsock:", "vsock:x:1", "vsock:3:", "vsock:3:port", "vsock:-3:1",
                          "vsock:+3:1", "vsock:3:1:2", "vsock:4294967296:1", "vsock: 3:1"}) {
    EXPECT_EQ(refusal(bad),
              "vsock address needs a context id and a port as numbers, e.g. vsock:3:2035")
        << bad;
  }
  for (const char* bad : {"fd:", "fd:-1", "fd:x", "fd:3x", "fd:99999999999"}) {
    EXPECT_EQ(refusal(bad), "fd address needs a descriptor number, e.g. fd:3") << bad;
  }
}

TEST(AddressTest, FormatsBackToWhatItReads) {
  for (const char* text : {"unix:/tmp/a b", "vsock:3:2035", "fd:12"}) {
    EXPECT_EQ(formatAddress(parsed(text)), text);
  }
}

TEST(AddressTest, ConnectFailureNamesTheAddressAndTheCause) {
  try {
    connectTo(parsed("unix:/nonexistent-dir/agent.sock"));
    FAIL() << "connected to nothing";
  } catch (const ConnectionError& e) {
    EXPECT_STREQ(e.what(),
                 "cannot connect to unix:/nonexistent-dir/agent.sock: No such file or directory");
  }
  EXPECT_THROW(connectTo(parsed("fd:987654")), ConnectionError);
}

TEST(AddressTest, DescriptorAddressesAreDuplicatedSoTheCallerKeepsTheirs) {
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  {
    Connection connection = Connection::open(parsed("fd:" + std::to_string(pair[0])));
    EXPECT_NE(connection.descriptor(), pair[0]);
    connection.sendLine("{\"op\":\"ping\"}");
  }
  // The connection closed its duplicate; the original still works.
  EXPECT_EQ(::write(pair[0], "x", 1), 1);
  char buffer[64];
  const ssize_t n = ::read(pair[1], buffer, sizeof buffer);
  EXPECT_EQ(std::string(buffer, n > 0 ? static_cast<std::size_t>(n) : 0), "{\"op\":\"ping\"}\nx");
  ::close(pair[0]);
  ::close(pair[1]);
}

}  // namespace
}  // namespace tervain::client
