#include "platform/linux/LinuxRoles.h"

#include <atspi/atspi.h>

namespace orv::linuxdesk {

AXRoleNames axRoleFor(int atspiRole, uint32_t hints) {
    const bool multiLine = hints & kHintMultiLine;
    switch (static_cast<AtspiRole>(atspiRole)) {
        // Buttons and options.
        case ATSPI_ROLE_PUSH_BUTTON:
        case ATSPI_ROLE_PUSH_BUTTON_MENU:
            return {"AXButton", nullptr};
        case ATSPI_ROLE_TOGGLE_BUTTON:
            return {"AXCheckBox", "AXToggle"};
        case ATSPI_ROLE_CHECK_BOX:
            return {"AXCheckBox", nullptr};
        case ATSPI_ROLE_RADIO_BUTTON:
            return {"AXRadioButton", nullptr};
        case ATSPI_ROLE_COMBO_BOX:
            // Only a combo box one can type into has a text cursor; the others are pop-up
            // buttons (Qt's and GTK's choice lists, a web page's select).
            return {hints & kHintEditable ? "AXComboBox" : "AXPopUpButton", nullptr};
        case ATSPI_ROLE_LINK:
            return {"AXLink", nullptr};
        case ATSPI_ROLE_SLIDER:
        case ATSPI_ROLE_DIAL:
            return {"AXSlider", nullptr};
        case ATSPI_ROLE_SPIN_BUTTON:
            return {"AXIncrementor", nullptr};
        case ATSPI_ROLE_PROGRESS_BAR:
        case ATSPI_ROLE_LEVEL_BAR:
            return {"AXProgressIndicator", nullptr};

        // Text. A plain text role is a field or an area by its lines.
        case ATSPI_ROLE_PASSWORD_TEXT:
            return {"AXTextField", "AXSecureTextField"};
        case ATSPI_ROLE_ENTRY:
            return {multiLine ? "AXTextArea" : "AXTextField", nullptr};
        case ATSPI_ROLE_TEXT:
        case ATSPI_ROLE_TERMINAL:
        case ATSPI_ROLE_EDITBAR:
            return {multiLine ? "AXTextArea" : "AXTextField", nullptr};
        case ATSPI_ROLE_AUTOCOMPLETE:
            return {"AXComboBox", nullptr};
        case ATSPI_ROLE_LABEL:
        case ATSPI_ROLE_STATIC:
        case ATSPI_ROLE_ACCELERATOR_LABEL:
        case ATSPI_ROLE_CAPTION:
            return {"AXStaticText", nullptr};
        case ATSPI_ROLE_PARAGRAPH:
        case ATSPI_ROLE_HEADING:
            // An editable one is a page's editing region, where the caret is followed.
            return {hints & kHintEditable ? "AXGroup" : "AXStaticText", nullptr};

        // Windows.
        case ATSPI_ROLE_FRAME:
        case ATSPI_ROLE_WINDOW:
            return {"AXWindow", "AXStandardWindow"};
        case ATSPI_ROLE_DIALOG:
        case ATSPI_ROLE_FILE_CHOOSER:
        case ATSPI_ROLE_COLOR_CHOOSER:
        case ATSPI_ROLE_FONT_CHOOSER:
            return {"AXWindow", "AXDialog"};
        case ATSPI_ROLE_ALERT:
        case ATSPI_ROLE_NOTIFICATION:
            return {"AXWindow", "AXSystemDialog"};
        case ATSPI_ROLE_TOOL_TIP:
            return {"AXWindow", "AXHelpTag"};
        case ATSPI_ROLE_APPLICATION:
            return {"AXApplication", nullptr};

        // Collections.
        case ATSPI_ROLE_LIST:
        case ATSPI_ROLE_LIST_BOX:
            return {"AXList", nullptr};
        case ATSPI_ROLE_LIST_ITEM:
            return {"AXStaticText", nullptr};
        case ATSPI_ROLE_TABLE:
            return {"AXTable", nullptr};
        case ATSPI_ROLE_TREE:
        case ATSPI_ROLE_TREE_TABLE:
            return {"AXOutline", nullptr};
        case ATSPI_ROLE_TABLE_ROW:
        case ATSPI_ROLE_TREE_ITEM:
            return {"AXRow", nullptr};
        case ATSPI_ROLE_TABLE_CELL:
            return {"AXCell", nullptr};
        case ATSPI_ROLE_COLUMN_HEADER:
        case ATSPI_ROLE_ROW_HEADER:
        case ATSPI_ROLE_TABLE_COLUMN_HEADER:
        case ATSPI_ROLE_TABLE_ROW_HEADER:
            return {"AXCell", nullptr};
        case ATSPI_ROLE_PAGE_TAB_LIST:
            return {"AXTabGroup", nullptr};
        case ATSPI_ROLE_PAGE_TAB:
            return {"AXRadioButton", "AXTabButton"};

        // Menus.
        case ATSPI_ROLE_MENU_BAR:
            return {"AXMenuBar", nullptr};
        case ATSPI_ROLE_MENU:
        case ATSPI_ROLE_POPUP_MENU:
            return {"AXMenu", nullptr};
        case ATSPI_ROLE_MENU_ITEM:
        case ATSPI_ROLE_CHECK_MENU_ITEM:
        case ATSPI_ROLE_RADIO_MENU_ITEM:
        case ATSPI_ROLE_TEAROFF_MENU_ITEM:
            return {"AXMenuItem", nullptr};

        // Scrolling and structure.
        case ATSPI_ROLE_SCROLL_PANE:
            return {"AXScrollArea", nullptr};
        case ATSPI_ROLE_SCROLL_BAR:
            return {"AXScrollBar", nullptr};
        case ATSPI_ROLE_SPLIT_PANE:
            return {"AXSplitGroup", nullptr};
        case ATSPI_ROLE_SEPARATOR:
            return {"AXSplitter", nullptr};
        case ATSPI_ROLE_TOOL_BAR:
            return {"AXToolbar", nullptr};
        case ATSPI_ROLE_DOCUMENT_WEB:
        case ATSPI_ROLE_DOCUMENT_FRAME:
        case ATSPI_ROLE_HTML_CONTAINER:
            return {"AXWebArea", nullptr};
        case ATSPI_ROLE_DOCUMENT_TEXT:
        case ATSPI_ROLE_DOCUMENT_EMAIL:
            return {"AXTextArea", nullptr};
        case ATSPI_ROLE_IMAGE:
        case ATSPI_ROLE_ICON:
        case ATSPI_ROLE_DESKTOP_ICON:
        case ATSPI_ROLE_ANIMATION:
            return {"AXImage", nullptr};
        case ATSPI_ROLE_STATUS_BAR:
        case ATSPI_ROLE_INFO_BAR:
            return {"AXGroup", nullptr};
        case ATSPI_ROLE_PANEL:
        case ATSPI_ROLE_FILLER:
        case ATSPI_ROLE_SECTION:
        case ATSPI_ROLE_GROUPING:
        case ATSPI_ROLE_FORM:
        case ATSPI_ROLE_ROOT_PANE:
        case ATSPI_ROLE_LAYERED_PANE:
        case ATSPI_ROLE_GLASS_PANE:
        case ATSPI_ROLE_OPTION_PANE:
        case ATSPI_ROLE_INTERNAL_FRAME:
        case ATSPI_ROLE_VIEWPORT:
        case ATSPI_ROLE_HEADER:
        case ATSPI_ROLE_FOOTER:
        case ATSPI_ROLE_ARTICLE:
        case ATSPI_ROLE_LANDMARK:
        case ATSPI_ROLE_BLOCK_QUOTE:
        case ATSPI_ROLE_EMBEDDED:
        case ATSPI_ROLE_CANVAS:
        case ATSPI_ROLE_DRAWING_AREA:
        case ATSPI_ROLE_CALENDAR:
        case ATSPI_ROLE_DATE_EDITOR:
        case ATSPI_ROLE_DIRECTORY_PANE:
        case ATSPI_ROLE_CHART:
        case ATSPI_ROLE_IMAGE_MAP:
        case ATSPI_ROLE_TITLE_BAR:
            return {"AXGroup", nullptr};
        case ATSPI_ROLE_DESKTOP_FRAME:
            return {"AXGroup", "AXDesktop"};
        default:
            return {"AXUnknown", nullptr};
    }
}

bool isWindowRole(int r) {
    switch (static_cast<AtspiRole>(r)) {
        case ATSPI_ROLE_FRAME:
        case ATSPI_ROLE_WINDOW:
        case ATSPI_ROLE_DIALOG:
        case ATSPI_ROLE_FILE_CHOOSER:
        case ATSPI_ROLE_COLOR_CHOOSER:
        case ATSPI_ROLE_FONT_CHOOSER:
        case ATSPI_ROLE_ALERT:
        case ATSPI_ROLE_NOTIFICATION:
        case ATSPI_ROLE_TOOL_TIP:
            return true;
        default:
            return false;
    }
}

bool isTextRole(int r) {
    switch (static_cast<AtspiRole>(r)) {
        case ATSPI_ROLE_TEXT:
        case ATSPI_ROLE_ENTRY:
        case ATSPI_ROLE_PASSWORD_TEXT:
        case ATSPI_ROLE_TERMINAL:
        case ATSPI_ROLE_EDITBAR:
        case ATSPI_ROLE_DOCUMENT_TEXT:
        case ATSPI_ROLE_DOCUMENT_EMAIL:
            return true;
        default:
            return false;
    }
}

bool isToggleRole(int r) {
    switch (static_cast<AtspiRole>(r)) {
        case ATSPI_ROLE_CHECK_BOX:
        case ATSPI_ROLE_RADIO_BUTTON:
        case ATSPI_ROLE_TOGGLE_BUTTON:
        case ATSPI_ROLE_CHECK_MENU_ITEM:
        case ATSPI_ROLE_RADIO_MENU_ITEM:
        case ATSPI_ROLE_PAGE_TAB:
            return true;
        default:
            return false;
    }
}

bool isRangeRole(int r) {
    switch (static_cast<AtspiRole>(r)) {
        case ATSPI_ROLE_SLIDER:
        case ATSPI_ROLE_DIAL:
        case ATSPI_ROLE_SCROLL_BAR:
        case ATSPI_ROLE_SPIN_BUTTON:
        case ATSPI_ROLE_PROGRESS_BAR:
        case ATSPI_ROLE_LEVEL_BAR:
            return true;
        default:
            return false;
    }
}

bool isStaticTextRole(int r) {
    switch (static_cast<AtspiRole>(r)) {
        case ATSPI_ROLE_LABEL:
        case ATSPI_ROLE_STATIC:
        case ATSPI_ROLE_ACCELERATOR_LABEL:
        case ATSPI_ROLE_CAPTION:
        case ATSPI_ROLE_PARAGRAPH:
        case ATSPI_ROLE_HEADING:
        case ATSPI_ROLE_LIST_ITEM:
            return true;
        default:
            return false;
    }
}

}  // namespace orv::linuxdesk
