// The desktop seam: every call the operations make into the guest's desktop.
//
// Methods name capabilities (post a mouse button at a point, type a chunk of text, the element
// at a point), small enough that every desktop adapter (macOS, X11 with AT-SPI) only converts,
// and every rule of the operations (validation order, messages, limits, clamping, rounding,
// pacing, chunking) lives above the seam in portable code that runs in the tests. Names, result
// codes and key codes are the wire's own (core/vocabulary.h, core/key_map.h). Values cross the
// seam as plain C++ values; platform objects that must outlive a call (accessibility elements,
// shareable displays) cross as opaque handles that the adapter subclasses and releases in its
// destructor.
//
// Threading: methods are called from connection threads in parallel, and the capture methods
// from a worker thread. Implementations must be safe for that; the platform services are.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "core/vocabulary.h"

namespace tervain {

// ---- Geometry and displays -------------------------------------------------------------------

struct Point {
  double x = 0;
  double y = 0;
};

struct Size {
  double width = 0;
  double height = 0;
};

enum class MouseButton : std::uint8_t { left, right, center };

// One display: its id, its current mode's size in pixels, and whether it is the main one.
struct DisplayInfo {
  std::uint32_t id = 0;
  std::int64_t pixelWidth = 0;
  std::int64_t pixelHeight = 0;
  bool main = false;
};

// Where a name was launched from, or why not.
struct LaunchResult {
  enum class Status { launched, notFound, failed };
  Status status = Status::launched;
  // notFound: what the platform said ("open -a exited 1"); failed: the error's description.
  std::string detail;
};

// ---- Accessibility ---------------------------------------------------------------------------

// An accessibility element. Reference-counted through shared_ptr: the adapter's subclass holds
// one platform reference and releases it when the last owner lets go.
class Element {
 public:
  virtual ~Element() = default;
};
using ElementRef = std::shared_ptr<const Element>;

// A URL value, kept as its absolute string.
struct AXUrl {
  std::string absoluteString;
};
// A value of a type the agent does not report (a range, a date, a mixed array, ...).
struct AXOther {};

// An attribute value converted into a plain C++ value at the boundary. monostate is an empty
// value (the platform returned success with nothing). Numbers keep the platform's distinction
// between integers, reals and booleans. An array becomes a list of elements when every item is
// an element, a list of texts when every item is a string (an empty array is an empty list of
// elements), and AXOther otherwise.
using AXValue = std::variant<std::monostate, std::string, std::int64_t, double, bool, AXUrl,
                             Point, Size, ElementRef, std::vector<ElementRef>,
                             std::vector<std::string>, AXOther>;

// What can be written to an attribute: a text (AXValue) or the platform's boolean true
// (AXFocused).
using AXWritableValue = std::variant<std::string, bool>;

// ---- Windows and the clipboard ---------------------------------------------------------------

// What can be done to a window element.
enum class WindowAction { raise, minimize, unminimize, close, move, resize };

// The clipboard's content as text.
struct ClipboardText {
  enum class Status { text, empty, notText, failed };
  Status status = Status::empty;
  std::string text;    // text: the content, UTF-8
  std::string detail;  // notText: what it holds instead (a type name); failed: why
};

// ---- Screen capture --------------------------------------------------------------------------

// One display as the capture service lists it.
class ShareableDisplay {
 public:
  virtual ~ShareableDisplay() = default;
};
using ShareableDisplayRef = std::shared_ptr<const ShareableDisplay>;

struct ShareableContent {
  std::optional<std::string> error;  // the platform error's description when listing failed
  std::vector<ShareableDisplayRef> displays;
};

// The content filter of one whole display: its rectangle in points and its point-to-pixel scale.
struct ContentFilterGeometry {
  double width = 0;
  double height = 0;
  float pointPixelScale = 1;
};

struct Rect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
};

enum class ImageFormat { jpeg, png };

struct CaptureRequest {
  std::optional<Rect> region;  // in points, relative to the display; nothing = the whole display
  std::int64_t pixelWidth = 0;  // size of the image to produce
  std::int64_t pixelHeight = 0;
  bool showsCursor = true;
  ImageFormat format = ImageFormat::jpeg;
  double quality = 0.7;  // JPEG only, 0..1
};

struct CapturedImage {
  enum class Status { ok, captureFailed, encodingFailed };
  Status status = Status::ok;
  std::string error;  // the platform error's description when capture failed
  std::string bytes;  // the encoded image when ok
  std::int64_t width = 0;   // the image's own pixel size
  std::int64_t height = 0;
};

// ---- The seam --------------------------------------------------------------------------------

class Desktop {
 public:
  virtual ~Desktop() = default;

  // What this desktop is ("macos", "x11", "headless"), for logs.
  virtual std::string_view kind() const = 0;

  // Privacy grants, queried afresh on every call; none of them prompts.
  virtual bool accessibilityTrusted() = 0;
  virtual bool screenCaptureAccess() = 0;
  virtual bool postEventAccess() = 0;
  // Asks the user for whichever grants are missing, where the platform can (macOS shows its
  // prompts and lists the agent in System Settings); returns at once. Others do nothing.
  virtual void requestGrants() {}

  // Displays: at most maxDisplays, the main one flagged; empty on failure.
  virtual std::vector<DisplayInfo> displays(std::uint32_t maxDisplays) = 0;
  // The pointer location in global points, origin at the top-left of the main display; nothing
  // when the platform cannot tell.
  virtual std::optional<Point> pointerLocation() = 0;

  // ---- Input. Each call posts one event (or the platform's equivalent) and answers false when
  // it could not be made, in which case nothing was posted. Points are global, top-left origin,
  // in points.

  // The modifiers this desktop can express (an X11 desktop has no fn); callers refuse others.
  virtual Modifiers supportedModifiers() const = 0;
  // A pointer move; `held` names the button that is down (a drag), if any.
  virtual bool postPointerMove(Point at, std::optional<MouseButton> held, Modifiers modifiers) = 0;
  // A button press or release at a point; clickCount 1..3 makes the n-th click of a double or
  // triple click.
  virtual bool postMouseButton(MouseButton button, bool down, Point at, int clickCount,
                               Modifiers modifiers) = 0;
  // Scrolls by whole lines: positive vertical scrolls up, positive horizontal scrolls left.
  virtual bool postScroll(std::int32_t verticalLines, std::int32_t horizontalLines,
                          Modifiers modifiers) = 0;
  // A key of the wire's key table (a macOS US-layout virtual key code) pressed or released with
  // exactly these modifiers held, whatever the keyboard's own state.
  virtual bool postKey(std::uint16_t keyCode, bool down, Modifiers modifiers) = 0;
  // Types one chunk of text (at most 16 UTF-16 units, possibly half a surrogate pair at either
  // end) whatever the keyboard layout.
  virtual bool typeText(const std::u16string& chunk) = 0;
  // Pacing of input sequences goes through here so tests can check it without waiting.
  virtual void sleepMicros(std::uint32_t micros) = 0;

  // ---- Accessibility, in the wire's names and result codes (core/vocabulary.h); the adapter
  // converts. Handles own their platform reference.
  virtual ElementRef applicationElement(std::int32_t pid) = 0;
  virtual AXResult setMessagingTimeout(const Element& element, float seconds) = 0;
  virtual AXResult copyAttributeValue(const Element& element, const std::string& attribute,
                                      AXValue& out) = 0;
  // The same attributes of several elements; an adapter may have all the reads in flight at
  // once. out[i][j] is element i's attribute j; when actionNames is given, (*actionNames)[i] is
  // what copyActionNames answers for element i. This base version reads one by one.
  virtual void copyAttributeValues(
      const std::vector<ElementRef>& elements, const std::vector<std::string>& attributes,
      std::vector<std::vector<std::pair<AXResult, AXValue>>>& out,
      std::vector<std::pair<AXResult, AXValue>>* actionNames = nullptr);
  // The action names, converted like any array value.
  virtual AXResult copyActionNames(const Element& element, AXValue& out) = 0;
  virtual AXResult performAction(const Element& element, const std::string& action) = 0;
  virtual AXResult isAttributeSettable(const Element& element, const std::string& attribute,
                                       bool& settable) = 0;
  virtual AXResult setAttributeValue(const Element& element, const std::string& attribute,
                                     const AXWritableValue& value) = 0;
  // The deepest element at a global point, asking applications with this messaging timeout.
  virtual AXResult elementAtPoint(float x, float y, float timeoutSeconds, ElementRef& out) = 0;

  // ---- Windows. A window element is one that the application element's AXWindows lists; it
  // reads AXTitle, AXPosition, AXSize, AXMain, AXFocused and AXMinimized like any element.
  // Acts on a window: `to` is the new top-left for move and the new size for resize (both in
  // global points, the window's whole frame), ignored otherwise. success means the request was
  // made; the window manager or the application may still refuse it.
  virtual AXResult windowAction(const Element& window, WindowAction action, Point to) = 0;

  // ---- Clipboard (the general pasteboard, the X CLIPBOARD selection). Needs no grant.
  virtual ClipboardText readClipboard() = 0;
  // Replaces the clipboard's content with the text; nothing on success, else why not.
  virtual std::optional<std::string> writeClipboard(const std::string& text) = 0;

  // ---- Workspace.
  virtual std::optional<std::int32_t> frontmostApplicationPid() = 0;
  // The pids of the regular applications (those with windows of their own, not agents or
  // background services), in the platform's order.
  virtual std::vector<std::int32_t> regularApplicationPids() = 0;
  // The localised name of the running application with that pid; nothing when there is no such
  // application or it has no name.
  virtual std::optional<std::string> runningApplicationName(std::int32_t pid) = 0;
  // Resolves and launches an application by name the platform's way (macOS: a bundle in the
  // application folders, else `open -a`). The completion runs once, on any thread, possibly
  // after the caller stopped waiting, so it owns what it touches.
  virtual void launchApplication(const std::string& name,
                                 std::function<void(LaunchResult)> completion) = 0;

  // ---- Screen capture. The calls block until the platform answers; they run on a worker
  // thread, never on a connection thread.
  virtual ShareableContent copyShareableContent() = 0;
  virtual ContentFilterGeometry contentFilterGeometry(const ShareableDisplay& display) = 0;
  virtual CapturedImage captureImage(const ShareableDisplay& display,
                                     const CaptureRequest& request) = 0;

  // Parks the calling (main) thread for good, serving the platform's main run loop.
  [[noreturn]] virtual void runMainLoop() = 0;
};

}  // namespace tervain
