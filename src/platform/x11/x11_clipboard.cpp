#include "platform/x11/x11_clipboard.h"

#include <X11/Xatom.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

// Xlib defines Status as a macro; ClipboardText::Status is what this file means.
#undef Status

namespace tervain::x11 {

namespace {

using Clock = std::chrono::steady_clock;

// How long a read waits for the owner (every step of an INCR reply included).
constexpr auto kReadLimit = std::chrono::milliseconds(2000);
// How long a caller waits for its job: behind one read, and then its own.
constexpr auto kCallLimit = std::chrono::milliseconds(5000);
// An INCR transfer whose requestor takes no chunk for this long is dropped.
constexpr auto kTransferLimit = std::chrono::seconds(10);
// Text read from another client stops here; a reply could not carry more anyway.
constexpr std::size_t kMaxReadBytes = 64 * 1024 * 1024;

std::string latin1FromUtf8(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    const std::size_t length = c < 0x80 ? 1 : c >= 0xf0 ? 4 : c >= 0xe0 ? 3 : 2;
    unsigned code = length == 1   ? c
                    : length == 2 ? (c & 0x1fu)
                    : length == 3 ? (c & 0x0fu)
                                  : (c & 0x07u);
    for (std::size_t k = 1; k < length && i + k < text.size(); ++k) {
      code = (code << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3fu);
    }
    out.push_back(code <= 0xff ? static_cast<char>(code) : '?');
    i += length;
  }
  return out;
}

std::string utf8FromLatin1(const std::string& bytes) {
  std::string out;
  for (const char ch : bytes) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x80) {
      out.push_back(ch);
    } else {
      out.push_back(static_cast<char>(0xc0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
    }
  }
  return out;
}

}  // namespace

// The thread's state. Display calls happen only on the thread, inside connection.runAwaited().
struct Clipboard::Owner {
  Display* display = nullptr;  // set for the round; null when the display does not answer
  std::uint64_t generation = 0;
  Window window = 0;
  bool owns = false;
  std::string text;  // served while owned
  std::size_t chunk = 0;
  Atom clipboard = 0, targets = 0, utf8 = 0, textAtom = 0, incr = 0, property = 0;

  // One INCR transfer to a requestor: the next chunk goes when it deletes the property.
  struct Transfer {
    Window requestor;
    Atom property;
    Atom type;
    std::string data;
    std::size_t offset = 0;
    Clock::time_point deadline;
  };
  std::vector<Transfer> transfers;

  // Called at the start of each round: a reopened display needs a new window, and whatever was
  // owned on the old one is gone.
  void attach(Display* d, std::uint64_t opened) {
    display = d;
    if (opened == generation) return;
    generation = opened;
    owns = false;
    text.clear();
    transfers.clear();
    clipboard = XInternAtom(d, "CLIPBOARD", False);
    targets = XInternAtom(d, "TARGETS", False);
    utf8 = XInternAtom(d, "UTF8_STRING", False);
    textAtom = XInternAtom(d, "TEXT", False);
    incr = XInternAtom(d, "INCR", False);
    property = XInternAtom(d, "TERVAIN_CLIPBOARD", False);
    // The basic request size, not the extended one: text larger than one such request goes out
    // in INCR chunks, which every requestor understands.
    chunk = std::max<std::size_t>(4096, static_cast<std::size_t>(XMaxRequestSize(d)) * 4 - 64);
    XSetWindowAttributes attributes{};
    attributes.event_mask = PropertyChangeMask;
    window = XCreateWindow(d, DefaultRootWindow(d), -10, -10, 1, 1, 0, CopyFromParent, InputOnly,
                           CopyFromParent, CWEventMask, &attributes);
  }

  // Waits for the next event until the deadline; other clients' requests are served meanwhile
  // by the caller's loop.
  bool nextEvent(XEvent& event, Clock::time_point deadline) {
    while (XPending(display) == 0) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) return false;
      pollfd wait{ConnectionNumber(display), POLLIN, 0};
      if (::poll(&wait, 1, static_cast<int>(std::min<long long>(left, 100))) < 0 &&
          errno != EINTR) {
        return false;
      }
    }
    XNextEvent(display, &event);
    return true;
  }

  // Every event already received, handled without waiting.
  void drain() {
    for (int i = 0; i < 100'000 && XPending(display) > 0; ++i) {
      XEvent event;
      XNextEvent(display, &event);
      handle(event);
    }
    const auto now = Clock::now();
    std::erase_if(transfers, [now](const Transfer& t) { return t.deadline < now; });
  }

  // The serving side: requests for our selection, the requestors' deletions during INCR, and
  // the loss of the selection to another client.
  void handle(const XEvent& event) {
    if (event.type == SelectionClear && event.xselectionclear.window == window &&
        event.xselectionclear.selection == clipboard) {
      owns = false;
      text.clear();
    } else if (event.type == SelectionRequest) {
      answer(event.xselectionrequest);
    } else if (event.type == PropertyNotify && event.xproperty.state == PropertyDelete) {
      for (auto t = transfers.begin(); t != transfers.end(); ++t) {
        if (t->requestor != event.xproperty.window || t->property != event.xproperty.atom) {
          continue;
        }
        // The next chunk; the empty one after the last ends the transfer.
        const std::size_t n = std::min(chunk, t->data.size() - t->offset);
        XChangeProperty(display, t->requestor, t->property, t->type, 8, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(t->data.data() + t->offset),
                        static_cast<int>(n));
        t->offset += n;
        t->deadline = Clock::now() + kTransferLimit;
        if (n == 0) transfers.erase(t);
        break;
      }
    }
  }

  void answer(const XSelectionRequestEvent& request) {
    XEvent reply{};
    reply.xselection.type = SelectionNotify;
    reply.xselection.requestor = request.requestor;
    reply.xselection.selection = request.selection;
    reply.xselection.target = request.target;
    reply.xselection.time = request.time;
    reply.xselection.property = None;
    // An obsolete client names no property: the target is the property then (ICCCM).
    const Atom into = request.property != None ? request.property : request.target;
    if (owns && request.selection == clipboard && request.owner == window) {
      if (request.target == targets) {
        const Atom list[] = {targets, utf8, XA_STRING, textAtom};
        XChangeProperty(display, request.requestor, into, XA_ATOM, 32, PropModeReplace,
                        reinterpret_cast<const unsigned char*>(list), 4);
        reply.xselection.property = into;
      } else if (request.target == utf8 || request.target == textAtom ||
                 request.target == XA_STRING) {
        const bool latin1 = request.target == XA_STRING;
        std::string data = latin1 ? latin1FromUtf8(text) : text;
        const Atom type = latin1 ? XA_STRING : utf8;
        if (data.size() > chunk) {
          // INCR: announce a lower bound of the size, then a chunk per deletion.
          XSelectInput(display, request.requestor, PropertyChangeMask);
          const long size = static_cast<long>(data.size());
          XChangeProperty(display, request.requestor, into, incr, 32, PropModeReplace,
                          reinterpret_cast<const unsigned char*>(&size), 1);
          transfers.push_back(
              {request.requestor, into, type, std::move(data), 0, Clock::now() + kTransferLimit});
        } else {
          XChangeProperty(display, request.requestor, into, type, 8, PropModeReplace,
                          reinterpret_cast<const unsigned char*>(data.data()),
                          static_cast<int>(data.size()));
        }
        reply.xselection.property = into;
      }
    }
    XSendEvent(display, request.requestor, False, NoEventMask, &reply);
    XFlush(display);
    Connection::takeRequestFailure();  // a requestor that went away is not ours to report
  }

  // The whole value of our property, deleted as it is read (which is what moves INCR along).
  bool takeProperty(Atom& type, std::string& bytes, int& format) {
    unsigned long count = 0, after = 0;
    unsigned char* data = nullptr;
    type = None;
    if (XGetWindowProperty(display, window, property, 0, static_cast<long>(kMaxReadBytes / 4), True,
                           AnyPropertyType, &type, &format, &count, &after, &data) != Success) {
      return false;
    }
    bytes.clear();
    if (data != nullptr) {
      if (format == 32) {  // Xlib widens 32-bit items to long
        const auto* items = reinterpret_cast<const unsigned long*>(data);
        for (unsigned long i = 0; i < count; ++i) {
          const auto item = static_cast<std::uint32_t>(items[i]);
          bytes.append(reinterpret_cast<const char*>(&item), sizeof item);
        }
      } else {
        bytes.assign(reinterpret_cast<const char*>(data),
                     count * static_cast<unsigned long>(format / 8));
      }
      XFree(data);
    }
    return true;
  }

  enum class Got { value, refused, timedOut, tooLarge };

  // Asks the owner for the selection as target, following INCR.
  Got convert(Atom target, Atom& type, std::string& bytes, Clock::time_point deadline) {
    XDeleteProperty(display, window, property);
    XConvertSelection(display, clipboard, target, property, window, CurrentTime);
    XFlush(display);
    XEvent event;
    for (;;) {
      if (!nextEvent(event, deadline)) return Got::timedOut;
      if (event.type == SelectionNotify && event.xselection.requestor == window &&
          event.xselection.selection == clipboard) {
        break;
      }
      handle(event);
    }
    if (event.xselection.property == None) return Got::refused;
    int format = 0;
    if (!takeProperty(type, bytes, format)) return Got::refused;
    if (type != incr) return Got::value;
    // INCR: each new value is a chunk, taken (deleted) in turn; an empty one ends it.
    std::string whole;
    for (;;) {
      if (!nextEvent(event, deadline)) return Got::timedOut;
      if (event.type != PropertyNotify || event.xproperty.window != window ||
          event.xproperty.atom != property || event.xproperty.state != PropertyNewValue) {
        handle(event);
        continue;
      }
      std::string part;
      if (!takeProperty(type, part, format)) return Got::refused;
      if (part.empty()) break;
      if (whole.size() + part.size() > kMaxReadBytes) return Got::tooLarge;
      whole += part;
    }
    bytes = std::move(whole);
    return Got::value;
  }

  ClipboardText read() {
    using S = ClipboardText::Status;
    if (owns) return {text.empty() ? S::empty : S::text, text, {}};
    const Window current = XGetSelectionOwner(display, clipboard);
    if (current == None) return {S::empty, {}, {}};
    const auto deadline = Clock::now() + kReadLimit;
    const auto fail = [](Got got) -> ClipboardText {
      if (got == Got::tooLarge) {
        return {
            S::failed, {}, "its text is larger than " + std::to_string(kMaxReadBytes) + " bytes"};
      }
      return {S::failed, {}, "its owner did not answer within 2 s"};
    };
    Atom type = None;
    std::string bytes;
    Got got = convert(utf8, type, bytes, deadline);
    if (got == Got::value && type == utf8) return {bytes.empty() ? S::empty : S::text, bytes, {}};
    if (got == Got::timedOut || got == Got::tooLarge) return fail(got);
    // No UTF-8: what does it offer?
    got = convert(targets, type, bytes, deadline);
    if (got == Got::timedOut) return fail(got);
    std::vector<Atom> offered;
    if (got == Got::value && type == XA_ATOM) {
      for (std::size_t i = 0; i + 4 <= bytes.size(); i += 4) {
        std::uint32_t atom = 0;
        std::memcpy(&atom, bytes.data() + i, 4);
        offered.push_back(atom);
      }
    }
    if (std::find(offered.begin(), offered.end(), XA_STRING) != offered.end()) {
      got = convert(XA_STRING, type, bytes, deadline);
      if (got == Got::value && type == XA_STRING) {
        return {bytes.empty() ? S::empty : S::text, utf8FromLatin1(bytes), {}};
      }
      if (got != Got::refused) return fail(got);
    }
    // Name what it holds: its targets less the bookkeeping ones.
    std::string holds;
    for (const Atom atom : offered) {
      char* name = XGetAtomName(display, atom);
      if (name == nullptr) continue;
      const std::string n = name;
      XFree(name);
      if (n == "TARGETS" || n == "TIMESTAMP" || n == "MULTIPLE" || n == "SAVE_TARGETS") continue;
      holds += (holds.empty() ? "" : ", ") + n;
    }
    Connection::takeRequestFailure();
    return {S::notText, {}, holds.empty() ? "nothing it names" : holds};
  }

  std::optional<std::string> write(std::string value) {
    text = std::move(value);
    XSetSelectionOwner(display, clipboard, window, CurrentTime);
    owns = XGetSelectionOwner(display, clipboard) == window;
    if (!owns) {
      text.clear();
      return "the X server did not give the agent the CLIPBOARD selection";
    }
    return std::nullopt;
  }
};

Clipboard::Clipboard(std::string displayName) : connection(std::move(displayName)) {}

Clipboard::~Clipboard() {
  {
    std::lock_guard lock(mutex);
    stopping = true;
  }
  if (wakeWrite.get() >= 0) {
    const char byte = 0;
    [[maybe_unused]] const auto written = ::write(wakeWrite.get(), &byte, 1);
  }
  if (thread.joinable()) thread.join();
}

bool Clipboard::call(std::function<void(Owner&)> job, std::chrono::milliseconds limit) {
  struct Outcome {
    bool finished = false;
  };
  auto outcome = std::make_shared<Outcome>();
  {
    std::lock_guard lock(mutex);
    if (stopping) return false;
    if (!thread.joinable()) {
      auto pipe = makePipe(O_NONBLOCK);
      if (!pipe) return false;
      wakeRead = std::move(pipe->read);
      wakeWrite = std::move(pipe->write);
      thread = std::thread([this] { serve(); });
    }
    jobs.push_back([this, job = std::move(job), outcome](Owner& owner) {
      job(owner);
      std::lock_guard lock(mutex);
      outcome->finished = true;
      done.notify_all();
    });
  }
  const char byte = 0;
  [[maybe_unused]] const auto written = ::write(wakeWrite.get(), &byte, 1);
  std::unique_lock lock(mutex);
  return done.wait_for(lock, limit, [&] { return outcome->finished; });
}

void Clipboard::serve() {
  Owner owner;
  for (;;) {
    std::deque<std::function<void(Owner&)>> todo;
    {
      std::lock_guard lock(mutex);
      if (stopping) return;
      todo.swap(jobs);
    }
    int fd = -1;
    bool pending = false;
    const bool answered = connection.runAwaited([&](Display* display) {
      owner.attach(display, connection.generation());
      owner.drain();
      for (auto& job : todo) job(owner);
      todo.clear();
      owner.drain();
      XFlush(display);
      fd = ConnectionNumber(display);
      pending = XPending(display) > 0;
      return true;
    });
    if (!answered) {
      // No display: the jobs run without one and say so.
      owner.display = nullptr;
      for (auto& job : todo) job(owner);
    }
    if (pending) continue;
    pollfd waits[2] = {{wakeRead.get(), POLLIN, 0}, {fd, POLLIN, 0}};
    ::poll(waits, fd >= 0 ? 2 : 1, 1000);
    char drained[64];
    while (::read(wakeRead.get(), drained, sizeof drained) > 0) {
    }
  }
}

ClipboardText Clipboard::read() {
  ClipboardText result{ClipboardText::Status::failed, {}, "the X display does not answer"};
  auto shared = std::make_shared<ClipboardText>(result);
  const bool ran = call(
      [shared](Owner& owner) {
        if (owner.display != nullptr) *shared = owner.read();
      },
      kCallLimit);
  if (!ran)
    return {ClipboardText::Status::failed, {}, "the clipboard thread did not answer in time"};
  std::lock_guard lock(mutex);
  return *shared;
}

std::optional<std::string> Clipboard::write(std::string text) {
  auto shared = std::make_shared<std::optional<std::string>>("the X display does not answer");
  const bool ran = call(
      [shared, text = std::move(text)](Owner& owner) mutable {
        if (owner.display != nullptr) *shared = owner.write(std::move(text));
      },
      kCallLimit);
  if (!ran) return "the clipboard thread did not answer in time";
  std::lock_guard lock(mutex);
  return *shared;
}

}  // namespace tervain::x11
