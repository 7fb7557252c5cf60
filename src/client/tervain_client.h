// Host-side client for TervainVMAgent.
//
// A Connection carries ordinary requests: each request is one JSON line, each reply one JSON
// line, answered strictly in order, so a caller may send several requests before reading their
// replies. Typed helpers wrap every operation and hand back the parsed reply; the agent's own
// refusals ("ok": false) come back as values carrying the agent's error text unchanged, while a
// connection that cannot be made or breaks throws ConnectionError.
//
// An ExecStream runs one guest command on a connection of its own (the agent closes a
// connection after its command ends). Its writing side (stdin, end of input, signals) may be
// used from any thread while one thread reads the output with wait().
//
//   auto address = tervain::client::parseAddress("unix:/tmp/tervain.sock", error);
//   tervain::client::Connection agent = tervain::client::Connection::open(*address);
//   auto ping = agent.ping();                    // ping.ok, ping.value.displays, ...
//   auto exec = tervain::client::ExecStream::start(*address, "uname -a");
//   exec.closeStdin();
//   auto end = exec.wait({.stdoutData = [](std::string_view b) { fwrite(b.data(), 1, b.size(), stdout); }});
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/json.h"
#include "core/line_split_buffer.h"
#include "core/unique_fd.h"

namespace tervain::client {

// Any failure of the client itself (as opposed to a refusal by the agent).
class ClientError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The agent could not be reached, the connection broke, or no reply came in time.
class ConnectionError : public ClientError {
 public:
  explicit ConnectionError(const std::string& what, int systemError = 0)
      : ClientError(what), errorNumber(systemError) {}
  // The errno of a connect that failed (ENOENT, ECONNREFUSED, ...); 0 for other failures.
  int systemError() const { return errorNumber; }

 private:
  int errorNumber;
};

// The agent sent something this protocol does not allow (a line that is not a JSON object,
// a reply without "ok"). The connection is out of step afterwards and should be dropped.
class ProtocolError : public ClientError {
 public:
  using ClientError::ClientError;
};

// ---- Addresses -----------------------------------------------------------------------------

// Where the agent listens: "vsock:CID:PORT", "unix:PATH" or "fd:N" (a connected descriptor
// handed over by a VM manager).
struct Address {
  enum class Kind { vsock, unixSocket, descriptor };
  Kind kind = Kind::unixSocket;
  std::uint32_t cid = 0;   // vsock
  std::uint32_t port = 0;  // vsock
  std::string path;        // unixSocket
  int fd = -1;             // descriptor
};

// Parses an address; on failure returns nothing and puts a sentence saying what is wrong into
// error.
std::optional<Address> parseAddress(std::string_view text, std::string& error);

// The address in the form parseAddress() reads.
std::string formatAddress(const Address& address);

// Opens a new connected descriptor (close-on-exec) for the address. For "fd:N" that is a
// duplicate of N, so the caller keeps its own descriptor. Throws ConnectionError.
UniqueFd connectTo(const Address& address);

// ---- Replies -------------------------------------------------------------------------------

// One reply: ok with the operation's value, or the agent's error text exactly as it sent it.
template <typename T>
struct Result {
  bool ok = false;
  std::string error;  // set when ok is false
  T value{};          // meaningful when ok is true
  Json reply;         // the whole reply as received
};

struct Done {};

struct Display {
  std::uint32_t id = 0;
  std::int64_t width = 0;
  std::int64_t height = 0;
  bool main = false;
};

struct Readiness {
  bool accessibility = false;
  bool screenRecording = false;
  bool postEvent = false;
};

struct PingInfo {
  std::int64_t version = 0;         // of the protocol
  std::string agentVersion;         // of the agent's build; empty from agents that predate it
  std::string desktop;              // "macos", "x11", "headless"; empty from agents that predate it
  std::vector<std::string> features;  // its operations, then options ("screenshot.png"); empty from older agents
  std::vector<Display> displays;
  Readiness readiness;
};

struct Point {
  std::int64_t x = 0;
  std::int64_t y = 0;
};

struct Rect {
  std::int64_t x = 0;
  std::int64_t y = 0;
  std::int64_t w = 0;
  std::int64_t h = 0;
};

// One element of an accessibility tree. Members the agent left out stay empty; "enabled" is
// only ever sent as false and "focused" only as true, hence the two flags.
struct AXNode {
  std::string ref;
  std::optional<std::string> role;
  std::optional<std::string> subrole;
  std::optional<std::string> title;
  std::optional<std::string> value;
  bool disabled = false;
  bool focused = false;
  std::optional<Rect> frame;
  std::vector<std::string> actions;
  std::vector<AXNode> children;
  std::int64_t childrenOmitted = 0;
};

struct AXTree {
  AXNode root;
  std::string app;
  bool truncated = false;  // the dump used its whole node budget
};

// What find() and waitFor() look for: elements of one application whose attributes all match
// the criteria given. At least one of the five criteria must be set.
struct AXQuery {
  std::optional<std::string> role;        // e.g. "AXButton"
  std::optional<std::string> subrole;
  std::optional<std::string> title;
  std::optional<std::string> value;       // the value as a node shows it
  std::optional<std::string> identifier;  // AXIdentifier (elements of the X11 desktop have none)
  bool exact = false;  // whole texts, case and all; else contains, ignoring ASCII letter case
  std::optional<std::int64_t> pid;       // the frontmost application when absent
  std::optional<std::int64_t> limit;     // find: most matches returned, 1 to 200 (default 20)
  std::optional<std::int64_t> maxDepth;  // 1 to 25 (default 25)
};

struct AXMatches {
  std::vector<AXNode> matches;  // shallowest first, each without children and with a fresh ref
  std::int64_t visited = 0;     // elements examined (at most 5000)
};

// What waitFor() waits for, of the query's first match ("gone": of there being none).
enum class AXWaitState { exists, gone, enabled, focused, value };

struct AXWaitRequest {
  AXQuery query;
  AXWaitState state = AXWaitState::exists;
  std::string equals;                   // the value waited for, with AXWaitState::value
  std::optional<double> timeoutSeconds;  // 0.1 to 60 (default 10)
};

struct AXWaited {
  std::optional<AXNode> node;  // the first match; none when waiting for "gone"
  std::int64_t waitedMs = 0;
};

struct ActionOutcome {
  // Set when the application did not confirm in time: the action possibly took effect.
  std::optional<std::string> note;
};

// One window as "windows" lists it.
struct WindowInfo {
  std::string ref;            // takes window actions, and ax_action and the like
  std::string title;          // "" when the window has none or it cannot be read
  std::optional<Rect> frame;  // left out when unreadable (on X11, while minimised)
  std::int64_t pid = 0;
  std::string app;  // the application's name, "pid N" when it has none
  bool main = false;
  bool focused = false;
  bool minimized = false;
};

// A rectangle in points, which need not be whole.
struct PointRect {
  double x = 0;
  double y = 0;
  double w = 0;
  double h = 0;
};

struct Screenshot {
  std::string jpeg;  // decoded image bytes: a JPEG, or a PNG when format says so
  std::string format = "jpeg";
  std::int64_t width = 0;
  std::int64_t height = 0;
  double scale = 0;  // image pixels per point
  // The part of the display the image shows, when the request asked for any option: a point
  // of the display is region origin + image pixel / scale.
  std::optional<PointRect> region;
};

// A screenshot with options; all absent gives the plain capture.
struct ScreenshotRequest {
  std::optional<std::int64_t> display;
  std::optional<PointRect> region;
  std::optional<std::int64_t> maxWidth;
  std::optional<std::int64_t> maxHeight;
  bool png = false;
  std::optional<double> quality;  // 0.1 to 1.0, JPEG only
};

enum class MouseButton { left, right, middle };
// Modifier names as chords spell them: "cmd", "ctrl", "alt", "shift", "fn" (and "command",
// "control", "opt", "option", "meta", "super").
using ModifierNames = std::vector<std::string>;

struct ShellEventsRequest {
  std::optional<std::string> dir;        // the agent's spool directory when absent
  std::optional<std::int64_t> maxBytes;  // the agent's 4 MiB budget when absent
  bool truncate = false;                 // delete the delivered files after the reply
  bool listFiles = false;                // report the files delivered, for deleteShellEvents()
};

// One event file as a drain delivered it: its name in the spool and the bytes taken.
struct DeliveredFile {
  std::string name;
  std::int64_t bytes = 0;
  bool operator==(const DeliveredFile&) const = default;
};

struct ShellEvents {
  std::string events;  // decoded: the event files' bytes, concatenated
  std::int64_t files = 0;
  std::int64_t bytes = 0;
  bool truncated = false;  // some event files were left for a later drain
  // With listFiles: the files delivered, in order. Empty for an agent too old to list them.
  std::optional<std::vector<DeliveredFile>> delivered;
  // With listFiles: the folder does not exist or cannot be listed.
  bool folderMissing = false;
};

// What deleteShellEvents() did with each file it named.
struct ShellEventsDeletion {
  std::vector<std::string> deleted;
  std::vector<std::string> kept;  // changed since it was delivered (or gone): not deleted
};

// Parsers of the typed replies, exposed for callers that pipeline requests with send() and
// receive(). Each throws ProtocolError for a reply that is not a JSON object with a boolean "ok".
Result<Json> parseReply(const Json& reply);
Result<PingInfo> parsePing(const Json& reply);
Result<AXTree> parseAXDump(const Json& reply);
Result<AXNode> parseAXElementAt(const Json& reply);
Result<AXMatches> parseFind(const Json& reply);
Result<AXWaited> parseWaitFor(const Json& reply);
Result<Screenshot> parseScreenshot(const Json& reply);
Result<ShellEvents> parseShellEvents(const Json& reply);
Result<std::vector<WindowInfo>> parseWindows(const Json& reply);
// Also throws ClientError for an ok reply without "deleted": an agent too old to delete exactly
// drained instead, and deleted nothing.
Result<ShellEventsDeletion> parseShellEventsDeletion(const Json& reply);
AXNode parseAXNode(const Json& node);

// ---- Ordinary requests ---------------------------------------------------------------------

// One connection for ordinary requests. Not thread-safe: one thread at a time.
class Connection {
 public:
  // Connects (see connectTo). Throws ConnectionError.
  static Connection open(const Address& address);
  // Adopts a connected descriptor; closed with the connection.
  explicit Connection(int fd);
  ~Connection();
  Connection(Connection&& other) noexcept;
  Connection& operator=(Connection&& other) noexcept;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int descriptor() const { return fd.get(); }

  // Gives up waiting for a reply after this long (ConnectionError); zero waits for ever, which
  // is the default: the agent itself bounds its slow operations (screenshot, launch) at 15 s,
  // except an application launched through open -a.
  void setReplyTimeout(std::chrono::milliseconds timeout) { replyTimeout = timeout; }

  // Writes one request line. Throws ConnectionError.
  void send(const Json& request);
  void sendLine(std::string_view line);
  // The next reply line as received (without its line feed). Throws ConnectionError when the
  // agent closes first or the reply timeout passes.
  std::string receiveLine();
  // The next reply, parsed. Throws as receiveLine, and ProtocolError when it is not an object.
  Json receive();
  // send() then receive().
  Json call(const Json& request);
  // send() then the reply line exactly as the agent wrote it, for a caller that passes replies
  // on unchanged. Throws as receiveLine.
  std::string callRaw(const Json& request);

  Result<PingInfo> ping();
  Result<Point> cursorPosition();
  Result<AXTree> axDump(std::optional<std::int64_t> pid = {},
                        std::optional<std::int64_t> maxDepth = {});
  Result<AXNode> axElementAt(std::int64_t x, std::int64_t y);
  // Searches an application's tree. Unlike axDump(), it keeps the refs handed out before.
  Result<AXMatches> find(const AXQuery& query);
  // Waits until the state holds, for at most the timeout (the agent answers no later than one
  // poll after it, 100 ms); on time-out the error says what was waited for and how long.
  Result<AXWaited> waitFor(const AXWaitRequest& request);
  Result<ActionOutcome> axAction(const std::string& ref, const std::string& action = "");
  Result<Done> axSetValue(const std::string& ref, const std::string& value);
  Result<Done> axFocus(const std::string& ref);
  // The windows of the application with that pid, or of every regular application.
  Result<std::vector<WindowInfo>> windows(std::optional<std::int64_t> pid = {});
  // "raise", "minimize", "unminimize" or "close" on a window ref from windows().
  Result<ActionOutcome> windowAction(const std::string& ref, const std::string& action);
  // Moves the window's frame to a new top-left, or gives it a new size (both in points).
  Result<ActionOutcome> moveWindow(const std::string& ref, double x, double y);
  Result<ActionOutcome> resizeWindow(const std::string& ref, double w, double h);
  // The clipboard's text ("" when empty); a clipboard holding something else is a refusal
  // that names what it holds.
  Result<std::string> clipboardGet();
  Result<Done> clipboardSet(const std::string& text);
  // Pointer operations hold `modifiers` ("cmd", "shift", ...) down for their duration; an
  // agent without the "click.modifiers" feature ignores them.
  Result<Done> click(std::int64_t x, std::int64_t y, MouseButton button = MouseButton::left,
                     std::int64_t count = 1, const ModifierNames& modifiers = {});
  Result<Done> move(std::int64_t x, std::int64_t y);
  // Drags with the left button to (toX, toY); from the pointer's position unless from is given.
  Result<Done> drag(std::int64_t toX, std::int64_t toY, std::optional<Point> from = {},
                    const ModifierNames& modifiers = {});
  Result<Done> scroll(std::optional<std::int64_t> dx, std::optional<std::int64_t> dy,
                      const ModifierNames& modifiers = {});
  Result<Done> type(const std::string& text);
  Result<Done> key(const std::string& chord);
  // Press and hold, and release. What this connection holds, the agent releases when the
  // connection ends; a move while a button is held drags it.
  Result<Done> mouseDown(std::int64_t x, std::int64_t y, MouseButton button = MouseButton::left,
                         const ModifierNames& modifiers = {});
  Result<Done> mouseUp(std::int64_t x, std::int64_t y, MouseButton button = MouseButton::left,
                       const ModifierNames& modifiers = {});
  Result<Done> keyDown(const std::string& chord);
  Result<Done> keyUp(const std::string& chord);
  Result<Screenshot> screenshot(std::optional<std::int64_t> display = {});
  Result<Screenshot> screenshot(const ScreenshotRequest& request);
  Result<Done> launchApp(const std::string& name);
  Result<ShellEvents> shellEvents(const ShellEventsRequest& request = {});
  // Deletes the event files that a drain with listFiles delivered, each only while it still has
  // the size delivered: a file that has grown since stays, and the next drain delivers it again
  // in full. So a caller that stores the events first, and deletes after, loses none of them.
  Result<ShellEventsDeletion> deleteShellEvents(const std::vector<DeliveredFile>& files,
                                                std::optional<std::string> dir = {});

  // Hands the descriptor and any bytes already read behind the last reply to the caller;
  // the connection is empty afterwards.
  UniqueFd release(std::string& pending);

 private:
  Result<Done> simple(const Json& request);

  UniqueFd fd;
  LineSplitBuffer lines;
  std::string readBuffer;  // sized once: zeroing a fresh chunk per reply cost more than the rest of a call
  std::chrono::milliseconds replyTimeout{0};
};

// ---- Exec ----------------------------------------------------------------------------------

// Receivers of a command's output, called on the thread that runs wait(), in arrival order,
// with each chunk as soon as its frame is decoded. Chunk boundaries mean nothing.
struct ExecOutput {
  std::function<void(std::string_view)> stdoutData;
  std::function<void(std::string_view)> stderrData;
};

// How a command ended: an exit code, or the agent's message when it could not run it.
struct ExecOutcome {
  // Exit status 0 to 255, 128 + N when signal N ended the command, -1 when the agent could
  // not reap it. Empty when the command did not run.
  std::optional<int> code;
  std::string error;  // the agent's "err" message, verbatim
  // The command's time limit ran out and the agent ended it (code then says how: 143 for the
  // SIGTERM, 137 when the SIGKILL 2 s later was needed).
  bool timedOut = false;
};

// The size of a command's terminal, and its TERM.
struct TerminalSize {
  int rows = 24;  // 1 to 10000, as the columns
  int cols = 80;
  // TERM for the command; nothing: a TERM given in env, else xterm-256color.
  std::optional<std::string> term;
};

// One command with its options. An agent whose ping lacks the features "exec.env", "exec.cwd",
// "exec.timeout" and "exec.tty" ignores the matching member and runs the command without it.
struct ExecRequest {
  std::string command;
  // Added to (or replacing in) the agent's environment.
  std::map<std::string, std::string> env;
  // The working directory; the agent refuses a path that is not a directory, and runs nothing.
  std::optional<std::string> cwd;
  // Seconds after which the agent sends SIGTERM to the command's process group, and SIGKILL
  // 2 s later; the outcome then says timedOut.
  std::optional<double> timeoutSeconds;
  // Runs the command on a pseudo-terminal of this size: what it writes to standard output and
  // error alike arrives as stdout data, end of input is typed as the terminal's ^D, and
  // resize() changes the size.
  std::optional<TerminalSize> tty;
};

// One guest command on its own connection. The writing side (writeStdin, closeStdin,
// sendSignal, resize, abort) is thread-safe and may run while another thread is inside wait().
class ExecStream {
 public:
  // Connects and sends the request. Throws ConnectionError.
  static ExecStream start(const Address& address, std::string_view command);
  static ExecStream start(const Address& address, const ExecRequest& request);
  // As above on a fresh connection (one that has not run exec before).
  static ExecStream start(Connection connection, std::string_view command);
  static ExecStream start(Connection connection, const ExecRequest& request);

  ExecStream(ExecStream&&) noexcept;
  ExecStream& operator=(ExecStream&&) noexcept;
  ~ExecStream();

  // Feeds the command's standard input; large inputs go out in several frames. False once the
  // stream has ended or broken (the bytes are then lost).
  bool writeStdin(std::string_view bytes);
  // Closes the command's standard input. False when the stream has ended.
  bool closeStdin();
  // Sends signal to the command's process group. False when the stream has ended.
  bool sendSignal(int signal);
  // Sets the size of the command's terminal (the kernel tells it by SIGWINCH). A command
  // without a terminal ignores it. False when the stream has ended.
  bool resize(int rows, int cols);
  // Ends the stream at once from any thread: the agent kills the command's process group, and
  // wait() and the writers return.
  void abort();

  // Reads frames until the command ends, handing output to the receivers. Call it once, from
  // one thread. Throws ConnectionError when the stream ends without an exit or error frame.
  ExecOutcome wait(const ExecOutput& output);

 private:
  struct State;
  explicit ExecStream(std::unique_ptr<State> state);
  std::unique_ptr<State> state;
};

// Runs a command with the given standard input (then end of input) and collects its output.
struct CapturedExec {
  ExecOutcome outcome;
  std::string out;
  std::string err;
};
CapturedExec runCaptured(const Address& address, std::string_view command,
                         std::string_view input = {});

// ---- Guest shell words ---------------------------------------------------------------------

// Quotes text as one word for a POSIX shell: inside single quotes, each single quote written
// as '\''. The empty text becomes ''.
std::string shellQuote(std::string_view text);

// A guest path as one shell word. A leading "~/" stays expandable ("$HOME"/'rest'); everything
// else is quoted literally.
std::string guestPathWord(std::string_view path);

}  // namespace tervain::client
