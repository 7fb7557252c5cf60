// The client library against the real agent (over its --unix socket) and against a scripted
// peer on a socketpair where the agent's behaviour cannot be provoked.
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "agent_process.h"
#include "client/tervain_client.h"

namespace tervain::client {
namespace {

using testing::AgentProcess;
using testing::TempDir;
using namespace std::chrono_literals;

AgentProcess::Options zshAgent() {
  AgentProcess::Options options;
  options.env["TERVAIN_DULK_DISABLE"] = "1";
  return options;
}

Address addressOf(const AgentProcess& agent) {
  return Address{.kind = Address::Kind::unixSocket, .path = agent.socketPath()};
}

// A peer on a socketpair that the test scripts by hand.
struct ScriptedPeer {
  int client = -1;
  int peer = -1;
  ScriptedPeer() {
    int pair[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    client = pair[0];
    peer = pair[1];
  }
  ~ScriptedPeer() {
    if (peer >= 0) ::close(peer);
  }
  void say(std::string_view bytes) const {
    EXPECT_EQ(::write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
};

TEST(ConnectionTest, PipelinedRepliesComeBackInOrder) {
  AgentProcess agent;
  Connection connection = Connection::open(addressOf(agent));
  connection.send({{"op", "first"}});
  connection.send({{"op", "ping"}});
  connection.send({{"op", "third"}});
  EXPECT_EQ(parseReply(connection.receive()).error, "unknown op 'first' (agent protocol v2)");
  EXPECT_TRUE(parsePing(connection.receive()).ok);
  EXPECT_EQ(parseReply(connection.receive()).error, "unknown op 'third' (agent protocol v2)");
}

TEST(ConnectionTest, TheAgentsErrorTextIsPassedOnVerbatim) {
  AgentProcess agent;
  Connection connection = Connection::open(addressOf(agent));
  const Result<Json> malformed = parseReply(connection.call({{"op", 5}}));
  EXPECT_FALSE(malformed.ok);
  EXPECT_EQ(malformed.error, "malformed request (want one JSON object per line with an \"op\")");
  // Whatever the agent answers to an operation it refuses, the typed helper carries it.
  const Result<Done> typed = connection.type("hello");
  EXPECT_FALSE(typed.ok);
  EXPECT_EQ(typed.error, typed.reply["error"].get<std::string>());
}

TEST(ConnectionTest, ShellEventsAreDecodedAndDeletedExactlyAsDelivered) {
  AgentProcess agent;
  TempDir spool;
  Connection connection = Connection::open(addressOf(agent));
  // Store first, then delete exactly what was delivered: an event appended in between survives.
  std::ofstream(spool.file("3.jsonl")) << "{\"c\":1}\n";
  std::ofstream(spool.file("4.jsonl")) << "{\"d\":/}\n";
  const auto listed = connection.shellEvents({.dir = spool.path(), .listFiles = true});
  ASSERT_TRUE(listed.ok);
  EXPECT_EQ(listed.value.events, "{\"c\":1}\n{\"d\":/}\n");
  EXPECT_EQ(listed.value.files, 2);
  EXPECT_EQ(listed.value.bytes, 16);
  EXPECT_FALSE(listed.value.truncated);
  ASSERT_TRUE(listed.value.delivered);
  EXPECT_EQ(*listed.value.delivered,
            (std::vector<DeliveredFile>{{"3.jsonl", 8}, {"4.jsonl", 8}}));
  std::ofstream(spool.file("4.jsonl"), std::ios::app) << "{\"d\":2}\n";
  const auto deletion = connection.deleteShellEvents(*listed.value.delivered, spool.path());
  ASSERT_TRUE(deletion.ok);
  EXPECT_EQ(deletion.value.deleted, std::vector<std::string>{"3.jsonl"});
  EXPECT_EQ(deletion.value.kept, std::vector<std::string>{"4.jsonl"});
  // An agent that predates exact deletion answers with a drain, having deleted nothing.
  EXPECT_THROW(parseShellEventsDeletion(Json::parse(
                   R"({"ok":true,"events":"","files":0,"bytes":0,"truncated":false})")),
               ClientError);
}

TEST(ConnectionTest, AClosedConnectionOrANonObjectReplyThrows) {
  {
    ScriptedPeer peer;
    Connection connection(peer.client);
    peer.say("[1,2]\n");
    EXPECT_THROW(connection.receive(), ProtocolError);
    peer.say("{\"no\":\"ok member\"}\n");
    EXPECT_THROW(parseReply(connection.receive()), ProtocolError);
    ::close(peer.peer);
    peer.peer = -1;
    try {
      connection.receive();
      FAIL() << "read past the end";
    } catch (const ConnectionError& e) {
      EXPECT_STREQ(e.what(), "the agent closed the connection before replying");
    }
  }
  {
    // An agent over its connection limit says why and closes before reading the request.
    ScriptedPeer peer;
    Connection connection(peer.client);
    peer.say("{\"ok\":false,\"error\":\"too many connections: the agent serves at most 2 at "
             "once\"}\n");
    ::close(peer.peer);
    peer.peer = -1;
    try {
      connection.ping();
      FAIL() << "a request went to a closed connection";
    } catch (const ConnectionError& e) {
      EXPECT_STREQ(e.what(), "too many connections: the agent serves at most 2 at once");
    }
  }
}

TEST(ConnectionTest, TheReplyTimeoutBoundsTheWait) {
  ScriptedPeer peer;
  Connection connection(peer.client);
  connection.setReplyTimeout(50ms);
  try {
    connection.receive();
    FAIL() << "a reply appeared from nowhere";
  } catch (const ConnectionError& e) {
    EXPECT_STREQ(e.what(), "no reply from the agent within 50 ms");
  }
}

TEST(ExecStreamTest, AbortEndsTheWaitAndTheCommand) {
  AgentProcess agent(zshAgent());
  ExecStream stream = ExecStream::start(addressOf(agent), "exec sleep 30");
  std::thread aborter([&] {
    std::this_thread::sleep_for(100ms);
    stream.abort();
  });
  EXPECT_THROW(stream.wait({}), ConnectionError);
  aborter.join();
  EXPECT_FALSE(stream.writeStdin("late"));
}

TEST(ExecStreamTest, AStreamThatEndsWithoutAnExitFrameThrows) {
  ScriptedPeer peer;
  ExecStream stream = ExecStream::start(Connection(peer.client), "true");
  peer.say("{\"t\":\"o\",\"d\":\"aGk=\"}\n");
  ::close(peer.peer);
  peer.peer = -1;
  std::string out;
  try {
    stream.wait({.stdoutData = [&](std::string_view b) { out.append(b); }});
    FAIL() << "no exit frame was sent";
  } catch (const ConnectionError& e) {
    EXPECT_STREQ(e.what(), "the agent closed the exec stream before the command ended");
  }
  EXPECT_EQ(out, "hi");
}

TEST(ExecStreamTest, ErrFramesAndRefusalsAreOutcomesNotExceptions) {
  {
    ScriptedPeer peer;
    ExecStream stream = ExecStream::start(Connection(peer.client), "true");
    peer.say("{\"t\":\"err\",\"m\":\"could not launch the command (posix_spawn errno 2)\"}\n");
    const ExecOutcome end = stream.wait({});
    EXPECT_EQ(end.code, std::nullopt);
    EXPECT_EQ(end.error, "could not launch the command (posix_spawn errno 2)");
  }
  {
    ScriptedPeer peer;
    ExecStream stream = ExecStream::start(Connection(peer.client), "true");
    peer.say("{\"ok\":false,\"error\":\"unknown op 'exec' (agent protocol v2)\"}\n");
    EXPECT_EQ(stream.wait({}).error, "unknown op 'exec' (agent protocol v2)");
  }
}

}  // namespace
}  // namespace tervain::client
