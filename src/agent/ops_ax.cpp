// Accessibility operations: "ax_dump", "ax_element_at", "ax_action", "ax_set_value", "ax_focus",
// and the searches "find" and "wait_for".
//
// A dump walks one application's element tree depth-first, pre-order, within three bounds: a
// depth limit, the first 48 children of each element, and a budget of 800 nodes shared by the
// whole walk. Pre-order with a shared budget means that a cut tree is complete on the left and
// cut on the right, and every element whose child loop was cut says how many children it left
// out. Every emitted node gets a fresh ref in the connection's registry; the registry is emptied
// by each dump (once the dump knows what to walk) so that refs name elements of the last dump,
// plus whatever hit tests have added since.
//
// Nodes are written as JSON text while the tree is walked and spliced into the reply as they
// stand: a dump of 800 nodes through a general object model would cost more than the walk.
//
// Reads that fail below the root only leave members out: a dump never fails because of what the
// interface holds, and an application that does not answer yields a root with just its ref.
//
// Speed: every read may be a round trip to the application, so the dump first reads the tree
// level by level, each level's attributes and action names in one batch (an adapter may have
// them all in flight at once), within the walk's own bounds; then the walk builds each node from
// those reads exactly as from reads made one by one, so order, budget and cuts are unchanged.
//
// Searches walk with the same level-by-level reads and test each level as its batch comes back,
// so they stop as soon as they have their matches, which come shallowest first. They register
// only their matches, without emptying the registry: a host finds, acts, and finds again. A wait
// repeats its search every 100 ms, pausing on the host's socket so that a host that leaves ends
// it at once.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

#include "agent/ops_ax.h"
#include "core/ax_text.h"
#include "core/json_writer.h"
#include "core/request_members.h"
#include "core/vocabulary.h"

namespace tervain {
namespace {

constexpr const char* kNotTrusted =
    "Accessibility (kTCCServiceAccessibility) is not granted to the agent \u2014 re-run "
    "provisioning";

constexpr std::int64_t kNodeBudget = 800;
constexpr std::size_t kChildrenPerNode = 48;
constexpr std::int64_t kDefaultDepth = 12;
constexpr std::int64_t kMinDepth = 1;
constexpr std::int64_t kMaxDepth = 25;
constexpr float kMessagingTimeoutSeconds = 1.5f;
constexpr std::size_t kValueCharacters = 250;

const std::string& kRole = AX::role;
const std::string& kSubrole = AX::subrole;
const std::string& kTitle = AX::title;
const std::string& kValue = AX::value;
const std::string& kEnabled = AX::enabled;
const std::string& kFocused = AX::focused;
const std::string& kPosition = AX::position;
const std::string& kSize = AX::size;
const std::string& kChildren = AX::children;
const std::string& kPress = AX::press;

// What a walk reads of each element, in this order: `node` when its children may be walked
// (the children come last), `leaf` otherwise.
struct ReadSet {
  explicit ReadSet(std::vector<std::string> attributes)
      : node(std::move(attributes)), leaf(node.begin(), node.end() - 1) {}
  std::vector<std::string> node;
  std::vector<std::string> leaf;
};
const ReadSet kNodeReads({kRole, kSubrole, kTitle, kValue, kEnabled, kFocused, kPosition, kSize,
                          kChildren});
// A search on identifiers reads them as well.
const ReadSet kIdentifierReads({kRole, kSubrole, kTitle, kValue, kEnabled, kFocused, kPosition,
                                kSize, AX::identifier, kChildren});

using Read = std::pair<AXResult, AXValue>;

// A node's reads, made ahead of its building in one batch.
struct ReadAhead {
  const std::vector<std::string>* names = nullptr;  // what `attributes` holds, in order
  std::vector<Read> attributes;
  Read actionNames;
};

// Where a node's attributes come from: its batch when one was read, else the live element.
struct Source {
  Desktop& desktop;
  const Element& element;
  const ReadAhead* ahead;

  AXResult copy(const std::string& attribute, AXValue& out) const {
    if (ahead != nullptr) {
      for (std::size_t i = 0; i < ahead->attributes.size(); ++i) {
        if ((*ahead->names)[i] != attribute) continue;
        const Read& read = ahead->attributes[i];
        if (read.first == AXError::success) out = read.second;
        return read.first;
      }
    }
    return desktop.copyAttributeValue(element, attribute, out);
  }
  AXResult copyActionNames(AXValue& out) const {
    if (ahead != nullptr) {
      if (ahead->actionNames.first == AXError::success) out = ahead->actionNames.second;
      return ahead->actionNames.first;
    }
    return desktop.copyActionNames(element, out);
  }
};

// Reads the given elements' node attributes in one batch.
std::vector<ReadAhead> readAhead(Desktop& desktop, const std::vector<ElementRef>& elements,
                                 bool withChildren, const ReadSet& set = kNodeReads) {
  std::vector<std::vector<Read>> attributes;
  std::vector<Read> actionNames;
  const std::vector<std::string>& names = withChildren ? set.node : set.leaf;
  desktop.copyAttributeValues(elements, names, attributes, &actionNames);
  std::vector<ReadAhead> out(elements.size());
  for (std::size_t i = 0; i < elements.size(); ++i) {
    out[i].names = &names;
    out[i].attributes = std::move(attributes[i]);
    out[i].actionNames = std::move(actionNames[i]);
  }
  return out;
}

std::vector<ElementRef>* elementList(AXValue& value);

// Reads read ahead for a whole walk, by element.
using ReadMap = std::unordered_map<const Element*, ReadAhead>;

// Walks the tree under root one level at a time, each level's reads in one batch, with the
// dump's bounds: no deeper than the depth limit, the first 48 children of each element, no more
// elements than the budget. Hands every element reached (once, however often it is met) with
// its reads to visit, level by level in tree order, and stops when visit answers false.
template <typename Visit>
void walkLevels(Desktop& desktop, const ElementRef& root, int maxDepth, std::int64_t budget,
                const ReadSet& set, Visit&& visit) {
  // Holds what it has met: a handle let go could come back at the same address as another.
  std::unordered_set<ElementRef> seen;
  std::vector<ElementRef> level = {root};
  for (int depth = 0; !level.empty() && budget > 0; ++depth) {
    if (static_cast<std::int64_t>(level.size()) > budget) {
      level.resize(static_cast<std::size_t>(budget));
    }
    budget -= static_cast<std::int64_t>(level.size());
    std::vector<ReadAhead> reads = readAhead(desktop, level, depth < maxDepth, set);
    std::vector<ElementRef> next;
    for (std::size_t i = 0; i < level.size(); ++i) {
      if (!level[i] || !seen.insert(level[i]).second) continue;
      if (depth < maxDepth && reads[i].attributes.size() == set.node.size() &&
          reads[i].attributes.back().first == AXError::success) {
        AXValue children = reads[i].attributes.back().second;
        if (const std::vector<ElementRef>* list = elementList(children)) {
          next.insert(next.end(), list->begin(),
                      list->begin() + static_cast<std::ptrdiff_t>(
                                          std::min(list->size(), kChildrenPerNode)));
        }
      }
      if (!visit(level[i], std::move(reads[i]))) return;
    }
    level = std::move(next);
  }
}

// Reads the tree under root ahead of the dump's walk (see walkLevels). The walk then builds from
// these reads; an element the read-ahead did not reach (the budget ran out on a wider level than
// the walk's path) reads its own.
ReadMap readTreeAhead(Desktop& desktop, const ElementRef& root, int maxDepth,
                      std::int64_t budget) {
  ReadMap map;
  walkLevels(desktop, root, maxDepth, budget, kNodeReads,
             [&map](const ElementRef& element, ReadAhead&& reads) {
               map.emplace(element.get(), std::move(reads));
               return true;
             });
  return map;
}

// The platform's number objects: integers, reals and booleans alike.
std::optional<bool> numberTruth(const AXValue& value) {
  if (const auto* b = std::get_if<bool>(&value)) return *b;
  if (const auto* i = std::get_if<std::int64_t>(&value)) return *i != 0;
  if (const auto* d = std::get_if<double>(&value)) return *d != 0.0;
  return std::nullopt;
}

// The children as a list of live handles; nothing when the value is anything else.
std::vector<ElementRef>* elementList(AXValue& value) {
  auto* list = std::get_if<std::vector<ElementRef>>(&value);
  if (list == nullptr) return nullptr;
  for (const ElementRef& child : *list) {
    if (!child) return nullptr;
  }
  return list;
}

// ---- Attribute readers -----------------------------------------------------------------------

// Attribute readers; nothing when the read fails or the value is of another type.
std::optional<std::string> copyString(const Source& source, const std::string& attribute) {
  AXValue value;
  if (source.copy(attribute, value) != AXError::success) {
    return std::nullopt;
  }
  auto* text = std::get_if<std::string>(&value);
  // A text that is not UTF-8 cannot be reported; it counts as unreadable.
  if (text == nullptr || !isValidUtf8(*text)) return std::nullopt;
  return std::move(*text);
}

std::optional<bool> copyBool(const Source& source, const std::string& attribute) {
  AXValue value;
  if (source.copy(attribute, value) != AXError::success) {
    return std::nullopt;
  }
  return numberTruth(value);
}

struct Frame {
  std::int64_t x, y, w, h;
};

std::optional<Frame> copyFrame(const Source& source) {
  AXValue position;
  if (source.copy(kPosition, position) != AXError::success) return std::nullopt;
  AXValue size;
  if (source.copy(kSize, size) != AXError::success) return std::nullopt;
  const auto* point = std::get_if<Point>(&position);
  const auto* extent = std::get_if<Size>(&size);
  if (point == nullptr || extent == nullptr) return std::nullopt;
  // A coordinate that is not a finite number (or beyond any screen) drops the whole frame.
  const auto x = roundHalfAwayFromZero(point->x);
  const auto y = roundHalfAwayFromZero(point->y);
  const auto w = roundHalfAwayFromZero(extent->width);
  const auto h = roundHalfAwayFromZero(extent->height);
  if (!x || !y || !w || !h) return std::nullopt;
  return Frame{*x, *y, *w, *h};
}

std::optional<std::string> copyValueDescription(const Source& source) {
  AXValue value;
  if (source.copy(kValue, value) != AXError::success) {
    return std::nullopt;
  }
  std::string text;
  if (auto* s = std::get_if<std::string>(&value)) {
    text = std::move(*s);
  } else if (const auto* i = std::get_if<std::int64_t>(&value)) {
    text = numberText(*i);
  } else if (const auto* d = std::get_if<double>(&value)) {
    text = numberText(*d);
  } else if (const auto* b = std::get_if<bool>(&value)) {
    text = numberText(*b);
  } else if (auto* url = std::get_if<AXUrl>(&value)) {
    text = std::move(url->absoluteString);
  } else {
    return std::nullopt;  // points, sizes, elements, lists, other types: not reported
  }
  if (text.empty() || !isValidUtf8(text)) return std::nullopt;
  return truncateGraphemes(std::move(text), kValueCharacters);
}

// ---- Nodes -----------------------------------------------------------------------------------

// A node's members after its ref, as JSON text: role, subrole, title, value, state, frame and
// actions, each only when readable.
void appendMembers(std::string& out, const Source& source) {
  if (const auto role = copyString(source, kRole)) {
    out += R"(,"role":)";
    appendJsonString(out, *role);
  }
  if (const auto subrole = copyString(source, kSubrole)) {
    out += R"(,"subrole":)";
    appendJsonString(out, *subrole);
  }
  if (const auto title = copyString(source, kTitle); title && !title->empty()) {
    out += R"(,"title":)";
    appendJsonString(out, *title);
  }
  if (const auto value = copyValueDescription(source)) {
    out += R"(,"value":)";
    appendJsonString(out, *value);
  }
  // Written only when they differ from what a host assumes: enabled, and not focused.
  if (copyBool(source, kEnabled) == false) out += R"(,"enabled":false)";
  if (copyBool(source, kFocused) == true) out += R"(,"focused":true)";
  if (const auto frame = copyFrame(source)) {
    out += R"(,"frame":{"x":)" + std::to_string(frame->x) + R"(,"y":)" +
           std::to_string(frame->y) + R"(,"w":)" + std::to_string(frame->w) + R"(,"h":)" +
           std::to_string(frame->h) + "}";
  }
  AXValue actions;
  if (source.copyActionNames(actions) == AXError::success) {
    const auto* names = std::get_if<std::vector<std::string>>(&actions);
    if (names != nullptr && !names->empty() &&
        std::all_of(names->begin(), names->end(), isValidUtf8)) {
      out += R"(,"actions":[)";
      for (std::size_t i = 0; i < names->size(); ++i) {
        if (i != 0) out.push_back(',');
        appendJsonString(out, (*names)[i]);
      }
      out.push_back(']');
    }
  }
}

// One node of a dump, appended to out as JSON text: registers the element, reads its attributes
// and, while depth and the shared budget allow, its children.
// `ahead` holds the node's reads when its parent read them; otherwise (the root) the node reads
// its own in one batch.
void buildNode(OperationContext& context, const ElementRef& element, int depth, int maxDepth,
               std::int64_t& budget, std::string& out, const ReadMap* map = nullptr) {
  Desktop& desktop = context.desktop;
  const std::int64_t remaining = --budget;
  out += R"({"ref":)";
  appendJsonString(out, context.refs.registerElement(element));
  if (!element) {  // nothing to read; the ref resolves to nothing
    out.push_back('}');
    return;
  }
  const Element& e = *element;
  const ReadAhead* ahead = nullptr;
  if (map != nullptr) {
    if (const auto found = map->find(element.get()); found != map->end()) ahead = &found->second;
  }
  std::vector<ReadAhead> own;
  if (ahead == nullptr) {
    own = readAhead(desktop, {element}, depth < maxDepth && remaining >= 1);
    ahead = &own[0];
  }
  const Source source{desktop, e, ahead};
  appendMembers(out, source);

  // A node built with the last unit of budget does not look at its children at all.
  AXValue childrenValue;
  if (depth < maxDepth && remaining >= 1 &&
      source.copy(kChildren, childrenValue) == AXError::success) {
    const std::vector<ElementRef>* children = elementList(childrenValue);
    if (children != nullptr && !children->empty()) {
      const std::size_t examined = std::min(children->size(), kChildrenPerNode);
      const std::size_t start = out.size();
      out += R"(,"children":[)";
      std::size_t built = 0;
      for (std::size_t i = 0; i < examined && budget >= 1; ++i, ++built) {
        if (i != 0) out.push_back(',');
        buildNode(context, (*children)[i], depth + 1, maxDepth, budget, out, map);
      }
      if (built == 0) {
        out.resize(start);
      } else {
        out.push_back(']');
      }
      if (built < children->size()) {
        out += R"(,"childrenOmitted":)" + std::to_string(children->size() - built);
      }
    }
  }
  out.push_back('}');
}


// ---- Searches --------------------------------------------------------------------------------

constexpr std::int64_t kSearchBudget = 5000;
constexpr std::int64_t kDefaultMatches = 20;
constexpr std::int64_t kMaxMatches = 200;
constexpr double kDefaultWaitSeconds = 10;
constexpr double kMinWaitSeconds = 0.1;
constexpr double kMaxWaitSeconds = 60;
constexpr std::chrono::milliseconds kPollInterval{100};

// One condition of a search: the attribute's text contains (or is) the wanted text.
struct Criterion {
  const char* member;  // its name in the request
  const std::string& attribute;
  std::string wanted;
};

// What "find" and "wait_for" look for, and where.
struct Query {
  std::optional<std::int32_t> pid;  // the frontmost application when absent
  std::vector<Criterion> criteria;
  bool exact = false;
  std::int64_t limit = kDefaultMatches;
  std::int64_t maxDepth = kMaxDepth;
};

// An integer member that may be absent; an error text when it is there and not an integer.
std::optional<std::string> optionalInteger(const Json& request, std::string_view op,
                                           const char* key, std::optional<std::int64_t>& out) {
  if (member(request, key) == nullptr) return std::nullopt;
  out = integerMember(request, key);
  if (!out) return std::string(op) + " \"" + key + "\" must be an integer";
  return std::nullopt;
}

// Reads the query members of a "find" or "wait_for" request; an error text for a bad one.
std::optional<std::string> parseQuery(const Json& request, std::string_view op, Query& query) {
  const std::string prefix(op);
  static const std::pair<const char*, const std::string*> kCriteria[] = {
      {"role", &kRole}, {"subrole", &kSubrole}, {"title", &kTitle}, {"value", &kValue},
      {"identifier", &AX::identifier}};
  for (const auto& [name, attribute] : kCriteria) {
    if (member(request, name) == nullptr) continue;
    const std::string* wanted = stringMember(request, name);
    if (wanted == nullptr || wanted->empty()) {
      return prefix + " \"" + name + "\" must be a non-empty string";
    }
    query.criteria.push_back({name, *attribute, *wanted});
  }
  if (query.criteria.empty()) {
    return prefix +
           " requires at least one of \"role\", \"subrole\", \"title\", \"value\", \"identifier\"";
  }
  if (member(request, "match") != nullptr) {
    const std::string* match = stringMember(request, "match");
    if (match == nullptr || (*match != "contains" && *match != "exact")) {
      return prefix + " \"match\" must be \"contains\" or \"exact\"";
    }
    query.exact = *match == "exact";
  }
  std::optional<std::int64_t> pid, limit, maxDepth;
  for (auto [key, out] : {std::pair{"pid", &pid}, {"limit", &limit}, {"maxDepth", &maxDepth}}) {
    if (auto error = optionalInteger(request, op, key, *out)) return error;
  }
  if (pid) {
    query.pid = narrowToInt32(*pid);
    if (!query.pid) return prefix + " \"pid\" is out of range";
  }
  query.limit = std::clamp(limit.value_or(kDefaultMatches), std::int64_t{1}, kMaxMatches);
  query.maxDepth = std::clamp(maxDepth.value_or(kMaxDepth), kMinDepth, kMaxDepth);
  return std::nullopt;
}

char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Whether text contains part, ignoring the case of ASCII letters.
bool containsFolded(const std::string& text, const std::string& part) {
  return std::search(text.begin(), text.end(), part.begin(), part.end(), [](char a, char b) {
           return lowerAscii(a) == lowerAscii(b);
         }) != text.end();
}

// The text a criterion compares: the value as a node shows it, other attributes as read.
std::optional<std::string> criterionText(const Source& source, const std::string& attribute) {
  return attribute == kValue ? copyValueDescription(source) : copyString(source, attribute);
}

bool matches(const Source& source, const Query& query) {
  return std::all_of(query.criteria.begin(), query.criteria.end(), [&](const Criterion& c) {
    const std::optional<std::string> text = criterionText(source, c.attribute);
    if (!text) return false;
    return query.exact ? *text == c.wanted : containsFolded(*text, c.wanted);
  });
}

struct Match {
  ElementRef element;
  ReadAhead reads;
};

struct Search {
  bool application = false;  // there was an application to search
  bool answered = true;      // and its element answered in time
  std::int64_t visited = 0;
  std::vector<Match> matches;
};

// Walks the query's application as a dump would, within the larger search budget, until
// `limit` elements match; reads only, registering nothing.
Search search(Desktop& desktop, const Query& query, std::int64_t limit) {
  Search out;
  std::int32_t pid = 0;
  if (query.pid) {
    pid = *query.pid;
  } else {
    const std::optional<std::int32_t> frontmost = desktop.frontmostApplicationPid();
    if (!frontmost) return out;
    pid = *frontmost;
  }
  out.application = true;
  const ElementRef application = desktop.applicationElement(pid);
  if (application) desktop.setMessagingTimeout(*application, kMessagingTimeoutSeconds);
  const bool identifiers =
      std::any_of(query.criteria.begin(), query.criteria.end(),
                  [](const Criterion& c) { return c.attribute == AX::identifier; });
  walkLevels(desktop, application, static_cast<int>(query.maxDepth), kSearchBudget,
             identifiers ? kIdentifierReads : kNodeReads,
             [&](const ElementRef& element, ReadAhead&& reads) {
               if (out.visited++ == 0) {
                 out.answered = reads.attributes.front().first != AXError::cannotComplete;
               }
               if (matches(Source{desktop, *element, &reads}, query)) {
                 out.matches.push_back({element, std::move(reads)});
               }
               return static_cast<std::int64_t>(out.matches.size()) < limit;
             });
  return out;
}

// A match as a node without children, under a fresh ref that joins the connection's others.
std::string matchNode(OperationContext& context, const Match& match) {
  std::string out = R"({"ref":)";
  appendJsonString(out, context.refs.registerElement(match.element));
  appendMembers(out, Source{context.desktop, *match.element, &match.reads});
  out.push_back('}');
  return out;
}

// The query as a person reads it: role containing "Button" and title "OK".
std::string describeQuery(const Query& query) {
  std::string out;
  for (const Criterion& c : query.criteria) {
    if (!out.empty()) out += " and ";
    out += c.member;
    out += query.exact ? " " : " containing ";
    out += Json(c.wanted).dump(-1, ' ', false, Json::error_handler_t::replace);
  }
  return out;
}

enum class WaitState { exists, gone, enabled, focused, value };

}  // namespace

Reply accessibilityNotGranted() { return Reply::failure(kNotTrusted); }

ElementRef resolveRef(const OperationContext& context, const Json& request) {
  const std::string* ref = stringMember(request, "ref");
  if (ref == nullptr) return nullptr;
  return context.refs[*ref];
}

Reply staleRefReply(const Json& request) {
  const std::string* ref = stringMember(request, "ref");
  return Reply::failure("element ref \"" + (ref != nullptr ? *ref : std::string("?")) +
                        "\" is unknown or stale \u2014 refs are only valid until the next "
                        "ax_dump; re-dump and retry");
}

std::string describeAXResult(AXResult code) {
  switch (code) {
    case AXError::success:
      return "success";
    case AXError::invalidUIElement:
      return "kAXErrorInvalidUIElement \u2014 stale element";
    case AXError::cannotComplete:
      return "kAXErrorCannotComplete \u2014 the app did not respond in time";
    case AXError::attributeUnsupported:
      return "attribute unsupported";
    case AXError::actionUnsupported:
      return "action unsupported";
    case AXError::notImplemented:
      return "the app does not implement this AX request";
    case AXError::apiDisabled:
      return "kAXErrorAPIDisabled \u2014 accessibility is disabled for this app";
    case AXError::noValue:
      return "no value";
    default:
      return "AXError " + std::to_string(code);
  }
}

// ---- Operations ------------------------------------------------------------------------------

Reply opAXDump(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.accessibilityTrusted()) return Reply::failure(kNotTrusted);

  std::int32_t pid = 0;
  if (const std::optional<std::int64_t> asked = integerMember(request, "pid")) {
    const std::optional<std::int32_t> narrowed = narrowToInt32(*asked);
    if (!narrowed) return Reply::failure("ax_dump \"pid\" is out of range");
    pid = *narrowed;
  } else {
    const std::optional<std::int32_t> frontmost = desktop.frontmostApplicationPid();
    if (!frontmost) return Reply::failure("no frontmost application to dump");
    pid = *frontmost;
  }

  const std::int64_t depthLimit =
      std::clamp(integerMember(request, "maxDepth").value_or(kDefaultDepth), kMinDepth, kMaxDepth);

  // Only now, with a target chosen, do the previous dump's refs go.
  context.refs.reset();

  const ElementRef application = desktop.applicationElement(pid);
  if (application) desktop.setMessagingTimeout(*application, kMessagingTimeoutSeconds);

  std::int64_t budget = kNodeBudget;
  std::string tree;
  const ReadMap ahead =
      readTreeAhead(desktop, application, static_cast<int>(depthLimit), kNodeBudget);
  buildNode(context, application, 0, static_cast<int>(depthLimit), budget, tree, &ahead);

  Reply reply = Reply::success();
  reply.jsonMembers.emplace_back("tree", std::move(tree));
  reply.body["app"] = desktop.runningApplicationName(pid).value_or("pid " + std::to_string(pid));
  if (budget <= 0) reply.body["truncated"] = true;
  return reply;
}

Reply opAXElementAt(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.accessibilityTrusted()) return Reply::failure(kNotTrusted);

  // Integers only: unlike the pointer operations, a fractional point is refused.
  const std::optional<std::int64_t> x = integerMember(request, "x");
  const std::optional<std::int64_t> y = integerMember(request, "y");
  if (!x || !y) return Reply::failure("ax_element_at requires x and y");

  ElementRef found;
  const AXResult code = desktop.elementAtPoint(static_cast<float>(*x), static_cast<float>(*y),
                                               kMessagingTimeoutSeconds, found);
  if (code != AXError::success || !found) {
    return Reply::failure("no accessible element at (" + std::to_string(*x) + ", " +
                          std::to_string(*y) + ") (" + describeAXResult(code) + ")");
  }

  // One node, no children; its ref joins those of the last dump.
  std::int64_t budget = 1;
  Reply reply = Reply::success();
  std::string node;
  buildNode(context, found, 0, 0, budget, node);
  reply.jsonMembers.emplace_back("node", std::move(node));
  return reply;
}

Reply opAXAction(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.accessibilityTrusted()) return Reply::failure(kNotTrusted);
  const ElementRef element = resolveRef(context, request);
  if (!element) return staleRefReply(request);

  const std::string* asked = stringMember(request, "action");
  const std::string& action = asked != nullptr && !asked->empty() ? *asked : kPress;
  return actionOutcome(desktop.performAction(*element, action), request, action, "re-dump");
}

Reply actionOutcome(AXResult code, const Json& request, const std::string& what,
                    const char* verify) {
  switch (code) {
    case AXError::success:
      return Reply::success();
    case AXError::cannotComplete: {
      // The action may well have happened: the host should look, not press again.
      Reply reply = Reply::success();
      reply.body["note"] =
          "the app did not confirm within the AX timeout \u2014 the action possibly succeeded; " +
          std::string(verify) + " to verify";
      return reply;
    }
    case AXError::invalidUIElement:
      return staleRefReply(request);
    default:
      return Reply::failure(what + " failed (" + describeAXResult(code) + ")");
  }
}

Reply opAXSetValue(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.accessibilityTrusted()) return Reply::failure(kNotTrusted);
  const ElementRef element = resolveRef(context, request);
  if (!element) return staleRefReply(request);

  const std::string* value = stringMember(request, "value");
  if (value == nullptr) return Reply::failure("ax_set_value requires a string \"value\"");

  // A failed query (a vanished element included) counts as "not settable".
  bool settable = false;
  desktop.isAttributeSettable(*element, kValue, settable);
  if (!settable) {
    return Reply::failure(
        "this element's AXValue is not settable \u2014 focus it (ax_focus) and type instead");
  }
  const AXResult code = desktop.setAttributeValue(*element, kValue, AXWritableValue(*value));
  if (code == AXError::success) return Reply::success();
  if (code == AXError::invalidUIElement) return staleRefReply(request);
  return Reply::failure("setting AXValue failed (" + describeAXResult(code) + ")");
}

Reply opAXFocus(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.accessibilityTrusted()) return Reply::failure(kNotTrusted);
  const ElementRef element = resolveRef(context, request);
  if (!element) return staleRefReply(request);

  const AXResult code = desktop.setAttributeValue(*element, kFocused, AXWritableValue(true));
  if (code == AXError::success) return Reply::success();
  if (code == AXError::invalidUIElement) return staleRefReply(request);
  return Reply::failure("focusing failed (" + describeAXResult(code) + ")");
}

Reply opFind(OperationContext& context, const Json& request) {
  Desktop& desktop = context.desktop;
  if (!desktop.accessibilityTrusted()) return Reply::failure(kNotTrusted);
  Query query;
  if (auto error = parseQuery(request, "find", query)) return Reply::failure(std::move(*error));

  const Search found = search(desktop, query, query.limit);
  if (!found.application) return Reply::failure("no frontmost application to search");
  // Unlike a dump, a search keeps the refs handed out before it.
  std::string matches = "[";
  for (const Match& match : found.matches) {
    if (matches.size() > 1) matches.push_back(',');
    matches += matchNode(context, match);
  }
  matches.push_back(']');
  Reply reply = Reply::success();
  reply.jsonMembers.emplace_back("matches", std::move(matches));
  reply.body["visited"] = found.visited;
  return reply;
}

Reply opWaitFor(OperationContext& context, const Json& request) {
  using Clock = std::chrono::steady_clock;
  Desktop& desktop = context.desktop;
  if (!desktop.accessibilityTrusted()) return Reply::failure(kNotTrusted);
  Query query;
  if (auto error = parseQuery(request, "wait_for", query)) {
    return Reply::failure(std::move(*error));
  }
  static const std::pair<const char*, WaitState> kStates[] = {
      {"exists", WaitState::exists},   {"gone", WaitState::gone},
      {"enabled", WaitState::enabled}, {"focused", WaitState::focused},
      {"value", WaitState::value}};
  const std::string* stateName = stringMember(request, "state");
  const auto state = std::find_if(std::begin(kStates), std::end(kStates), [&](const auto& row) {
    return stateName != nullptr && *stateName == row.first;
  });
  if (state == std::end(kStates)) {
    return Reply::failure(
        R"(wait_for "state" must be "exists", "gone", "enabled", "focused" or "value")");
  }
  const std::string* equals = stringMember(request, "equals");
  if (state->second == WaitState::value && equals == nullptr) {
    return Reply::failure(R"(wait_for "state": "value" requires a string "equals")");
  }
  double seconds = kDefaultWaitSeconds;
  if (const Json* timeout = member(request, "timeout")) {
    if (!timeout->is_number()) {
      return Reply::failure(R"(wait_for "timeout" must be a number of seconds)");
    }
    seconds = std::clamp(timeout->get<double>(), kMinWaitSeconds, kMaxWaitSeconds);
  }

  const auto holds = [&](const Search& found) {
    if (state->second == WaitState::gone) return found.answered && found.matches.empty();
    if (found.matches.empty()) return false;
    const Match& first = found.matches.front();
    const Source source{desktop, *first.element, &first.reads};
    switch (state->second) {
      case WaitState::enabled:
        return copyBool(source, kEnabled) == true;
      case WaitState::focused:
        return copyBool(source, kFocused) == true;
      case WaitState::value:
        return copyValueDescription(source).value_or("") == *equals;
      default:
        return true;
    }
  };
  const Clock::time_point start = Clock::now();
  const Clock::time_point deadline =
      start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  // Ends at the deadline: each turn either answers or waits until then at most.
  for (;;) {
    const Search found = search(desktop, query, 1);
    const Clock::time_point now = Clock::now();
    if (holds(found)) {
      Reply reply = Reply::success();
      if (state->second != WaitState::gone) {
        reply.jsonMembers.emplace_back("node", matchNode(context, found.matches.front()));
      }
      reply.body["waitedMs"] =
          std::chrono::duration_cast<std::chrono::milliseconds>(now - start).count();
      return reply;
    }
    if (now >= deadline) break;
    const auto pause = std::min<Clock::duration>(kPollInterval, deadline - now);
    if (context.hostClosedWithin(std::chrono::ceil<std::chrono::milliseconds>(pause))) {
      return Reply::failure("wait_for stopped: the host closed the connection");
    }
  }

  const std::string what = describeQuery(query);
  std::string failed;
  switch (state->second) {
    case WaitState::exists:
      failed = "no element with " + what + " appeared";
      break;
    case WaitState::gone:
      failed = "an element with " + what + " was still there";
      break;
    case WaitState::enabled:
      failed = "no element with " + what + " became enabled";
      break;
    case WaitState::focused:
      failed = "no element with " + what + " became focused";
      break;
    case WaitState::value:
      failed = "no element with " + what + " took the value " +
               Json(*equals).dump(-1, ' ', false, Json::error_handler_t::replace);
      break;
  }
  return Reply::failure("wait_for gave up after " + numberText(seconds) + " s: " + failed);
}

}  // namespace tervain
