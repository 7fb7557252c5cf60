// Wire constants shared by the agent, its tests and the host-side client.
#pragma once

#include <cstdint>
#include <string_view>

namespace tervain::AgentWire {

inline constexpr std::uint32_t port = 2035;
inline constexpr int version = 2;

namespace Exec {
inline constexpr std::string_view op = "exec";
inline constexpr std::string_view commandKey = "command";
inline constexpr std::string_view tagKey = "t";
inline constexpr std::string_view stdout_ = "o";
inline constexpr std::string_view stderr_ = "e";
inline constexpr std::string_view exit = "x";
inline constexpr std::string_view spawnError = "err";
inline constexpr std::string_view stdin_ = "i";
inline constexpr std::string_view stdinEOF = "eof";
inline constexpr std::string_view signal = "sig";
inline constexpr std::string_view dataKey = "d";
inline constexpr std::string_view codeKey = "code";
inline constexpr std::string_view messageKey = "m";
inline constexpr std::string_view signalKey = "n";
// Request options: variables laid over the agent's environment, the working directory, and a
// time limit in seconds after which the group gets SIGTERM, then SIGKILL.
inline constexpr std::string_view envKey = "env";
inline constexpr std::string_view cwdKey = "cwd";
inline constexpr std::string_view timeoutKey = "timeout";
// In the "x" frame, true (and present) only when the time limit ended the command.
inline constexpr std::string_view timedOutKey = "timedOut";
// Request option: {"rows": R, "cols": C, "term"?: T} runs the command on a pseudo-terminal of
// that size (standard output then carries everything it writes). The host frame
// {"t":"resize","rows":R,"cols":C} changes the size later; a session without one ignores it.
inline constexpr std::string_view ttyKey = "tty";
inline constexpr std::string_view rowsKey = "rows";
inline constexpr std::string_view colsKey = "cols";
inline constexpr std::string_view termKey = "term";
inline constexpr std::string_view resize = "resize";
// Rows and columns a terminal may have, in the request and in a resize frame.
inline constexpr std::int64_t maxTerminalSide = 10000;
// TERM of a terminal session whose request names none (nor TERM in "env").
inline constexpr std::string_view defaultTerm = "xterm-256color";
}  // namespace Exec

namespace ShellEvents {
inline constexpr std::string_view op = "shell-events";
inline constexpr std::string_view dirKey = "dir";
inline constexpr std::string_view maxBytesKey = "maxBytes";
inline constexpr std::string_view truncateKey = "truncate";
inline constexpr std::string_view eventsKey = "events";
inline constexpr std::string_view filesKey = "files";
inline constexpr std::string_view bytesKey = "bytes";
inline constexpr std::string_view truncatedKey = "truncated";
// Exact deletion, for a host that deletes only once it has stored what it received: a drain
// with "listFiles" true also answers "delivered", [{"name","bytes"}...]; a request with
// "delete" set to such a list drains nothing and removes each file only while it still has
// that size, answering the names it "deleted" and the ones it "kept".
inline constexpr std::string_view listFilesKey = "listFiles";
inline constexpr std::string_view deliveredKey = "delivered";
inline constexpr std::string_view deleteKey = "delete";
inline constexpr std::string_view nameKey = "name";
inline constexpr std::string_view deletedKey = "deleted";
inline constexpr std::string_view keptKey = "kept";
// With "listFiles": true when "dir" is not a folder the agent can list (it does not exist, say),
// so a host can tell a mistyped folder from an empty spool.
inline constexpr std::string_view missingKey = "missing";
}  // namespace ShellEvents

// Largest number of unterminated bytes a connection may hold before it is closed.
inline constexpr std::size_t maxPendingLineBytes = 4 * 1024 * 1024;
// Size of the one read buffer each connection and exec session reuses.
inline constexpr std::size_t readChunkBytes = 64 * 1024;

}  // namespace tervain::AgentWire
