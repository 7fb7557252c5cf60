// The "shell-events" request line through ConnectionHandler::runShellEvents on a socket pair,
// against a spool that this target owns.
//
// Whatever the input, only a private temporary directory can be drained or deleted from: a
// request that parses as an object gets its "dir" replaced by the private spool, and HOME points
// at the private tree so that the default spool (for a line that does not parse, or whose "dir"
// would not count) is that same directory. Before each input the spool is filled again with the
// same few entries, so every input starts from the same state: event files of several sizes, an
// empty one, a file that is not an event file, a directory and a FIFO with event-file names.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <filesystem>
#include <string>
#include <string_view>

#include "agent/connection_handler.h"
#include "agent/ops_shell_drain.h"
#include "core/base64.h"
#include "core/request_members.h"
#include "core/shell_spool.h"
#include "fake_desktop.h"
#include "fuzz_support.h"

using namespace tervain;

namespace {

std::string gRoot;   // the private tree, also HOME
std::string gSpool;  // the one spool any request can reach
int gAgentEnd = -1;  // the handler's socket
int gHostEnd = -1;   // where the reply is read and discarded

// Creates the file unless it is there: an entry the last input left is still the same entry,
// and rewriting it in place would cost a forced write-back on some file systems.
void writeFile(const std::string& name, std::string_view bytes) {
  const int fd = ::open(ShellSpool::joinPath(gSpool, name).c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return;
  if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) std::abort();
  ::close(fd);
}

void fillSpool() {
  std::filesystem::create_directories(gSpool);
  writeFile("1-start.jsonl", "{\"event\":\"start\",\"pid\":1}\n");
  writeFile("2-output.jsonl", std::string(300, 'o') + "\n");
  writeFile("3-empty.jsonl", "");
  writeFile("4-end.jsonl", "{\"event\":\"end\",\"code\":0}\n");
  writeFile("notes.txt", "not an event file\n");
  std::filesystem::create_directories(ShellSpool::joinPath(gSpool, "5-dir.jsonl"));
  ::mkfifo(ShellSpool::joinPath(gSpool, "6-fifo.jsonl").c_str(), 0600);
}

void removeRoot() {
  std::error_code ignored;
  if (!gRoot.empty()) std::filesystem::remove_all(gRoot, ignored);
}

// The reply, read once the handler returned: everything it wrote is already in the socket.
std::string takeReply() {
  std::string reply;
  char chunk[64 * 1024];
  for (;;) {
    const ssize_t n = ::recv(gHostEnd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (n <= 0) break;
    reply.append(chunk, static_cast<std::size_t>(n));
  }
  return reply;
}

void checkReply(const std::string& reply) {
  // One line, a success whose "bytes" is the size of what "events" decodes to.
  if (reply.empty() || reply.back() != '\n' || reply.find('\n') != reply.size() - 1) std::abort();
  const std::optional<Json> parsed =
      parseRequestObject(std::string_view(reply).substr(0, reply.size() - 1));
  if (!parsed || (*parsed)["ok"] != true) std::abort();
  const std::string* events = stringMember(*parsed, "events");
  std::string decoded;
  if (events == nullptr || !base64::decodeInto(*events, decoded)) std::abort();
  if ((*parsed)["bytes"] != decoded.size()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string pattern = (std::filesystem::temp_directory_path() / "tervain-shell-events-XXXXXX");
  if (::mkdtemp(pattern.data()) == nullptr) std::abort();
  gRoot = pattern;
  std::atexit(removeRoot);
  ::setenv("HOME", gRoot.c_str(), 1);
  gSpool = ShellSpool::defaultDir();
  if (gSpool.rfind(gRoot + "/", 0) != 0) std::abort();
  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) std::abort();
  gAgentEnd = pair[0];
  gHostEnd = pair[1];
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The connection hands over one line, without its line feed.
  std::string_view input(reinterpret_cast<const char*>(data), size);
  input = input.substr(0, input.find('\n'));
  std::string line(input);
  if (std::optional<Json> request = parseRequestObject(line)) {
    (*request)["dir"] = gSpool;
    line = request->dump(-1, ' ', false, Json::error_handler_t::replace);
  }
  fillSpool();

  testing::FakeDesktop desktop;
  AgentContext context(desktop);
  fuzzing::quietContext(context);
  ConnectionHandler handler(gAgentEnd, context);
  runShellEvents(handler.operations(), line);
  checkReply(takeReply());
  return 0;
}
