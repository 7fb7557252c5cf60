// The role table. Where macOS has an exact counterpart it is used; where it has only a near one
// (a separator, a status bar) the nearest container or control is chosen so that a host searching
// by role finds the element where it would look on a Mac. Roles with no sensible counterpart pass
// through as "AT-SPI:" + their name, so nothing is ever silently renamed to something wrong.
#include "platform/atspi/atspi_roles.h"

#include <atspi/atspi.h>

#include <array>
#include <mutex>

namespace tervain::atspi {
namespace {

struct Entry {
  AtspiRole role;
  const char* axRole;
  const char* axSubrole;
};

constexpr Entry kTable[] = {
    {ATSPI_ROLE_APPLICATION, "AXApplication", ""},
    {ATSPI_ROLE_FRAME, "AXWindow", "AXStandardWindow"},
    {ATSPI_ROLE_WINDOW, "AXWindow", ""},
    {ATSPI_ROLE_DIALOG, "AXWindow", "AXDialog"},
    {ATSPI_ROLE_ALERT, "AXWindow", "AXDialog"},
    {ATSPI_ROLE_FILE_CHOOSER, "AXGroup", ""},
    {ATSPI_ROLE_FONT_CHOOSER, "AXGroup", ""},
    {ATSPI_ROLE_COLOR_CHOOSER, "AXGroup", ""},
    {ATSPI_ROLE_PUSH_BUTTON, "AXButton", ""},
    {ATSPI_ROLE_PUSH_BUTTON_MENU, "AXMenuButton", ""},
    {ATSPI_ROLE_TOGGLE_BUTTON, "AXCheckBox", "AXToggle"},
    {ATSPI_ROLE_CHECK_BOX, "AXCheckBox", ""},
    {ATSPI_ROLE_RADIO_BUTTON, "AXRadioButton", ""},
    {ATSPI_ROLE_TEXT, "AXTextField", ""},
    {ATSPI_ROLE_ENTRY, "AXTextField", ""},
    {ATSPI_ROLE_PASSWORD_TEXT, "AXTextField", "AXSecureTextField"},
    {ATSPI_ROLE_EDITBAR, "AXTextField", ""},
    {ATSPI_ROLE_TERMINAL, "AXTextArea", ""},
    {ATSPI_ROLE_SLIDER, "AXSlider", ""},
    {ATSPI_ROLE_SPIN_BUTTON, "AXIncrementor", ""},
    {ATSPI_ROLE_COMBO_BOX, "AXComboBox", ""},
    {ATSPI_ROLE_AUTOCOMPLETE, "AXComboBox", ""},
    {ATSPI_ROLE_MENU_BAR, "AXMenuBar", ""},
    {ATSPI_ROLE_MENU, "AXMenu", ""},
    {ATSPI_ROLE_POPUP_MENU, "AXMenu", ""},
    {ATSPI_ROLE_MENU_ITEM, "AXMenuItem", ""},
    {ATSPI_ROLE_CHECK_MENU_ITEM, "AXMenuItem", ""},
    {ATSPI_ROLE_RADIO_MENU_ITEM, "AXMenuItem", ""},
    {ATSPI_ROLE_TEAROFF_MENU_ITEM, "AXMenuItem", ""},
    {ATSPI_ROLE_PAGE_TAB_LIST, "AXTabGroup", ""},
    {ATSPI_ROLE_PAGE_TAB, "AXRadioButton", "AXTabButton"},
    {ATSPI_ROLE_TABLE, "AXTable", ""},
    {ATSPI_ROLE_TREE_TABLE, "AXOutline", ""},
    {ATSPI_ROLE_TREE, "AXOutline", ""},
    {ATSPI_ROLE_TABLE_ROW, "AXRow", ""},
    {ATSPI_ROLE_TREE_ITEM, "AXRow", "AXOutlineRow"},
    {ATSPI_ROLE_TABLE_CELL, "AXCell", ""},
    {ATSPI_ROLE_TABLE_COLUMN_HEADER, "AXButton", "AXSortButton"},
    {ATSPI_ROLE_COLUMN_HEADER, "AXButton", "AXSortButton"},
    {ATSPI_ROLE_TABLE_ROW_HEADER, "AXCell", ""},
    {ATSPI_ROLE_ROW_HEADER, "AXCell", ""},
    {ATSPI_ROLE_LIST, "AXList", ""},
    {ATSPI_ROLE_LIST_BOX, "AXList", ""},
    {ATSPI_ROLE_LIST_ITEM, "AXGroup", ""},
    {ATSPI_ROLE_LABEL, "AXStaticText", ""},
    {ATSPI_ROLE_STATIC, "AXStaticText", ""},
    {ATSPI_ROLE_ACCELERATOR_LABEL, "AXStaticText", ""},
    {ATSPI_ROLE_CAPTION, "AXStaticText", ""},
    {ATSPI_ROLE_PARAGRAPH, "AXStaticText", ""},
    {ATSPI_ROLE_HEADING, "AXHeading", ""},
    {ATSPI_ROLE_LINK, "AXLink", ""},
    {ATSPI_ROLE_IMAGE, "AXImage", ""},
    {ATSPI_ROLE_ICON, "AXImage", ""},
    {ATSPI_ROLE_DESKTOP_ICON, "AXImage", ""},
    {ATSPI_ROLE_IMAGE_MAP, "AXImage", ""},
    {ATSPI_ROLE_ANIMATION, "AXBusyIndicator", ""},
    {ATSPI_ROLE_PROGRESS_BAR, "AXProgressIndicator", ""},
    {ATSPI_ROLE_LEVEL_BAR, "AXLevelIndicator", ""},
    {ATSPI_ROLE_SCROLL_BAR, "AXScrollBar", ""},
    {ATSPI_ROLE_SCROLL_PANE, "AXScrollArea", ""},
    {ATSPI_ROLE_SPLIT_PANE, "AXSplitGroup", ""},
    {ATSPI_ROLE_SEPARATOR, "AXSplitter", ""},
    {ATSPI_ROLE_TOOL_BAR, "AXToolbar", ""},
    {ATSPI_ROLE_TOOL_TIP, "AXHelpTag", ""},
    {ATSPI_ROLE_RULER, "AXRuler", ""},
    {ATSPI_ROLE_DATE_EDITOR, "AXDateField", ""},
    {ATSPI_ROLE_CALENDAR, "AXGroup", ""},
    {ATSPI_ROLE_DOCUMENT_WEB, "AXWebArea", ""},
    // Containers: macOS has one generic container role.
    {ATSPI_ROLE_PANEL, "AXGroup", ""},
    {ATSPI_ROLE_FILLER, "AXGroup", ""},
    {ATSPI_ROLE_GROUPING, "AXGroup", ""},
    {ATSPI_ROLE_SECTION, "AXGroup", ""},
    {ATSPI_ROLE_FORM, "AXGroup", ""},
    {ATSPI_ROLE_VIEWPORT, "AXGroup", ""},
    {ATSPI_ROLE_STATUS_BAR, "AXGroup", ""},
    {ATSPI_ROLE_INFO_BAR, "AXGroup", ""},
    {ATSPI_ROLE_NOTIFICATION, "AXGroup", ""},
    {ATSPI_ROLE_INTERNAL_FRAME, "AXGroup", ""},
    {ATSPI_ROLE_ROOT_PANE, "AXGroup", ""},
    {ATSPI_ROLE_LAYERED_PANE, "AXGroup", ""},
    {ATSPI_ROLE_GLASS_PANE, "AXGroup", ""},
    {ATSPI_ROLE_OPTION_PANE, "AXGroup", ""},
    {ATSPI_ROLE_DIRECTORY_PANE, "AXGroup", ""},
    {ATSPI_ROLE_HTML_CONTAINER, "AXGroup", ""},
    {ATSPI_ROLE_DOCUMENT_FRAME, "AXGroup", ""},
    {ATSPI_ROLE_DOCUMENT_TEXT, "AXGroup", ""},
    {ATSPI_ROLE_EMBEDDED, "AXGroup", ""},
    {ATSPI_ROLE_CANVAS, "AXGroup", ""},
    {ATSPI_ROLE_DRAWING_AREA, "AXGroup", ""},
    {ATSPI_ROLE_HEADER, "AXGroup", ""},
    {ATSPI_ROLE_FOOTER, "AXGroup", ""},
    {ATSPI_ROLE_ARTICLE, "AXGroup", ""},
    {ATSPI_ROLE_LANDMARK, "AXGroup", ""},
    {ATSPI_ROLE_BLOCK_QUOTE, "AXGroup", ""},
    {ATSPI_ROLE_UNKNOWN, "AXUnknown", ""},
};

constexpr std::size_t kRoleCount = ATSPI_ROLE_LAST_DEFINED;

const std::array<const Entry*, kRoleCount>& table() {
  static const std::array<const Entry*, kRoleCount> byRole = [] {
    std::array<const Entry*, kRoleCount> out{};
    for (const Entry& entry : kTable) out[static_cast<std::size_t>(entry.role)] = &entry;
    return out;
  }();
  return byRole;
}

}  // namespace

std::string atspiRoleName(std::uint32_t atspiRole) {
  // libatspi's names, copied once: its lookup is not documented as safe across threads.
  static const std::array<std::string, kRoleCount> names = [] {
    std::array<std::string, kRoleCount> out;
    for (std::size_t i = 0; i < kRoleCount; ++i) {
      gchar* name = atspi_role_get_name(static_cast<AtspiRole>(i));
      out[i] = name != nullptr ? name : "unknown";
      g_free(name);
    }
    return out;
  }();
  return atspiRole < kRoleCount ? names[atspiRole] : "unknown";
}

bool hasAXRole(std::uint32_t atspiRole) {
  return atspiRole < kRoleCount && table()[atspiRole] != nullptr;
}

AXRoleNames axRoleNames(std::uint32_t atspiRole, bool multiLine) {
  if (!hasAXRole(atspiRole)) return {"AT-SPI:" + atspiRoleName(atspiRole), ""};
  const Entry& entry = *table()[atspiRole];
  if (multiLine && (entry.role == ATSPI_ROLE_TEXT || entry.role == ATSPI_ROLE_ENTRY)) {
    return {"AXTextArea", ""};
  }
  return {entry.axRole, entry.axSubrole};
}

}  // namespace tervain::atspi
