// See the header for the design. The D-Bus side of AT-SPI used here, per object:
//   org.a11y.atspi.Accessible  GetRole() u, GetState() au, GetInterfaces() as,
//                              GetChildren() a(so), properties Name, Description, Parent
//   org.a11y.atspi.Component   GetExtents(u coordType) (iiii), GetAccessibleAtPoint(iiu) (so),
//                              GrabFocus() b
//   org.a11y.atspi.Action      GetActions() a(sss), DoAction(i) b
//   org.a11y.atspi.Value       property CurrentValue d (read and write)
//   org.a11y.atspi.Text        GetText(ii) s;  org.a11y.atspi.EditableText SetTextContents(s) b
// and the registry's root lists the applications (GetChildren), whose pids the bus daemon knows.
#include "platform/atspi/atspi_accessibility.h"

#include <atspi/atspi-constants.h>
#include <gio/gio.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <set>
#include <thread>
#include <unordered_map>

#include "platform/atspi/atspi_roles.h"

namespace tervain::atspi {
namespace {

constexpr int kDefaultTimeoutMs = 1500;
// Calls in flight at once: the bus allows far more, this only bounds the memory of one batch.
constexpr std::size_t kWindow = 1024;
// What finding and opening an application's own socket may cost at most.
constexpr int kPeerSetupMs = 250;
// Steps down through nested hit tests; real trees are 3 to 10 deep.
constexpr int kMaxHitDepth = 32;

constexpr const char* kAccessible = "org.a11y.atspi.Accessible";
constexpr const char* kComponent = "org.a11y.atspi.Component";
constexpr const char* kAction = "org.a11y.atspi.Action";
constexpr const char* kValueInterface = "org.a11y.atspi.Value";
constexpr const char* kText = "org.a11y.atspi.Text";
constexpr const char* kEditableText = "org.a11y.atspi.EditableText";
constexpr const char* kProperties = "org.freedesktop.DBus.Properties";
constexpr const char* kRegistry = "org.a11y.atspi.Registry";
constexpr const char* kRootPath = "/org/a11y/atspi/accessible/root";
constexpr const char* kNullPath = "/org/a11y/atspi/null";

using Variant = std::unique_ptr<GVariant, decltype(&g_variant_unref)>;

// Whether a D-Bus error says the object or its application is gone, the call timed out, or the
// object lacks the interface.
AXResult codeOf(const GError* error) {
  if (error == nullptr) return AXError::success;
  if (error->domain == G_IO_ERROR) {
    if (error->code == G_IO_ERROR_TIMED_OUT) return AXError::cannotComplete;
    if (error->code == G_IO_ERROR_CLOSED) return AXError::cannotComplete;
  }
  if (error->domain == G_DBUS_ERROR) {
    switch (error->code) {
      case G_DBUS_ERROR_TIMEOUT:
      case G_DBUS_ERROR_TIMED_OUT:
        return AXError::cannotComplete;
      case G_DBUS_ERROR_SERVICE_UNKNOWN:
      case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
      case G_DBUS_ERROR_UNKNOWN_OBJECT:
      case G_DBUS_ERROR_NO_REPLY:
      case G_DBUS_ERROR_DISCONNECTED:
        return AXError::invalidUIElement;
      case G_DBUS_ERROR_UNKNOWN_METHOD:
      case G_DBUS_ERROR_UNKNOWN_INTERFACE:
      case G_DBUS_ERROR_UNKNOWN_PROPERTY:
      case G_DBUS_ERROR_NOT_SUPPORTED:
        return AXError::attributeUnsupported;
      default:
        break;
    }
  }
  return AXError::failure;
}

// ---- Calls -----------------------------------------------------------------------------------

struct Router;
}  // namespace
struct BusConnection;
namespace {

// The connection that carries the calls to one application (its unique name on the bus).
using Route = std::function<std::shared_ptr<BusConnection>(const std::string& busName)>;

// Many calls, all in flight together; run() returns when every call has answered or timed out.
//
// The calls are sent as plain messages and their replies caught by a filter on the connection's
// worker thread, matched by serial: GDBus's own asynchronous calls cost a task and a main-loop
// dispatch per reply, several times what the message itself costs, and that overhead showed as
// the largest share of a walk. Calls not yet sent when the batch's deadline (its longest
// timeout) has passed are not sent and read as timed out, so a batch never lasts much longer
// than one timeout, however many calls it holds. Each call goes on its application's own
// connection (see linkFor), so one batch may wait on several connections at once.
//
// Locks: a router's mutex guards its table of waiting calls, the batch's mutex the batch's
// count and answers; the filter takes the router's and then the batch's, nothing takes them the
// other way round.
class Batch {
 public:
  Batch() = default;
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;
  ~Batch() {
    for (Call& call : calls) {
      if (call.parameters) g_variant_unref(call.parameters);
      if (call.replyMessage) g_object_unref(call.replyMessage);
    }
  }

  std::size_t add(std::string bus, std::string path, const char* interface, const char* method,
                  GVariant* parameters, int timeoutMs) {
    calls.push_back(Call{std::move(bus), std::move(path), interface, method,
                         parameters ? g_variant_ref_sink(parameters) : nullptr, timeoutMs});
    return calls.size() - 1;
  }

  void run(const Route& route);

  AXResult code(std::size_t i) const { return calls[i].code; }
  // The reply's body, owned by the batch; null unless the call succeeded.
  GVariant* reply(std::size_t i) const {
    const Call& call = calls[i];
    return call.code == AXError::success && call.replyMessage
               ? g_dbus_message_get_body(call.replyMessage)
               : nullptr;
  }

 private:
  friend struct Router;
  struct Call {
    std::string bus, path;
    const char* interface;
    const char* method;
    GVariant* parameters;  // owned until sent
    int timeoutMs;
    AXResult code = AXError::cannotComplete;  // as if timed out, until answered
    GDBusMessage* replyMessage = nullptr;
    guint32 serial = 0;  // while in flight
  };

  bool send(const BusConnection& link, std::size_t index);
  // Gives up on the calls still waiting on link, with the code given.
  void abandon(const BusConnection& link, AXResult code);

  std::vector<Call> calls;
  std::mutex mutex;
  std::size_t inFlight = 0;  // guarded by mutex
  std::condition_variable answered;
};

// Routes replies to the batches waiting for them; one per connection, living as long as it.
struct Router {
  std::mutex mutex;
  std::unordered_map<guint32, std::pair<Batch*, std::size_t>> waiting;

  // Runs on the connection's worker thread for every message.
  static GDBusMessage* filter(GDBusConnection*, GDBusMessage* message, gboolean incoming,
                              gpointer data) {
    if (!incoming) return message;
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    if (type != G_DBUS_MESSAGE_TYPE_METHOD_RETURN && type != G_DBUS_MESSAGE_TYPE_ERROR) {
      return message;
    }
    auto* router = static_cast<Router*>(data);
    std::lock_guard lock(router->mutex);
    const auto found = router->waiting.find(g_dbus_message_get_reply_serial(message));
    if (found == router->waiting.end()) return message;  // someone else's call
    auto [batch, index] = found->second;
    router->waiting.erase(found);
    AXResult code = AXError::success;
    if (type == G_DBUS_MESSAGE_TYPE_ERROR) {
      GError* error = nullptr;
      g_dbus_message_to_gerror(message, &error);
      code = codeOf(error);
      if (error) g_error_free(error);
      g_object_unref(message);
      message = nullptr;
    }
    std::lock_guard answer(batch->mutex);
    Batch::Call& call = batch->calls[index];
    call.code = code;
    call.replyMessage = message;
    if (--batch->inFlight == 0 || batch->inFlight + 1 == kWindow) batch->answered.notify_one();
    return nullptr;  // ours: GDBus never sees it
  }
};

}  // namespace

struct BusConnection {
  GDBusConnection* gdbus;
  Router* router;  // freed by the connection with its filter
  bool peer;       // a private connection to one application: its messages name no destination
  ~BusConnection() { g_object_unref(gdbus); }
};

namespace {

// Made with the filter that routes the replies of batches.
std::shared_ptr<BusConnection> linkOf(GDBusConnection* made, bool peer) {
  g_dbus_connection_set_exit_on_close(made, FALSE);
  auto router = new Router;
  g_dbus_connection_add_filter(made, &Router::filter, router,
                               [](gpointer data) { delete static_cast<Router*>(data); });
  return std::shared_ptr<BusConnection>(new BusConnection{made, router, peer});
}

// A private connection to the socket an application listens on; none when it cannot be made
// within boundMs. Only local sockets: the address comes from the application.
std::shared_ptr<BusConnection> connectPeer(const std::string& address, int boundMs) {
  if (!address.starts_with("unix:")) return nullptr;
  GCancellable* cancel = g_cancellable_new();
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  // The handshake needs the application's main loop; a hung application must not hold it.
  std::thread timer([&] {
    std::unique_lock lock(mutex);
    if (!finished.wait_for(lock, std::chrono::milliseconds(boundMs), [&] { return done; })) {
      g_cancellable_cancel(cancel);
    }
  });
  GError* error = nullptr;
  GDBusConnection* made = g_dbus_connection_new_for_address_sync(
      address.c_str(), G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT, nullptr, cancel, &error);
  {
    std::lock_guard lock(mutex);
    done = true;
  }
  finished.notify_one();
  timer.join();
  g_object_unref(cancel);
  if (made == nullptr) {
    g_error_free(error);
    return nullptr;
  }
  return linkOf(made, true);
}

bool Batch::send(const BusConnection& link, std::size_t index) {
  Call& call = calls[index];
  GDBusMessage* message = g_dbus_message_new_method_call(
      link.peer ? nullptr : call.bus.c_str(), call.path.c_str(), call.interface, call.method);
  if (call.parameters) {
    g_dbus_message_set_body(message, call.parameters);
    g_variant_unref(call.parameters);
    call.parameters = nullptr;
  }
  g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
  // Sent under the router's lock, so the reply cannot be routed before its serial is known.
  GError* error = nullptr;
  bool sent = false;
  {
    std::lock_guard lock(link.router->mutex);
    sent = g_dbus_connection_send_message(link.gdbus, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                          &call.serial, &error);
    if (sent) link.router->waiting.emplace(call.serial, std::make_pair(this, index));
  }
  if (!sent) {
    call.code = codeOf(error);
    g_error_free(error);
  }
  g_object_unref(message);
  return sent;
}

void Batch::abandon(const BusConnection& link, AXResult code) {
  std::lock_guard lock(link.router->mutex);
  std::lock_guard answer(mutex);
  for (auto it = link.router->waiting.begin(); it != link.router->waiting.end();) {
    if (it->second.first != this) {
      ++it;
      continue;
    }
    calls[it->second.second].code = code;
    --inFlight;
    it = link.router->waiting.erase(it);
  }
}

void Batch::run(const Route& route) {
  if (calls.empty()) return;
  using Clock = std::chrono::steady_clock;
  int longest = 0;
  for (const Call& call : calls) longest = std::max(longest, call.timeoutMs);
  const auto deadline = Clock::now() + std::chrono::milliseconds(longest);

  // One link per application, asked once; a call without one reads as timed out.
  std::vector<std::shared_ptr<BusConnection>> links;
  std::vector<const BusConnection*> linkOfCall(calls.size(), nullptr);
  std::unordered_map<std::string, const BusConnection*> linkOfBus;
  bool anyPeer = false;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    auto known = linkOfBus.find(calls[i].bus);
    if (known == linkOfBus.end()) {
      std::shared_ptr<BusConnection> link = route(calls[i].bus);
      if (link && std::find(links.begin(), links.end(), link) == links.end()) {
        anyPeer = anyPeer || link->peer;
        links.push_back(link);
      }
      known = linkOfBus.emplace(calls[i].bus, link.get()).first;
    }
    linkOfCall[i] = known->second;
  }

  std::size_t next = 0;
  std::unique_lock lock(mutex);
  while (true) {
    while (inFlight < kWindow && next < calls.size() && Clock::now() < deadline) {
      const std::size_t index = next++;
      if (linkOfCall[index] == nullptr) continue;
      ++inFlight;  // before the send: the reply may be routed before send() returns
      lock.unlock();
      const bool sent = send(*linkOfCall[index], index);
      lock.lock();
      if (!sent) --inFlight;
    }
    if (inFlight == 0 && (next == calls.size() || Clock::now() >= deadline)) break;
    // A private connection that closes (its application ended) answers nothing more: a look at
    // it every 50 ms ends the wait as the bus would, with the application gone.
    const auto wake = anyPeer ? std::min(deadline, Clock::now() + std::chrono::milliseconds(50))
                              : deadline;
    if (inFlight > 0) answered.wait_until(lock, wake);
    if (anyPeer && inFlight > 0) {
      lock.unlock();
      for (const auto& link : links) {
        if (link->peer && g_dbus_connection_is_closed(link->gdbus)) {
          abandon(*link, AXError::invalidUIElement);
        }
      }
      lock.lock();
    }
    if (inFlight > 0 && Clock::now() >= deadline) break;
  }
  lock.unlock();
  // Whatever has not answered by now has timed out; a late reply goes to GDBus, which drops it.
  for (const auto& link : links) abandon(*link, AXError::cannotComplete);
}

// One synchronous call; the reply body or the result code.
AXResult callSync(const BusConnection* link, const std::string& bus, const std::string& path,
                  const char* interface, const char* method, GVariant* parameters, int timeoutMs,
                  Variant& reply) {
  if (link == nullptr) {
    if (parameters) g_variant_unref(g_variant_ref_sink(parameters));
    return AXError::cannotComplete;
  }
  GError* error = nullptr;
  GVariant* body = g_dbus_connection_call_sync(link->gdbus, link->peer ? nullptr : bus.c_str(),
                                               path.c_str(), interface,
                                               method, parameters, nullptr,
                                               G_DBUS_CALL_FLAGS_NO_AUTO_START, timeoutMs,
                                               nullptr, &error);
  const AXResult code = codeOf(error);
  if (error) g_error_free(error);
  reply.reset(body);
  return body ? AXError::success : code;
}

// ---- Reply decoding --------------------------------------------------------------------------

// The single child of a reply tuple, unwrapped from a property's variant, if it has the type.
Variant member(GVariant* reply, const char* type) {
  Variant none(nullptr, g_variant_unref);
  if (reply == nullptr || !g_variant_is_of_type(reply, G_VARIANT_TYPE_TUPLE) ||
      g_variant_n_children(reply) < 1) {
    return none;
  }
  Variant child(g_variant_get_child_value(reply, 0), g_variant_unref);
  while (g_variant_is_of_type(child.get(), G_VARIANT_TYPE_VARIANT)) {
    child.reset(g_variant_get_variant(child.get()));
  }
  if (!g_variant_is_of_type(child.get(), G_VARIANT_TYPE(type))) return none;
  return child;
}

std::optional<std::uint32_t> asUint(GVariant* reply) {
  const Variant v = member(reply, "u");
  if (!v) return std::nullopt;
  return g_variant_get_uint32(v.get());
}

std::optional<std::string> asString(GVariant* reply) {
  const Variant v = member(reply, "s");
  if (!v) return std::nullopt;
  return std::string(g_variant_get_string(v.get(), nullptr));
}

std::optional<double> asDouble(GVariant* reply) {
  const Variant v = member(reply, "d");
  if (!v) return std::nullopt;
  return g_variant_get_double(v.get());
}

std::optional<bool> asBool(GVariant* reply) {
  const Variant v = member(reply, "b");
  if (!v) return std::nullopt;
  return g_variant_get_boolean(v.get()) != FALSE;
}

std::optional<std::uint64_t> asStates(GVariant* reply) {
  const Variant v = member(reply, "au");
  if (!v) return std::nullopt;
  gsize count = 0;
  const auto* words =
      static_cast<const guint32*>(g_variant_get_fixed_array(v.get(), &count, sizeof(guint32)));
  std::uint64_t bits = 0;
  if (count > 0) bits |= words[0];
  if (count > 1) bits |= static_cast<std::uint64_t>(words[1]) << 32;
  return bits;
}

bool hasState(std::uint64_t states, AtspiStateType state) {
  return (states >> static_cast<unsigned>(state)) & 1u;
}

std::optional<std::set<std::string>> asInterfaces(GVariant* reply) {
  const Variant v = member(reply, "as");
  if (!v) return std::nullopt;
  std::set<std::string> out;
  const gsize n = g_variant_n_children(v.get());
  for (gsize i = 0; i < n; ++i) {
    const Variant item(g_variant_get_child_value(v.get(), i), g_variant_unref);
    out.insert(g_variant_get_string(item.get(), nullptr));
  }
  return out;
}

struct Extents {
  std::int32_t x, y, width, height;
};

std::optional<Extents> asExtents(GVariant* reply) {
  const Variant v = member(reply, "(iiii)");
  if (!v) return std::nullopt;
  Extents e{};
  g_variant_get(v.get(), "(iiii)", &e.x, &e.y, &e.width, &e.height);
  return e;
}

// An object reference; nothing for the null object. An empty bus name means the caller's.
ElementRef asElement(GVariant* reference, const std::string& ownBus) {
  const gchar* bus = nullptr;
  const gchar* path = nullptr;
  g_variant_get(reference, "(&s&o)", &bus, &path);
  if (path == nullptr || std::string_view(path) == kNullPath) return nullptr;
  return std::make_shared<const AtspiElement>(*bus != '\0' ? std::string(bus) : ownBus, path);
}

std::optional<std::vector<ElementRef>> asElements(GVariant* reply, const std::string& ownBus) {
  const Variant v = member(reply, "a(so)");
  if (!v) return std::nullopt;
  std::vector<ElementRef> out;
  const gsize n = g_variant_n_children(v.get());
  out.reserve(n);
  for (gsize i = 0; i < n; ++i) {
    const Variant item(g_variant_get_child_value(v.get(), i), g_variant_unref);
    if (ElementRef element = asElement(item.get(), ownBus)) out.push_back(std::move(element));
  }
  return out;
}

std::optional<ElementRef> asOneElement(GVariant* reply, const std::string& ownBus) {
  const Variant v = member(reply, "(so)");
  if (!v) return std::nullopt;
  return asElement(v.get(), ownBus);
}

bool isDefaultAction(std::string_view name) {
  std::string lower(name);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower == "click" || lower == "press" || lower == "activate" || lower == "toggle";
}

// The action names as the wire shows them: the first default action becomes AXPress.
std::optional<std::vector<std::string>> asActionNames(GVariant* reply) {
  const Variant v = member(reply, "a(sss)");
  if (!v) return std::nullopt;
  std::vector<std::string> out;
  bool pressed = false;
  const gsize n = g_variant_n_children(v.get());
  for (gsize i = 0; i < n; ++i) {
    const gchar* name = nullptr;
    const gchar* description = nullptr;
    const gchar* keys = nullptr;
    g_variant_get_child(v.get(), i, "(&s&s&s)", &name, &description, &keys);
    if (!pressed && isDefaultAction(name)) {
      out.emplace_back("AXPress");
      pressed = true;
    } else {
      out.emplace_back(name);
    }
  }
  return out;
}

GVariant* propertyOf(const char* interface, const char* property) {
  return g_variant_new("(ss)", interface, property);
}

// ---- Attribute plans -------------------------------------------------------------------------

// What an attribute needs fetched from the application.
// The first round asks what needs no other answer. The second (kExtents and after) asks only
// what the first round showed to exist: the frame of a showing component, the actions, the
// value. The application answers every call in turn on its main loop, so each call left out is
// time saved however many are in flight. (Properties are read one by one: GetAll on the
// Accessible interface crashes Qt applications.)
enum Fetch : unsigned {
  kRole, kName, kDescription, kStates, kInterfaces, kChildren, kParent,
  kExtents, kActions, kNumber, kTextContents, kFetchCount
};
constexpr unsigned kSecondRound = kExtents;

// What the second round is asked to fetch for each element.
enum Want : unsigned { kWantFrame = 1, kWantValue = 2, kWantActions = 4 };

std::uint32_t needsOf(const std::string& attribute) {
  const auto bit = [](Fetch f) { return 1u << f; };
  if (attribute == "AXRole") return bit(kRole) | bit(kStates);
  if (attribute == "AXSubrole" || attribute == "AXRoleDescription") return bit(kRole);
  if (attribute == "AXTitle") return bit(kName);
  if (attribute == "AXDescription") return bit(kDescription);
  if (attribute == "AXValue") return bit(kRole) | bit(kStates) | bit(kInterfaces);
  if (attribute == "AXEnabled" || attribute == "AXFocused" || attribute == "AXSelected" ||
      attribute == "AXExpanded" || attribute == "AXMain" || attribute == "AXMinimized") {
    return bit(kRole) | bit(kStates);
  }
  if (attribute == "AXPosition" || attribute == "AXSize") return bit(kStates) | bit(kInterfaces);
  if (attribute == "AXChildren") return bit(kChildren);
  if (attribute == "AXWindows") return bit(kRole) | bit(kChildren);
  if (attribute == "AXParent") return bit(kParent);
  return 0;
}

unsigned wantsOf(const std::string& attribute) {
  if (attribute == "AXPosition" || attribute == "AXSize") return kWantFrame;
  if (attribute == "AXValue") return kWantValue;
  return 0;
}

void addFetch(Batch& batch, const AtspiElement& e, Fetch fetch, int timeoutMs,
              std::array<std::ptrdiff_t, kFetchCount>& slots) {
  if (slots[fetch] >= 0) return;
  const auto add = [&](const char* interface, const char* method, GVariant* parameters) {
    slots[fetch] = static_cast<std::ptrdiff_t>(
        batch.add(e.bus, e.path, interface, method, parameters, timeoutMs));
  };
  switch (fetch) {
    case kRole: add(kAccessible, "GetRole", nullptr); break;
    case kName: add(kProperties, "Get", propertyOf(kAccessible, "Name")); break;
    case kDescription: add(kProperties, "Get", propertyOf(kAccessible, "Description")); break;
    case kStates: add(kAccessible, "GetState", nullptr); break;
    case kInterfaces: add(kAccessible, "GetInterfaces", nullptr); break;
    case kExtents:
      add(kComponent, "GetExtents", g_variant_new("(u)", static_cast<guint32>(ATSPI_COORD_TYPE_SCREEN)));
      break;
    case kChildren: add(kAccessible, "GetChildren", nullptr); break;
    case kParent: add(kProperties, "Get", propertyOf(kAccessible, "Parent")); break;
    case kActions: add(kAction, "GetActions", nullptr); break;
    case kNumber: add(kProperties, "Get", propertyOf(kValueInterface, "CurrentValue")); break;
    case kTextContents: add(kText, "GetText", g_variant_new("(ii)", 0, -1)); break;
    case kFetchCount: break;
  }
}

// The fetched facts about one element, read out of a finished batch.
// The second round's fetches (kExtents and after) live in their own batch.
struct Facts {
  const Batch* batch = nullptr;
  const Batch* second = nullptr;
  const AtspiElement* element = nullptr;
  std::array<std::ptrdiff_t, kFetchCount> slots;

  Facts() { slots.fill(-1); }
  const Batch* of(Fetch f) const { return f >= kSecondRound ? second : batch; }
  AXResult code(Fetch f) const {
    return slots[f] < 0 ? AXError::failure : of(f)->code(static_cast<std::size_t>(slots[f]));
  }
  GVariant* reply(Fetch f) const {
    return slots[f] < 0 ? nullptr : of(f)->reply(static_cast<std::size_t>(slots[f]));
  }
};

bool isWindow(std::uint32_t role) {
  return role == ATSPI_ROLE_FRAME || role == ATSPI_ROLE_WINDOW || role == ATSPI_ROLE_DIALOG ||
         role == ATSPI_ROLE_FILE_CHOOSER || role == ATSPI_ROLE_ALERT;
}

bool isCheckable(std::uint32_t role) {
  return role == ATSPI_ROLE_CHECK_BOX || role == ATSPI_ROLE_TOGGLE_BUTTON ||
         role == ATSPI_ROLE_RADIO_BUTTON;
}

// Which second-round fetch AXValue needs, once role, states and interfaces are known.
std::optional<Fetch> valueSource(const Facts& facts) {
  const auto role = asUint(facts.reply(kRole));
  if (!role || isCheckable(*role)) return std::nullopt;
  const auto interfaces = asInterfaces(facts.reply(kInterfaces));
  if (!interfaces) return std::nullopt;
  if (interfaces->count(kValueInterface)) return kNumber;
  if (interfaces->count(kText)) return kTextContents;
  return std::nullopt;
}

// The second round's fetches for one element, from what round one found.
std::vector<Fetch> secondRound(const Facts& facts, unsigned wants) {
  std::vector<Fetch> out;
  const auto interfaces = asInterfaces(facts.reply(kInterfaces));
  if (wants & kWantFrame) {
    const auto states = asStates(facts.reply(kStates));
    if (states && hasState(*states, ATSPI_STATE_SHOWING) && interfaces &&
        interfaces->count(kComponent)) {
      out.push_back(kExtents);
    }
  }
  if (wants & kWantValue) {
    if (const auto source = valueSource(facts)) out.push_back(*source);
  }
  if ((wants & kWantActions) && interfaces && interfaces->count(kAction)) out.push_back(kActions);
  return out;
}

// A failed fetch's code, as an attribute read reports it.
AXRead failed(AXResult code) {
  return {code == AXError::success ? AXError::noValue : code, std::monostate{}};
}

AXRead stateAttribute(const Facts& facts, AtspiStateType state) {
  const auto states = asStates(facts.reply(kStates));
  if (!states) return failed(facts.code(kStates));
  return {AXError::success, hasState(*states, state)};
}

AXRead attributeOf(const Facts& facts, const std::string& attribute) {
  const std::string& bus = facts.element->bus;
  if (attribute == "AXRole" || attribute == "AXSubrole" || attribute == "AXRoleDescription") {
    const auto role = asUint(facts.reply(kRole));
    if (!role) return failed(facts.code(kRole));
    if (attribute == "AXRoleDescription") return {AXError::success, atspiRoleName(*role)};
    const auto states = asStates(facts.reply(kStates));
    const AXRoleNames names =
        axRoleNames(*role, states && hasState(*states, ATSPI_STATE_MULTI_LINE));
    if (attribute == "AXRole") return {AXError::success, names.role};
    if (names.subrole.empty()) return {AXError::noValue, std::monostate{}};
    return {AXError::success, names.subrole};
  }
  if (attribute == "AXTitle" || attribute == "AXDescription") {
    const Fetch f = attribute == "AXTitle" ? kName : kDescription;
    const auto text = asString(facts.reply(f));
    if (!text) return failed(facts.code(f));
    return {AXError::success, *text};
  }
  if (attribute == "AXValue") {
    const auto role = asUint(facts.reply(kRole));
    if (!role) return failed(facts.code(kRole));
    if (isCheckable(*role)) {
      const auto states = asStates(facts.reply(kStates));
      if (!states) return failed(facts.code(kStates));
      const std::int64_t mark = hasState(*states, ATSPI_STATE_INDETERMINATE) ? 2
                                : hasState(*states, ATSPI_STATE_CHECKED)    ? 1
                                                                            : 0;
      return {AXError::success, mark};
    }
    if (facts.slots[kNumber] >= 0) {
      const auto number = asDouble(facts.reply(kNumber));
      if (!number) return failed(facts.code(kNumber));
      return {AXError::success, *number};
    }
    if (facts.slots[kTextContents] >= 0) {
      const auto text = asString(facts.reply(kTextContents));
      if (!text) return failed(facts.code(kTextContents));
      return {AXError::success, *text};
    }
    if (!asInterfaces(facts.reply(kInterfaces))) return failed(facts.code(kInterfaces));
    return {AXError::attributeUnsupported, std::monostate{}};
  }
  if (attribute == "AXEnabled") {
    const auto role = asUint(facts.reply(kRole));
    // An application has no enabled state of its own (nor has it on macOS).
    if (role == ATSPI_ROLE_APPLICATION) return {AXError::attributeUnsupported, std::monostate{}};
    const auto states = asStates(facts.reply(kStates));
    if (!states) return failed(facts.code(kStates));
    return {AXError::success, hasState(*states, ATSPI_STATE_ENABLED) ||
                                  hasState(*states, ATSPI_STATE_SENSITIVE)};
  }
  if (attribute == "AXFocused" || attribute == "AXMain" || attribute == "AXMinimized") {
    // A window is focused (and main: X has one active window) while it is the active one, and
    // minimised while iconified; other elements have only the focus.
    const auto role = asUint(facts.reply(kRole));
    if (!role) return failed(facts.code(kRole));
    if (isWindow(*role)) {
      return stateAttribute(facts, attribute == "AXMinimized" ? ATSPI_STATE_ICONIFIED
                                                              : ATSPI_STATE_ACTIVE);
    }
    if (attribute != "AXFocused") return {AXError::attributeUnsupported, std::monostate{}};
    return stateAttribute(facts, ATSPI_STATE_FOCUSED);
  }
  if (attribute == "AXSelected") return stateAttribute(facts, ATSPI_STATE_SELECTED);
  if (attribute == "AXExpanded") {
    const auto states = asStates(facts.reply(kStates));
    if (states && !hasState(*states, ATSPI_STATE_EXPANDABLE)) {
      return {AXError::attributeUnsupported, std::monostate{}};
    }
    return stateAttribute(facts, ATSPI_STATE_EXPANDED);
  }
  if (attribute == "AXPosition" || attribute == "AXSize") {
    // Asked only of showing components: hidden objects report placeholders (GTK: INT_MIN for a
    // closed menu), so they have no frame at all.
    const auto states = asStates(facts.reply(kStates));
    if (!states) return failed(facts.code(kStates));
    if (!hasState(*states, ATSPI_STATE_SHOWING)) return {AXError::noValue, std::monostate{}};
    if (facts.slots[kExtents] < 0) {
      if (!asInterfaces(facts.reply(kInterfaces))) return failed(facts.code(kInterfaces));
      return {AXError::attributeUnsupported, std::monostate{}};
    }
    const auto extents = asExtents(facts.reply(kExtents));
    if (!extents) return failed(facts.code(kExtents));
    if (extents->x == INT_MIN || extents->y == INT_MIN) return {AXError::noValue, std::monostate{}};
    if (attribute == "AXPosition") return {AXError::success, Point{double(extents->x), double(extents->y)}};
    return {AXError::success, Size{double(extents->width), double(extents->height)}};
  }
  if (attribute == "AXChildren") {
    auto children = asElements(facts.reply(kChildren), bus);
    if (!children) return failed(facts.code(kChildren));
    return {AXError::success, std::move(*children)};
  }
  if (attribute == "AXWindows") {
    // An application's children are its top-level windows; copyAttributeValues() keeps only
    // those shown or minimised.
    const auto role = asUint(facts.reply(kRole));
    if (!role) return failed(facts.code(kRole));
    if (*role != ATSPI_ROLE_APPLICATION) return {AXError::attributeUnsupported, std::monostate{}};
    auto children = asElements(facts.reply(kChildren), bus);
    if (!children) return failed(facts.code(kChildren));
    return {AXError::success, std::move(*children)};
  }
  if (attribute == "AXParent") {
    auto parent = asOneElement(facts.reply(kParent), bus);
    if (!parent) return failed(facts.code(kParent));
    if (!*parent) return {AXError::noValue, std::monostate{}};
    return {AXError::success, std::move(*parent)};
  }
  return {AXError::attributeUnsupported, std::monostate{}};
}

AXRead actionNamesOf(const Facts& facts) {
  if (facts.slots[kActions] < 0) {
    // Asked only of elements with the Action interface: the others offer no actions.
    if (!asInterfaces(facts.reply(kInterfaces))) return failed(facts.code(kInterfaces));
    return {AXError::success, std::vector<std::string>{}};
  }
  auto names = asActionNames(facts.reply(kActions));
  if (names) return {AXError::success, std::move(*names)};
  const AXResult code = facts.code(kActions);
  // No Action interface: no actions, as for a macOS element that offers none.
  if (code == AXError::attributeUnsupported) {
    return {AXError::success, std::vector<std::string>{}};
  }
  return failed(code);
}

const AtspiElement* mine(const Element& element) {
  return dynamic_cast<const AtspiElement*>(&element);
}

}  // namespace

// ---- Connection ------------------------------------------------------------------------------

AtspiAccessibility::AtspiAccessibility(std::string address)
    : configuredAddress(std::move(address)),
      routes([this](const std::string& busName) { return linkFor(busName); }) {}

AtspiAccessibility::~AtspiAccessibility() = default;

std::shared_ptr<BusConnection> AtspiAccessibility::connection() {
  {
    std::lock_guard lock(mutex);
    if (bus && !g_dbus_connection_is_closed(bus->gdbus)) return bus;
  }
  std::string address = configuredAddress;
  if (address.empty()) {
    if (const char* fromEnvironment = std::getenv("AT_SPI_BUS_ADDRESS")) address = fromEnvironment;
  }
  if (address.empty()) {
    // The session bus's launcher knows the accessibility bus.
    GError* error = nullptr;
    GDBusConnection* session = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (session == nullptr) {
      g_error_free(error);
      return nullptr;
    }
    error = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        session, "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress", nullptr, nullptr,
        G_DBUS_CALL_FLAGS_NONE, kDefaultTimeoutMs, nullptr, &error);
    g_object_unref(session);
    if (error) g_error_free(error);
    if (reply == nullptr) return nullptr;
    address = asString(reply).value_or("");
    g_variant_unref(reply);
    if (address.empty()) return nullptr;
  }
  GError* error = nullptr;
  GDBusConnection* made = g_dbus_connection_new_for_address_sync(
      address.c_str(),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  if (made == nullptr) {
    g_error_free(error);
    return nullptr;
  }
  std::shared_ptr<BusConnection> fresh = linkOf(made, false);
  std::lock_guard lock(mutex);
  if (bus && !g_dbus_connection_is_closed(bus->gdbus)) return bus;  // another thread won
  bus = std::move(fresh);
  pidOfBus.clear();  // unique names belong to one bus
  nameOfBus.clear();
  peers.clear();
  return bus;
}

// Some toolkits (GTK's bridge among them) also listen on a socket of their own, whose address
// the application gives on request. Calls there skip the bus daemon, which otherwise handles
// every call and every reply a second time; on a two-core machine a walk costs a third of what
// it did.
// The address is asked once per application, with a short bound so that a hung application
// costs the first call little more than its own timeout; an application without one (Qt says
// "") or that cannot be reached stays on the bus. A unique name is never reused, so what is
// learnt holds as long as the bus connection does.
std::shared_ptr<BusConnection> AtspiAccessibility::linkFor(const std::string& busName) {
  std::shared_ptr<BusConnection> shared = connection();
  if (!shared || busName.size() < 2 || busName[0] != ':') return shared;
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard lock(mutex);
    if (bus != shared) return shared;
    const auto known = peers.find(busName);
    if (known != peers.end()) {
      Peer& peer = known->second;
      if (peer.link && !g_dbus_connection_is_closed(peer.link->gdbus)) return peer.link;
      if (peer.link) {
        // The application closed it, which it does when it ends: the bus says so from now on.
        peer.link.reset();
        peer.retryAt = std::chrono::steady_clock::time_point::max();
      }
      if (now < peer.retryAt) return shared;  // none to be had, for now or for good
    }
  }
  const int boundMs = std::min(timeoutMillis(busName), kPeerSetupMs);
  Variant reply(nullptr, g_variant_unref);
  const AXResult code = callSync(shared.get(), busName, kRootPath, "org.a11y.atspi.Application",
                                 "GetApplicationBusAddress", nullptr, boundMs, reply);
  const std::string address = asString(reply.get()).value_or("");
  std::shared_ptr<BusConnection> link;
  if (!address.empty()) link = connectPeer(address, boundMs);
  std::lock_guard lock(mutex);
  if (bus != shared) return shared;
  Peer& peer = peers[busName];
  if (peer.link && !g_dbus_connection_is_closed(peer.link->gdbus)) return peer.link;  // a race
  peer.link = link;
  // Asked again later only when the answer may change: the application was busy.
  const bool busy = code == AXError::cannotComplete || (!address.empty() && !link);
  peer.retryAt = busy ? now + std::chrono::seconds(10) : std::chrono::steady_clock::time_point::max();
  return link ? link : shared;
}

// Asked by every ping: an open connection answers without a round trip, since it closes when the
// daemon goes; a new one has just spoken to the daemon (Hello) to be made at all.
bool AtspiAccessibility::busReachable() { return connection() != nullptr; }

int AtspiAccessibility::timeoutMillis(const std::string& busName) {
  std::lock_guard lock(mutex);
  const auto found = timeoutOfBus.find(busName);
  return found != timeoutOfBus.end() ? found->second : kDefaultTimeoutMs;
}

AXResult AtspiAccessibility::setMessagingTimeout(const Element& element, float seconds) {
  const AtspiElement* e = mine(element);
  if (e == nullptr) return AXError::illegalArgument;
  std::lock_guard lock(mutex);
  if (!(seconds > 0)) {
    timeoutOfBus.erase(e->bus);
  } else {
    timeoutOfBus[e->bus] = static_cast<int>(std::ceil(std::min(seconds, 3600.0f) * 1000));
  }
  return AXError::success;
}

void AtspiAccessibility::setWindowStack(WindowStack stack) {
  std::lock_guard lock(mutex);
  windowStack = std::move(stack);
}

// ---- Applications ----------------------------------------------------------------------------

std::vector<AtspiAccessibility::App> AtspiAccessibility::applications(int timeoutMs) {
  const auto c = connection();
  Variant reply(nullptr, g_variant_unref);
  if (callSync(c.get(), kRegistry, kRootPath, kAccessible, "GetChildren", nullptr, timeoutMs,
               reply) != AXError::success) {
    return {};
  }
  const auto roots = asElements(reply.get(), kRegistry);
  if (!roots) return {};

  std::vector<App> apps;
  Batch lookups;
  std::vector<std::size_t> unknown;  // indexes into apps
  {
    std::lock_guard lock(mutex);
    for (const ElementRef& root : *roots) {
      const auto& e = static_cast<const AtspiElement&>(*root);
      const auto known = pidOfBus.find(e.bus);
      apps.push_back(App{e.bus, known != pidOfBus.end() ? known->second : -1});
      if (known == pidOfBus.end()) unknown.push_back(apps.size() - 1);
    }
  }
  for (std::size_t i : unknown) {
    lookups.add("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "GetConnectionUnixProcessID", g_variant_new("(s)", apps[i].bus.c_str()),
                timeoutMs);
  }
  lookups.run(routes);
  std::lock_guard lock(mutex);
  for (std::size_t k = 0; k < unknown.size(); ++k) {
    if (const auto pid = asUint(lookups.reply(k))) {
      apps[unknown[k]].pid = static_cast<std::int32_t>(*pid);
      pidOfBus[apps[unknown[k]].bus] = apps[unknown[k]].pid;
    }
  }
  std::erase_if(apps, [](const App& app) { return app.pid <= 0; });
  return apps;
}

std::optional<std::string> AtspiAccessibility::busOfPid(std::int32_t pid, int timeoutMs) {
  for (const App& app : applications(timeoutMs)) {
    if (app.pid == pid) return app.bus;
  }
  return std::nullopt;
}

ElementRef AtspiAccessibility::applicationElement(std::int32_t pid) {
  // Like a macOS application element, it is made without a check: for a pid with no
  // application, every read on it fails.
  return std::make_shared<const AtspiElement>(busOfPid(pid, kDefaultTimeoutMs).value_or(""),
                                              kRootPath);
}

std::optional<std::string> AtspiAccessibility::runningApplicationName(std::int32_t pid) {
  const auto busName = busOfPid(pid, kDefaultTimeoutMs);
  if (!busName) return std::nullopt;
  {
    // Known from an earlier answer: a hung application costs no second timeout here.
    std::lock_guard lock(mutex);
    if (const auto known = nameOfBus.find(*busName); known != nameOfBus.end()) return known->second;
  }
  AXValue name;
  if (copyAttributeValue(AtspiElement(*busName, kRootPath), "AXTitle", name) != AXError::success) {
    return std::nullopt;
  }
  auto* text = std::get_if<std::string>(&name);
  if (text == nullptr || text->empty()) return std::nullopt;
  std::lock_guard lock(mutex);
  nameOfBus.emplace(*busName, *text);
  return std::move(*text);
}

// ---- Reads -----------------------------------------------------------------------------------

void AtspiAccessibility::copyAttributeValues(const std::vector<ElementRef>& elements,
                                             const std::vector<std::string>& attributes,
                                             std::vector<std::vector<AXRead>>& out,
                                             std::vector<AXRead>* actionNames) {
  out.assign(elements.size(), std::vector<AXRead>(attributes.size(),
                                                  AXRead{AXError::illegalArgument, {}}));
  if (actionNames) actionNames->assign(elements.size(), AXRead{AXError::illegalArgument, {}});
  std::uint32_t needs = 0;
  unsigned wants = actionNames ? unsigned{kWantActions} : 0u;
  for (const std::string& attribute : attributes) {
    needs |= needsOf(attribute);
    wants |= wantsOf(attribute);
  }

  // Round one: everything that does not depend on another answer.
  Batch first;
  std::vector<Facts> facts(elements.size());
  if (actionNames) needs |= 1u << kInterfaces;
  for (std::size_t i = 0; i < elements.size(); ++i) {
    const AtspiElement* e = elements[i] ? mine(*elements[i]) : nullptr;
    if (e == nullptr) continue;
    facts[i].element = e;
    if (e->bus.empty()) continue;  // an application that does not exist: every read fails
    const int timeoutMs = timeoutMillis(e->bus);
    for (unsigned f = 0; f < kSecondRound; ++f) {
      if (needs & (1u << f)) addFetch(first, *e, static_cast<Fetch>(f), timeoutMs, facts[i].slots);
    }
  }
  first.run(routes);

  // Round two: what round one showed each element to have.
  Batch second;
  for (Facts& f : facts) {
    f.batch = &first;
    f.second = &second;
    if (f.element == nullptr || f.element->bus.empty()) continue;
    const int timeoutMs = timeoutMillis(f.element->bus);
    for (const Fetch fetch : secondRound(f, wants)) {
      addFetch(second, *f.element, fetch, timeoutMs, f.slots);
    }
  }
  second.run(routes);

  const AXRead gone{AXError::invalidUIElement, {}};
  for (std::size_t i = 0; i < elements.size(); ++i) {
    const Facts& f = facts[i];
    if (f.element == nullptr) continue;
    const bool missing = f.element->bus.empty();
    for (std::size_t j = 0; j < attributes.size(); ++j) {
      out[i][j] = missing ? gone : attributeOf(f, attributes[j]);
    }
    if (actionNames) (*actionNames)[i] = missing ? gone : actionNamesOf(f);
  }
  keepShownWindows(attributes, out);
}

// An application lists every top-level window it made, hidden ones too: AXWindows keeps those
// visible or iconified, as a macOS application lists its windows on screen and minimised.
void AtspiAccessibility::keepShownWindows(const std::vector<std::string>& attributes,
                                          std::vector<std::vector<AXRead>>& out) {
  const auto column = std::find(attributes.begin(), attributes.end(), "AXWindows");
  if (column == attributes.end()) return;
  const auto j = static_cast<std::size_t>(column - attributes.begin());
  Batch states;
  for (auto& row : out) {
    auto* windows = std::get_if<std::vector<ElementRef>>(&row[j].second);
    if (row[j].first != AXError::success || windows == nullptr) continue;
    for (const ElementRef& window : *windows) {
      const auto& w = static_cast<const AtspiElement&>(*window);
      states.add(w.bus, w.path, kAccessible, "GetState", nullptr, timeoutMillis(w.bus));
    }
  }
  states.run(routes);
  std::size_t k = 0;
  for (auto& row : out) {
    auto* windows = std::get_if<std::vector<ElementRef>>(&row[j].second);
    if (row[j].first != AXError::success || windows == nullptr) continue;
    std::vector<ElementRef> kept;
    for (ElementRef& window : *windows) {
      const auto bits = asStates(states.reply(k++));
      if (bits && (hasState(*bits, ATSPI_STATE_VISIBLE) || hasState(*bits, ATSPI_STATE_ICONIFIED))) {
        kept.push_back(std::move(window));
      }
    }
    *windows = std::move(kept);
  }
}

std::vector<std::int32_t> AtspiAccessibility::applicationPids() {
  std::vector<std::int32_t> pids;
  for (const App& app : applications(kDefaultTimeoutMs)) pids.push_back(app.pid);
  return pids;
}

std::optional<std::int32_t> AtspiAccessibility::pidOfElement(const Element& element) {
  const AtspiElement* e = mine(element);
  if (e == nullptr || e->bus.empty()) return std::nullopt;
  for (int attempt = 0; attempt < 2; ++attempt) {
    {
      std::lock_guard lock(mutex);
      if (const auto known = pidOfBus.find(e->bus); known != pidOfBus.end()) return known->second;
    }
    applications(kDefaultTimeoutMs);  // learns the pids of every application on the bus
  }
  return std::nullopt;
}

AXResult AtspiAccessibility::copyAttributeValue(const Element& element,
                                                const std::string& attribute, AXValue& out) {
  const AtspiElement* e = mine(element);
  if (e == nullptr) return AXError::illegalArgument;
  std::vector<std::vector<AXRead>> reads;
  // A handle of our own kind, without taking ownership of the caller's.
  const ElementRef borrowed(std::shared_ptr<const Element>(), e);
  copyAttributeValues({borrowed}, {attribute}, reads);
  AXRead& read = reads[0][0];
  if (read.first == AXError::success) out = std::move(read.second);
  return read.first;
}

AXResult AtspiAccessibility::copyActionNames(const Element& element, AXValue& out) {
  const AtspiElement* e = mine(element);
  if (e == nullptr) return AXError::illegalArgument;
  std::vector<std::vector<AXRead>> reads;
  std::vector<AXRead> names;
  const ElementRef borrowed(std::shared_ptr<const Element>(), e);
  copyAttributeValues({borrowed}, {}, reads, &names);
  if (names[0].first == AXError::success) out = std::move(names[0].second);
  return names[0].first;
}

// ---- Actions and writes ----------------------------------------------------------------------

AXResult AtspiAccessibility::actionIndex(const AtspiElement& e, const std::string& action,
                                         int& index) {
  if (e.bus.empty()) return AXError::invalidUIElement;
  Variant reply(nullptr, g_variant_unref);
  const AXResult code = callSync(linkFor(e.bus).get(), e.bus, e.path, kAction, "GetActions",
                                 nullptr, timeoutMillis(e.bus), reply);
  if (code == AXError::attributeUnsupported) return AXError::actionUnsupported;
  if (code != AXError::success) return code;
  const auto names = asActionNames(reply.get());
  if (!names) return AXError::failure;
  const auto found = std::find(names->begin(), names->end(), action);
  if (found == names->end()) return AXError::actionUnsupported;
  index = static_cast<int>(found - names->begin());
  return AXError::success;
}

AXResult AtspiAccessibility::performAction(const Element& element, const std::string& action) {
  const AtspiElement* e = mine(element);
  if (e == nullptr) return AXError::illegalArgument;
  int index = -1;
  if (const AXResult code = actionIndex(*e, action, index); code != AXError::success) return code;
  Variant reply(nullptr, g_variant_unref);
  const AXResult code = callSync(linkFor(e->bus).get(), e->bus, e->path, kAction, "DoAction",
                                 g_variant_new("(i)", index), timeoutMillis(e->bus), reply);
  if (code == AXError::attributeUnsupported) return AXError::actionUnsupported;
  if (code != AXError::success) return code;
  return asBool(reply.get()).value_or(false) ? AXError::success : AXError::failure;
}

namespace {

struct Writability {
  AXResult code = AXError::success;
  bool number = false;  // through the Value interface
  bool text = false;    // through EditableText
  bool focus = false;   // can take the focus
};

}  // namespace

AXResult AtspiAccessibility::isAttributeSettable(const Element& element,
                                                 const std::string& attribute, bool& settable) {
  settable = false;
  const AtspiElement* e = mine(element);
  if (e == nullptr) return AXError::illegalArgument;
  if (e->bus.empty()) return AXError::invalidUIElement;
  Batch batch;
  Facts facts;
  facts.element = e;
  const int timeoutMs = timeoutMillis(e->bus);
  for (Fetch f : {kRole, kStates, kInterfaces}) addFetch(batch, *e, f, timeoutMs, facts.slots);
  batch.run(routes);
  facts.batch = &batch;
  const auto role = asUint(facts.reply(kRole));
  const auto states = asStates(facts.reply(kStates));
  const auto interfaces = asInterfaces(facts.reply(kInterfaces));
  if (!role) return facts.code(kRole);
  if (!states) return facts.code(kStates);
  if (!interfaces) return facts.code(kInterfaces);
  if (attribute == "AXValue") {
    // Progress and level bars carry a Value that only the application moves.
    const bool number = interfaces->count(kValueInterface) && *role != ATSPI_ROLE_PROGRESS_BAR &&
                        *role != ATSPI_ROLE_LEVEL_BAR;
    const bool text = interfaces->count(kEditableText) && hasState(*states, ATSPI_STATE_EDITABLE);
    settable = number || text;
  } else if (attribute == "AXFocused") {
    settable = hasState(*states, ATSPI_STATE_FOCUSABLE) && interfaces->count(kComponent);
  }
  return AXError::success;
}

AXResult AtspiAccessibility::setAttributeValue(const Element& element,
                                               const std::string& attribute,
                                               const AXWritableValue& value) {
  const AtspiElement* e = mine(element);
  if (e == nullptr) return AXError::illegalArgument;
  if (e->bus.empty()) return AXError::invalidUIElement;
  const auto c = linkFor(e->bus);
  const int timeoutMs = timeoutMillis(e->bus);
  Variant reply(nullptr, g_variant_unref);

  if (attribute == "AXFocused") {
    const bool* wanted = std::get_if<bool>(&value);
    if (wanted == nullptr || !*wanted) return AXError::illegalArgument;
    const AXResult code =
        callSync(c.get(), e->bus, e->path, kComponent, "GrabFocus", nullptr, timeoutMs, reply);
    if (code != AXError::success) return code;
    return asBool(reply.get()).value_or(false) ? AXError::success : AXError::cannotComplete;
  }
  if (attribute != "AXValue") return AXError::attributeUnsupported;
  const std::string* text = std::get_if<std::string>(&value);
  if (text == nullptr) return AXError::illegalArgument;

  AXResult code = callSync(c.get(), e->bus, e->path, kAccessible, "GetInterfaces", nullptr,
                           timeoutMs, reply);
  if (code != AXError::success) return code;
  const auto interfaces = asInterfaces(reply.get()).value_or(std::set<std::string>{});

  // A number goes through Value when the element has one (a spin button has both).
  double number = 0;
  const char* end = text->data() + text->size();
  const auto parsed = std::from_chars(text->data(), end, number);
  if (interfaces.count(kValueInterface) && !text->empty() && parsed.ec == std::errc() &&
      parsed.ptr == end && std::isfinite(number)) {
    code = callSync(c.get(), e->bus, e->path, kProperties, "Set",
                    g_variant_new("(ssv)", kValueInterface, "CurrentValue",
                                  g_variant_new_double(number)),
                    timeoutMs, reply);
    return code;
  }
  if (interfaces.count(kEditableText)) {
    code = callSync(c.get(), e->bus, e->path, kEditableText, "SetTextContents",
                    g_variant_new("(s)", text->c_str()), timeoutMs, reply);
    if (code != AXError::success) return code;
    return asBool(reply.get()).value_or(false) ? AXError::success : AXError::failure;
  }
  return interfaces.count(kValueInterface) ? AXError::illegalArgument
                                           : AXError::attributeUnsupported;
}

// ---- Workspace and hit test ------------------------------------------------------------------

namespace {

struct Frame {
  ElementRef element;
  std::int32_t pid;
  std::size_t order;  // registry order
  std::uint64_t states;
  Extents extents;
};

}  // namespace

std::optional<std::int32_t> AtspiAccessibility::frontmostApplicationPid() {
  const auto apps = applications(kDefaultTimeoutMs);
  Batch listing;
  for (const App& app : apps) {
    listing.add(app.bus, kRootPath, kAccessible, "GetChildren", nullptr, timeoutMillis(app.bus));
  }
  listing.run(routes);
  Batch states;
  std::vector<std::int32_t> pidOfCall;
  for (std::size_t i = 0; i < apps.size(); ++i) {
    for (const ElementRef& frame : asElements(listing.reply(i), apps[i].bus).value_or(
             std::vector<ElementRef>{})) {
      const auto& f = static_cast<const AtspiElement&>(*frame);
      states.add(f.bus, f.path, kAccessible, "GetState", nullptr, timeoutMillis(f.bus));
      pidOfCall.push_back(apps[i].pid);
    }
  }
  states.run(routes);
  for (std::size_t i = 0; i < pidOfCall.size(); ++i) {
    const auto bits = asStates(states.reply(i));
    if (bits && hasState(*bits, ATSPI_STATE_ACTIVE)) return pidOfCall[i];
  }
  return std::nullopt;
}

AXResult AtspiAccessibility::elementAtPoint(float x, float y, float timeoutSeconds,
                                            ElementRef& out) {
  out = nullptr;
  const auto c = connection();
  if (!c) return AXError::cannotComplete;
  const int timeoutMs =
      timeoutSeconds > 0 ? static_cast<int>(std::ceil(std::min(timeoutSeconds, 3600.0f) * 1000))
                         : kDefaultTimeoutMs;
  const auto apps = applications(timeoutMs);
  Batch listing;
  for (const App& app : apps) listing.add(app.bus, kRootPath, kAccessible, "GetChildren", nullptr, timeoutMs);
  listing.run(routes);

  // Every top-level frame: its states and extents, all asked at once.
  std::vector<Frame> frames;
  Batch facts;
  for (std::size_t i = 0; i < apps.size(); ++i) {
    for (ElementRef& frame :
         asElements(listing.reply(i), apps[i].bus).value_or(std::vector<ElementRef>{})) {
      const auto& f = static_cast<const AtspiElement&>(*frame);
      facts.add(f.bus, f.path, kAccessible, "GetState", nullptr, timeoutMs);
      facts.add(f.bus, f.path, kComponent, "GetExtents",
                g_variant_new("(u)", static_cast<guint32>(ATSPI_COORD_TYPE_SCREEN)), timeoutMs);
      frames.push_back(Frame{std::move(frame), apps[i].pid, frames.size(), 0, {}});
    }
  }
  facts.run(routes);
  std::vector<Frame> under;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const auto bits = asStates(facts.reply(2 * i));
    const auto extents = asExtents(facts.reply(2 * i + 1));
    if (!bits || !extents || !hasState(*bits, ATSPI_STATE_SHOWING)) continue;
    const Extents& e = *extents;
    if (x < e.x || y < e.y || x >= double(e.x) + e.width || y >= double(e.y) + e.height) continue;
    frames[i].states = *bits;
    frames[i].extents = e;
    under.push_back(frames[i]);
  }
  if (under.empty()) return AXError::noValue;

  // Topmost first: the window stack when known, else the active frame, else the latest app.
  WindowStack stack;
  {
    std::lock_guard lock(mutex);
    stack = windowStack;
  }
  const std::vector<std::int32_t> pids = stack ? stack(x, y) : std::vector<std::int32_t>{};
  const auto rank = [&](const Frame& f) {
    const auto at = std::find(pids.begin(), pids.end(), f.pid);
    return std::make_tuple(at == pids.end() ? pids.size() : std::size_t(at - pids.begin()),
                           hasState(f.states, ATSPI_STATE_ACTIVE) ? 0 : 1,
                           frames.size() - f.order);
  };
  std::stable_sort(under.begin(), under.end(),
                   [&](const Frame& a, const Frame& b) { return rank(a) < rank(b); });

  // Down through the applications' own hit tests, as deep as they go.
  ElementRef current = under.front().element;
  for (int step = 0; step < kMaxHitDepth; ++step) {
    const auto& e = static_cast<const AtspiElement&>(*current);
    Variant reply(nullptr, g_variant_unref);
    const AXResult code = callSync(
        linkFor(e.bus).get(), e.bus, e.path, kComponent, "GetAccessibleAtPoint",
        g_variant_new("(iiu)", static_cast<gint32>(std::floor(x)), static_cast<gint32>(std::floor(y)),
                      static_cast<guint32>(ATSPI_COORD_TYPE_SCREEN)),
        timeoutMs, reply);
    if (code != AXError::success) {
      if (step == 0 && code == AXError::cannotComplete) return code;
      break;
    }
    auto child = asOneElement(reply.get(), e.bus);
    if (!child || !*child) break;
    const auto& next = static_cast<const AtspiElement&>(**child);
    if (next.bus == e.bus && next.path == e.path) break;
    current = std::move(*child);
  }
  out = std::move(current);
  return AXError::success;
}

}  // namespace tervain::atspi
