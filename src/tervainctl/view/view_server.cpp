// Routes: the compiled-in files ("/" is index.html, with the token written into its links),
// and the JSON and image calls the page makes:
//   GET  /api/status            ping, and the round trip it took
//   GET  /api/screenshot?maxWidth=N   the screen as JPEG; X-Image-Scale says image pixels per point
//   GET  /api/tree              the frontmost application's tree (ax_dump)
//   GET  /api/hit?x=X&y=Y       the deepest element at a point (ax_element_at)
//   POST /api/input             one of click, type, key, scroll, forwarded as the agent's request
// The token is checked before anything else, then the path, then the method. Agent replies
// pass through as the agent wrote them (a refusal is {"ok":false,...} with status 200); a
// connection that cannot be made or breaks answers 502 with the reason, and the next request
// connects again.
#include "tervainctl/view/view_server.h"

#include <fcntl.h>
#include <httplib.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <string_view>

#include "core/base64.h"
#include "tervainctl/mcp/mcp_agent.h"
#include "tervainctl/view/view_assets.h"

namespace tervain::view {
namespace {

constexpr std::string_view kApiGet[] = {"/api/status", "/api/screenshot", "/api/tree", "/api/hit"};
constexpr std::string_view kInputOps[] = {"click", "type", "key", "scroll"};

const Asset* findAsset(const std::string& path) {
  const std::string name = path == "/" ? "/index.html" : path;
  for (std::size_t i = 0; i < kAssetCount; ++i) {
    if (name == kAssets[i].path) return &kAssets[i];
  }
  return nullptr;
}

bool isApiGet(const std::string& path) {
  for (std::string_view p : kApiGet) {
    if (path == p) return true;
  }
  return false;
}

// Constant-time comparison: the token is a secret.
bool sameToken(const std::string& given, const std::string& token) {
  if (given.size() != token.size()) return false;
  unsigned char diff = 0;
  for (std::size_t i = 0; i < token.size(); ++i) diff |= static_cast<unsigned char>(given[i] ^ token[i]);
  return diff == 0;
}

void sendJson(httplib::Response& response, int status, const Json& body) {
  response.status = status;
  response.set_content(body.dump(-1, ' ', false, Json::error_handler_t::replace), "application/json");
}

void sendError(httplib::Response& response, int status, const std::string& message) {
  sendJson(response, status, {{"ok", false}, {"error", message}});
}

}  // namespace

std::string randomToken() {
  std::array<unsigned char, 16> bytes{};
  const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  std::size_t got = 0;
  while (fd >= 0 && got < bytes.size()) {
    const ssize_t n = ::read(fd, bytes.data() + got, bytes.size() - got);
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  if (fd >= 0) ::close(fd);
  if (got != bytes.size()) throw std::runtime_error("cannot read /dev/urandom for the page's token");
  static constexpr char kHex[] = "0123456789abcdef";
  std::string token;
  for (unsigned char b : bytes) {
    token.push_back(kHex[b >> 4]);
    token.push_back(kHex[b & 15]);
  }
  return token;
}

struct ViewServer::State {
  ViewOptions options;
  httplib::Server http;
  mcp::AgentSession agent;
  int port = -1;

  explicit State(ViewOptions o)
      : options(std::move(o)), agent(options.agent, std::chrono::seconds(30)) {}

  // One agent request; 502 when the connection fails. reopened tells the page its refs are gone.
  bool call(const Json& request, bool retryable, httplib::Response& response, Json& reply) {
    std::string notice;
    try {
      reply = agent.call(request, retryable, notice);
    } catch (const client::ClientError& e) {
      sendError(response, 502, "no answer from the agent at " + client::formatAddress(agent.address()) +
                                   ": " + e.what());
      return false;
    }
    if (!notice.empty()) reply["reopened"] = true;
    return true;
  }

  void forward(const Json& request, bool retryable, httplib::Response& response) {
    Json reply;
    if (call(request, retryable, response, reply)) sendJson(response, 200, reply);
  }

  // Token, then path, then method; anything refused here is answered and goes no further.
  httplib::Server::HandlerResponse gate(const httplib::Request& request,
                                        httplib::Response& response) {
    const std::string given = request.has_param("token") ? request.get_param_value("token")
                                                         : request.get_header_value("X-Tervain-Token");
    if (!sameToken(given, options.token)) {
      sendError(response, 403, "this page needs the address with the token that tervainctl view printed");
      return httplib::Server::HandlerResponse::Handled;
    }
    const bool get = request.method == "GET" || request.method == "HEAD";
    const char* allowed = nullptr;
    if (findAsset(request.path) || isApiGet(request.path)) {
      if (!get) allowed = "GET, HEAD";
    } else if (request.path == "/api/input") {
      if (request.method != "POST") allowed = "POST";
    } else {
      sendError(response, 404, "nothing here: " + request.path);
      return httplib::Server::HandlerResponse::Handled;
    }
    if (allowed) {
      response.set_header("Allow", allowed);
      sendError(response, 405, request.method + " is not allowed on " + request.path);
      return httplib::Server::HandlerResponse::Handled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  }

  void routes() {
    http.set_pre_routing_handler(
        [this](const httplib::Request& request, httplib::Response& response) { return gate(request, response); });
    http.set_post_routing_handler([](const httplib::Request&, httplib::Response& response) {
      response.set_header("Cache-Control", "no-store");
      response.set_header("X-Content-Type-Options", "nosniff");
      response.set_header("Referrer-Policy", "no-referrer");
    });

    http.Get("/api/status", [this](const httplib::Request&, httplib::Response& response) {
      const auto start = std::chrono::steady_clock::now();
      Json reply;
      if (!call({{"op", "ping"}}, true, response, reply)) return;
      reply["rttMs"] = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
      reply["agent"] = client::formatAddress(agent.address());
      sendJson(response, 200, reply);
    });
    http.Get("/api/screenshot", [this](const httplib::Request& request, httplib::Response& response) {
      Json shot = {{"op", "screenshot"}};
      if (request.has_param("maxWidth")) {
        const std::string text = request.get_param_value("maxWidth");
        char* end = nullptr;
        const long width = std::strtol(text.c_str(), &end, 10);
        if (text.empty() || *end != '\0' || width < 16 || width > 16384) {
          return sendError(response, 400, "maxWidth wants a whole number of pixels, 16 to 16384");
        }
        shot["maxWidth"] = width;
      }
      Json reply;
      if (!call(shot, true, response, reply)) return;
      const client::Result<client::Screenshot> parsed = client::parseScreenshot(reply);
      if (!parsed.ok) return sendJson(response, 200, reply);
      response.set_header("X-Image-Scale", std::to_string(parsed.value.scale));
      response.set_content(parsed.value.jpeg, "image/jpeg");
    });
    http.Get("/api/tree", [this](const httplib::Request&, httplib::Response& response) {
      forward({{"op", "ax_dump"}}, true, response);
    });
    http.Get("/api/hit", [this](const httplib::Request& request, httplib::Response& response) {
      double point[2];
      const char* names[2] = {"x", "y"};
      for (int i = 0; i < 2; ++i) {
        const std::string text = request.get_param_value(names[i]);
        char* end = nullptr;
        point[i] = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0') return sendError(response, 400, "hit wants x and y in points");
      }
      forward({{"op", "ax_element_at"}, {"x", point[0]}, {"y", point[1]}}, true, response);
    });
    http.Post("/api/input", [this](const httplib::Request& request, httplib::Response& response) {
      Json body = Json::parse(request.body, nullptr, false);
      const bool known = body.is_object() && body.contains("op") && body["op"].is_string() &&
                         std::find(std::begin(kInputOps), std::end(kInputOps),
                                   body["op"].get<std::string>()) != std::end(kInputOps);
      if (!known) return sendError(response, 400, "input wants a JSON object whose op is click, type, key or scroll");
      forward(body, false, response);
    });
    for (std::size_t i = 0; i < kAssetCount; ++i) {
      const Asset& asset = kAssets[i];
      const auto serveAsset = [this, &asset](const httplib::Request&, httplib::Response& response) {
        std::string body = asset.body;
        // The page's own links carry the token, so its scripts and styles load like it did.
        for (std::size_t at; (at = body.find("{{TOKEN}}")) != std::string::npos;) {
          body.replace(at, 9, options.token);
        }
        response.set_content(body, asset.contentType);
      };
      http.Get(asset.path, serveAsset);
      if (std::string_view(asset.path) == "/index.html") http.Get("/", serveAsset);
    }
  }
};

ViewServer::ViewServer(ViewOptions options) : state(std::make_unique<State>(std::move(options))) {
  if (state->options.token.empty()) state->options.token = randomToken();
  state->routes();
}

ViewServer::~ViewServer() { stop(); }

int ViewServer::bind(std::string& error) {
  state->port = state->options.port == 0
                    ? state->http.bind_to_any_port(state->options.host)
                    : (state->http.bind_to_port(state->options.host, state->options.port)
                           ? state->options.port
                           : -1);
  if (state->port < 0) {
    error = "cannot listen on " + state->options.host + " port " + std::to_string(state->options.port) +
            ": " + std::strerror(errno);
  }
  return state->port;
}

std::string ViewServer::url() const {
  const std::string& host = state->options.host;
  const std::string shown = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  return "http://" + shown + ":" + std::to_string(state->port) + "/?token=" + state->options.token;
}

const std::string& ViewServer::token() const { return state->options.token; }

bool ViewServer::serve() { return state->http.listen_after_bind(); }

void ViewServer::stop() { state->http.stop(); }

}  // namespace tervain::view
