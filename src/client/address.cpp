// Agent addresses: parsing and connecting.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "client/tervain_client.h"
#include "core/agent_wire.h"
#include "vsock/tervain_vsock.h"

namespace tervain::client {
namespace {

constexpr std::string_view kForms = "use vsock:CID:PORT, unix:PATH or fd:N";

// Digits only: no sign, no space, no base prefix.
template <typename Int>
std::optional<Int> parseDecimal(std::string_view text) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
  Int value{};
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<Address> parseAddress(std::string_view text, std::string& error) {
  const std::size_t colon = text.find(':');
  const std::string_view scheme = colon == std::string_view::npos ? "" : text.substr(0, colon);
  const std::string_view rest = colon == std::string_view::npos ? "" : text.substr(colon + 1);
  Address address;
  if (scheme == "unix") {
    if (rest.empty()) {
      error = "unix address needs a socket path, e.g. unix:/tmp/tervain.sock";
      return std::nullopt;
    }
    address.kind = Address::Kind::unixSocket;
    address.path = std::string(rest);
    return address;
  }
  if (scheme == "vsock") {
    // The port may be left out: the agent's default port is meant then.
    const std::size_t split = rest.find(':');
    const auto cid = parseDecimal<std::uint32_t>(rest.substr(0, split));
    const auto port = split == std::string_view::npos
                          ? std::optional<std::uint32_t>(AgentWire::port)
                          : parseDecimal<std::uint32_t>(rest.substr(split + 1));
    if (!cid || !port) {
      error = "vsock address needs a context id and a port as numbers, e.g. vsock:3:2035";
      return std::nullopt;
    }
    address.kind = Address::Kind::vsock;
    address.cid = *cid;
    address.port = *port;
    return address;
  }
  if (scheme == "fd") {
    const auto fd = parseDecimal<int>(rest);
    if (!fd) {
      error = "fd address needs a descriptor number, e.g. fd:3";
      return std::nullopt;
    }
    address.kind = Address::Kind::descriptor;
    address.fd = *fd;
    return address;
  }
  error = "unknown address '" + std::string(text) + "': " + std::string(kForms);
  return std::nullopt;
}

std::string formatAddress(const Address& address) {
  switch (address.kind) {
    case Address::Kind::vsock:
      return "vsock:" + std::to_string(address.cid) + ":" + std::to_string(address.port);
    case Address::Kind::unixSocket:
      return "unix:" + address.path;
    case Address::Kind::descriptor:
      return "fd:" + std::to_string(address.fd);
  }
  return "?";
}

UniqueFd connectTo(const Address& address) {
  // A descriptor or a negated errno, the form of the C socket calls.
  int fd = -1;
  switch (address.kind) {
    case Address::Kind::vsock:
      fd = tervain_vsock_connect(address.cid, address.port);
      break;
    case Address::Kind::unixSocket:
      fd = tervain_unix_connect(address.path.c_str());
      break;
    case Address::Kind::descriptor:
      fd = ::fcntl(address.fd, F_DUPFD_CLOEXEC, 0);
      if (fd < 0) fd = -errno;
      break;
  }
  if (fd < 0) {
    throw ConnectionError("cannot connect to " + formatAddress(address) + ": " +
                          std::strerror(-fd),
                          -fd);
  }
  tervain_set_nosigpipe(fd);
  return UniqueFd(fd);
}

}  // namespace tervain::client
