// One guest command over its own connection: stdin, end of input and signals go out as frames
// from any thread; output and the end come back as frames to the one thread in wait().
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>

#include "client/exec_frame.h"
#include "core/socket_io.h"
#include "client/tervain_client.h"
#include "core/agent_wire.h"
#include "core/base64.h"

namespace tervain::client {
namespace {

// Raw bytes per stdin frame. The agent hands each frame to the command in one bounded write
// and drops what the command has not taken within about a second, so frames stay well below
// a pipe's capacity.
constexpr std::size_t kStdinFrameBytes = 32 * 1024;
// Socket reads in wait(): several output frames per read.
constexpr std::size_t kReadBytes = 256 * 1024;
// A frame line never comes near this; more means the peer is not an exec stream.
constexpr std::size_t kMaxFrameLine = 16 * 1024 * 1024;

}  // namespace

struct ExecStream::State {
  UniqueFd fd;
  LineSplitBuffer lines;
  std::mutex writeMutex;  // one frame at a time on the socket
  std::string frame;      // guarded by writeMutex
  std::atomic<bool> ended{false};    // writes are pointless from now on
  std::atomic<bool> aborted{false};  // abort() was called

  bool writeFrame(std::string_view bytes) {
    if (ended.load()) return false;
    if (!writeAll(fd.get(), bytes)) {
      ended.store(true);
      return false;
    }
    return true;
  }
};

ExecStream::ExecStream(std::unique_ptr<State> state) : state(std::move(state)) {}
ExecStream::ExecStream(ExecStream&&) noexcept = default;
ExecStream& ExecStream::operator=(ExecStream&&) noexcept = default;
ExecStream::~ExecStream() = default;

ExecStream ExecStream::start(const Address& address, std::string_view command) {
  return start(Connection::open(address), command);
}

ExecStream ExecStream::start(const Address& address, const ExecRequest& request) {
  return start(Connection::open(address), request);
}

ExecStream ExecStream::start(Connection connection, std::string_view command) {
  return start(std::move(connection), ExecRequest{.command = std::string(command)});
}

ExecStream ExecStream::start(Connection connection, const ExecRequest& request) {
  namespace wire = AgentWire::Exec;
  // Options go out only when set, so a plain command is the request it always was.
  Json line{{"op", std::string(wire::op)}, {std::string(wire::commandKey), request.command}};
  if (!request.env.empty()) line[std::string(wire::envKey)] = request.env;
  if (request.cwd) line[std::string(wire::cwdKey)] = *request.cwd;
  if (request.timeoutSeconds) line[std::string(wire::timeoutKey)] = *request.timeoutSeconds;
  if (request.tty) {
    Json& tty = line[std::string(wire::ttyKey)];
    tty[std::string(wire::rowsKey)] = request.tty->rows;
    tty[std::string(wire::colsKey)] = request.tty->cols;
    if (request.tty->term) tty[std::string(wire::termKey)] = *request.tty->term;
  }
  connection.send(line);
  auto state = std::make_unique<State>();
  std::string pending;
  state->fd = connection.release(pending);
  state->lines.append(pending);
  return ExecStream(std::move(state));
}

bool ExecStream::writeStdin(std::string_view bytes) {
  std::lock_guard lock(state->writeMutex);
  std::string& frame = state->frame;
  while (!bytes.empty()) {
    const std::string_view chunk = bytes.substr(0, kStdinFrameBytes);
    bytes.remove_prefix(chunk.size());
    frame.assign(R"({"t":"i","d":")");
    base64::appendEncoded(frame, chunk);
    frame.append("\"}\n");
    if (!state->writeFrame(frame)) return false;
  }
  return true;
}

bool ExecStream::closeStdin() {
  std::lock_guard lock(state->writeMutex);
  return state->writeFrame("{\"t\":\"eof\"}\n");
}

bool ExecStream::sendSignal(int signal) {
  std::lock_guard lock(state->writeMutex);
  return state->writeFrame("{\"t\":\"sig\",\"n\":" + std::to_string(signal) + "}\n");
}

bool ExecStream::resize(int rows, int cols) {
  std::lock_guard lock(state->writeMutex);
  return state->writeFrame("{\"t\":\"resize\",\"rows\":" + std::to_string(rows) +
                           ",\"cols\":" + std::to_string(cols) + "}\n");
}

void ExecStream::abort() {
  state->aborted.store(true);
  state->ended.store(true);
  ::shutdown(state->fd.get(), SHUT_RDWR);
}

ExecOutcome ExecStream::wait(const ExecOutput& output) {
  namespace wire = AgentWire::Exec;
  std::string buffer(kReadBytes, '\0');
  std::string scratch;
  std::string decoded;
  ExecFrame frame;
  for (;;) {
    while (auto line = state->lines.next()) {
      if (line->empty() || !decodeExecFrame(*line, frame, scratch)) continue;
      if (frame.tag == wire::stdout_ || frame.tag == wire::stderr_) {
        if (!frame.hasData || !base64::decodeInto(frame.data, decoded)) {
          throw ProtocolError("the agent sent an output frame without valid base64 data");
        }
        const auto& receiver = frame.tag == wire::stdout_ ? output.stdoutData : output.stderrData;
        if (receiver && !decoded.empty()) receiver(decoded);
      } else if (frame.tag == wire::exit) {
        state->ended.store(true);
        return {.code = static_cast<int>(frame.code.value_or(-1)), .timedOut = frame.timedOut};
      } else if (frame.tag == wire::spawnError) {
        state->ended.store(true);
        return {.code = std::nullopt, .error = frame.message};
      } else if (frame.replyError) {
        state->ended.store(true);
        return {.code = std::nullopt, .error = *frame.replyError};
      }
      // Other tags are for newer agents; this client has nothing to do with them.
    }
    if (state->lines.pendingBytes() > kMaxFrameLine) {
      throw ProtocolError("the agent sent an exec frame longer than 16 MiB");
    }
    const ReadResult got = readSome(state->fd.get(), buffer.data(), buffer.size(), {});
    if (got.status == ReadStatus::data) {
      state->lines.append(std::string_view(buffer.data(), got.count));
      continue;
    }
    state->ended.store(true);
    if (state->aborted.load()) throw ConnectionError("the exec stream was aborted");
    if (got.status == ReadStatus::failed) {
      throw ConnectionError(std::string("reading the exec stream failed: ") +
                            std::strerror(got.error));
    }
    throw ConnectionError("the agent closed the exec stream before the command ended");
  }
}

CapturedExec runCaptured(const Address& address, std::string_view command,
                         std::string_view input) {
  ExecStream stream = ExecStream::start(address, command);
  CapturedExec captured;
  // The input goes out from its own thread so that a command which answers while it reads
  // (cat) never has both sides waiting on each other.
  std::thread feeder([&] {
    if (stream.writeStdin(input)) stream.closeStdin();
  });
  try {
    captured.outcome =
        stream.wait({.stdoutData = [&](std::string_view b) { captured.out.append(b); },
                     .stderrData = [&](std::string_view b) { captured.err.append(b); }});
  } catch (...) {
    stream.abort();
    feeder.join();
    throw;
  }
  stream.abort();
  feeder.join();
  return captured;
}

}  // namespace tervain::client
