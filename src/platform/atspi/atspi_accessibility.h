// Accessibility of a Linux desktop through AT-SPI2, spoken directly over the accessibility bus
// with GDBus, converted into the seam's AX vocabulary (roles, attributes, actions, result codes).
//
// Why D-Bus rather than libatspi's object model: libatspi keeps process-wide caches and is not
// safe to call from several threads, while every connection of the agent runs its own thread.
// GDBus calls are safe from any thread, each carries its own timeout, and a slow application
// only ever holds up the thread that asked it. Batched reads put every call in flight at once
// and wait for the replies, which a filter on the connection hands back by serial; a walk then
// costs roughly the application's own time per call instead of a round trip per attribute.
//
// Applications that listen on a socket of their own (GTK's bridge does) are called there
// directly; the others over the bus.
//
// Elements are (bus name, object path) pairs. Nothing about an element is cached: every read is
// a fresh call. What is cached is stable for the life of a bus connection: the pid and the
// application name behind each unique bus name, the per-application timeouts, and each
// application's own connection.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/desktop.h"

namespace tervain::atspi {

// A connection to the accessibility bus and the routing of its replies (defined in the .cpp).
struct BusConnection;

// One accessible object of one application.
class AtspiElement final : public Element {
 public:
  AtspiElement(std::string bus, std::string path) : bus(std::move(bus)), path(std::move(path)) {}
  const std::string bus;   // the application's unique name on the accessibility bus
  const std::string path;  // the object's path in that application
};

// One read: a result code and, on success, the value.
using AXRead = std::pair<AXResult, AXValue>;

class AtspiAccessibility {
 public:
  // `address` names the accessibility bus; empty means: $AT_SPI_BUS_ADDRESS, else ask the
  // session bus (org.a11y.Bus). The connection is made on first use and remade after it drops.
  explicit AtspiAccessibility(std::string address = {});
  ~AtspiAccessibility();
  AtspiAccessibility(const AtspiAccessibility&) = delete;
  AtspiAccessibility& operator=(const AtspiAccessibility&) = delete;

  // True when a connection to the accessibility bus is open or can be made (there is no
  // permission to hold on Linux).
  bool busReachable();

  // The root of the application whose process is pid; an element every read of which fails as
  // stale when no application on the bus has that pid.
  ElementRef applicationElement(std::int32_t pid);
  // Sets the timeout of every call to the element's application; 0 or less restores the default.
  AXResult setMessagingTimeout(const Element& element, float seconds);

  AXResult copyAttributeValue(const Element& element, const std::string& attribute, AXValue& out);
  // The same attributes of many elements, all calls in flight at once, bounded in time by the
  // longest timeout of the applications involved. out[i][j] is element i's attribute j. When
  // actionNames is given, it receives each element's action names from the same batch.
  void copyAttributeValues(const std::vector<ElementRef>& elements,
                           const std::vector<std::string>& attributes,
                           std::vector<std::vector<AXRead>>& out,
                           std::vector<AXRead>* actionNames = nullptr);
  // The action names; the application's default action ("click", "press", "activate",
  // "toggle") reads as AXPress, others pass through unchanged.
  AXResult copyActionNames(const Element& element, AXValue& out);
  // AXWindows of an application: its top-level windows that are visible or iconified. A
  // window's AXMain and AXFocused say it is the active window, AXMinimized that it is iconified.
  // AXPress performs the default action; any other name the action of that name.
  AXResult performAction(const Element& element, const std::string& action);
  AXResult isAttributeSettable(const Element& element, const std::string& attribute,
                               bool& settable);
  // AXValue: a number through the Value interface, else text through EditableText.
  // AXFocused (true only): grabs the focus.
  AXResult setAttributeValue(const Element& element, const std::string& attribute,
                             const AXWritableValue& value);
  // The deepest element at a global point: the top-level window under the point, then down
  // through the applications' own hit tests. Every call bounded by timeoutSeconds.
  AXResult elementAtPoint(float x, float y, float timeoutSeconds, ElementRef& out);

  // The pids of the applications on the bus.
  std::vector<std::int32_t> applicationPids();
  // The pid of the element's application; nothing when it is not on the bus.
  std::optional<std::int32_t> pidOfElement(const Element& element);

  // The application of the active frame.
  std::optional<std::int32_t> frontmostApplicationPid();
  // The application's own name (AT-SPI's Name of its root), read once per application.
  std::optional<std::string> runningApplicationName(std::int32_t pid);

  // Optional knowledge of the window stack: the pids owning top-level windows that contain a
  // point, topmost first (the X server knows it, AT-SPI does not). Without it, the active frame
  // wins, then the other frames in the registry's order.
  using WindowStack = std::function<std::vector<std::int32_t>(double x, double y)>;
  void setWindowStack(WindowStack stack);

 private:
  struct App {
    std::string bus;
    std::int32_t pid;
  };

  std::shared_ptr<BusConnection> connection();
  // The connection for calls to one application: its own socket where it has one, else the bus.
  std::shared_ptr<BusConnection> linkFor(const std::string& busName);
  int timeoutMillis(const std::string& bus);
  std::vector<App> applications(int timeoutMs);
  std::optional<std::string> busOfPid(std::int32_t pid, int timeoutMs);
  void keepShownWindows(const std::vector<std::string>& attributes,
                        std::vector<std::vector<AXRead>>& out);
  AXResult actionIndex(const AtspiElement& element, const std::string& action, int& index);

  struct Peer {
    std::shared_ptr<BusConnection> link;               // none: the application stays on the bus
    std::chrono::steady_clock::time_point retryAt{};  // when to ask again for a missing link
  };

  const std::string configuredAddress;
  const std::function<std::shared_ptr<BusConnection>(const std::string&)> routes;
  std::mutex mutex;  // guards the members below, never held across a call
  std::shared_ptr<BusConnection> bus;
  std::map<std::string, Peer> peers;  // by unique name
  std::map<std::string, std::int32_t> pidOfBus;
  std::map<std::string, std::string> nameOfBus;
  std::map<std::string, int> timeoutOfBus;
  WindowStack windowStack;
};

}  // namespace tervain::atspi
