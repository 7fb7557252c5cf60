// The desktop seam: every call the operations make into the guest's desktop.
//
// The interface mirrors the platform calls closely, one method per call or small group, so that
// every rule of the operations (validation order, messages, limits, clamping, rounding, pacing)
// lives in portable code that runs in the tests, while a platform adapter only forwards and
// converts. Values cross the seam as plain C++ values; platform objects that must outlive a call
// (accessibility elements, events, shareable displays) cross as opaque handles that the adapter
// subclasses and releases in its destructor.
//
// Threading: methods are called from connection threads in parallel, and the capture methods
// from a worker thread. Implementations must be safe for that; the platform services are.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

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

// ---- Input events ----------------------------------------------------------------------------

// Event types, mouse buttons, fields and flags with the platform's own values.
enum class EventType : std::uint32_t {
  leftMouseDown = 1,
  leftMouseUp = 2,
  rightMouseDown = 3,
  rightMouseUp = 4,
  mouseMoved = 5,
  leftMouseDragged = 6,
  scrollWheel = 22,
  otherMouseDown = 25,
  otherMouseUp = 26,
};

enum class MouseButton : std::uint32_t { left = 0, right = 1, center = 2 };

enum class ScrollUnit : std::uint32_t { pixel = 0, line = 1 };

enum class EventField : std::uint32_t { mouseEventClickState = 1 };

using EventFlags = std::uint64_t;
namespace EventFlag {
inline constexpr EventFlags shift = 0x20000;
inline constexpr EventFlags control = 0x40000;
inline constexpr EventFlags alternate = 0x80000;
inline constexpr EventFlags command = 0x100000;
inline constexpr EventFlags secondaryFn = 0x800000;
}  // namespace EventFlag

// A created, not yet posted input event. Released (destroyed) after posting or on failure.
class InputEvent {
 public:
  virtual ~InputEvent() = default;
};
using InputEventPtr = std::unique_ptr<InputEvent>;

// ---- Accessibility ---------------------------------------------------------------------------

// An accessibility element. Reference-counted through shared_ptr: the adapter's subclass holds
// one platform reference and releases it when the last owner lets go.
class Element {
 public:
  virtual ~Element() = default;
};
using ElementRef = std::shared_ptr<const Element>;

// Platform accessibility result codes (signed 32-bit).
using AXResult = std::int32_t;
namespace AXError {
inline constexpr AXResult success = 0;
inline constexpr AXResult failure = -25200;
inline constexpr AXResult illegalArgument = -25201;
inline constexpr AXResult invalidUIElement = -25202;
inline constexpr AXResult invalidUIElementObserver = -25203;
inline constexpr AXResult cannotComplete = -25204;
inline constexpr AXResult attributeUnsupported = -25205;
inline constexpr AXResult actionUnsupported = -25206;
inline constexpr AXResult notificationUnsupported = -25207;
inline constexpr AXResult notImplemented = -25208;
inline constexpr AXResult notificationAlreadyRegistered = -25209;
inline constexpr AXResult notificationNotRegistered = -25210;
inline constexpr AXResult apiDisabled = -25211;
inline constexpr AXResult noValue = -25212;
inline constexpr AXResult parameterizedAttributeUnsupported = -25213;
inline constexpr AXResult notEnoughPrecision = -25214;
}  // namespace AXError

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

struct CapturedImage {
  enum class Status { ok, captureFailed, encodingFailed };
  Status status = Status::ok;
  std::string error;  // the platform error's description when capture failed
  std::string jpeg;   // the encoded bytes when ok
  std::int64_t width = 0;   // the image's own pixel size
  std::int64_t height = 0;
};

// ---- The seam --------------------------------------------------------------------------------

class Desktop {
 public:
  virtual ~Desktop() = default;

  // Privacy grants, queried afresh on every call; none of them prompts.
  virtual bool accessibilityTrusted() = 0;   // AXIsProcessTrusted
  virtual bool screenCaptureAccess() = 0;    // CGPreflightScreenCaptureAccess
  virtual bool postEventAccess() = 0;        // CGPreflightPostEventAccess

  // Displays: CGGetActiveDisplayList with room for maxDisplays (empty on failure), and the
  // per-display queries of the current mode.
  virtual std::vector<std::uint32_t> activeDisplayList(std::uint32_t maxDisplays) = 0;
  virtual std::int64_t displayPixelsWide(std::uint32_t display) = 0;
  virtual std::int64_t displayPixelsHigh(std::uint32_t display) = 0;
  virtual bool displayIsMain(std::uint32_t display) = 0;

  // The pointer location from an empty event (CGEventCreate(NULL) + CGEventGetLocation), in
  // global points with the origin at the top-left of the main display; nothing when no event
  // can be created.
  virtual std::optional<Point> pointerLocation() = 0;

  // Event creation with a null event source; each may fail (nullptr).
  virtual InputEventPtr createMouseEvent(EventType type, Point at, MouseButton button) = 0;
  virtual InputEventPtr createKeyboardEvent(std::uint16_t virtualKey, bool keyDown) = 0;
  virtual InputEventPtr createScrollWheelEvent(ScrollUnit unit, std::uint32_t wheelCount,
                                               std::int32_t wheel1, std::int32_t wheel2,
                                               std::int32_t wheel3) = 0;
  virtual void setIntegerValueField(InputEvent& event, EventField field, std::int64_t value) = 0;
  virtual void setFlags(InputEvent& event, EventFlags flags) = 0;
  virtual void keyboardSetUnicodeString(InputEvent& event, const std::u16string& units) = 0;
  // Posts at the HID event tap. The caller releases the event afterwards.
  virtual void postEvent(InputEvent& event) = 0;

  // Pacing of input sequences goes through here so tests can check it without waiting.
  virtual void sleepMicros(std::uint32_t micros) = 0;

  // Accessibility elements (Create rule: the returned handle owns its reference).
  virtual ElementRef createApplicationElement(std::int32_t pid) = 0;
  virtual ElementRef createSystemWideElement() = 0;
  virtual AXResult setMessagingTimeout(const Element& element, float seconds) = 0;
  virtual AXResult copyAttributeValue(const Element& element, const std::string& attribute,
                                      AXValue& out) = 0;
  // The action names, converted like any array value.
  virtual AXResult copyActionNames(const Element& element, AXValue& out) = 0;
  virtual AXResult performAction(const Element& element, const std::string& action) = 0;
  virtual AXResult isAttributeSettable(const Element& element, const std::string& attribute,
                                       bool& settable) = 0;
  virtual AXResult setAttributeValue(const Element& element, const std::string& attribute,
                                     const AXWritableValue& value) = 0;
  virtual AXResult copyElementAtPosition(const Element& systemWide, float x, float y,
                                         ElementRef& out) = 0;

  // Workspace.
  virtual std::optional<std::int32_t> frontmostApplicationPid() = 0;
  // The localised name of the running application with that pid; nothing when there is no such
  // application or it has no name.
  virtual std::optional<std::string> runningApplicationName(std::int32_t pid) = 0;
  // File or folder existence (NSFileManager fileExistsAtPath:).
  virtual bool fileExists(const std::string& path) = 0;
  // Opens the application bundle at path with a default configuration. The completion runs once,
  // on a thread of the platform's choosing, with the error's description or nothing; it may run
  // after the caller stopped waiting, so it must own everything it touches.
  virtual void openApplication(const std::string& path,
                               std::function<void(std::optional<std::string> error)> completion) = 0;

  // Screen capture. Both calls block until the platform answers; they run on a worker thread,
  // never on a connection thread.
  virtual ShareableContent copyShareableContent() = 0;
  virtual ContentFilterGeometry contentFilterGeometry(const ShareableDisplay& display) = 0;
  // Captures one image of the whole display at pixelWidth x pixelHeight, with or without the
  // cursor, and encodes it as JPEG at the given quality (0..1).
  virtual CapturedImage captureImage(const ShareableDisplay& display, std::int64_t pixelWidth,
                                     std::int64_t pixelHeight, bool showsCursor,
                                     double jpegQuality) = 0;

  // Parks the calling (main) thread for good, serving the platform's main run loop.
  [[noreturn]] virtual void runMainLoop() = 0;
};

}  // namespace tervain
