// Built only with the backend: without libatspi's headers there is nothing to test.
#if __has_include(<atspi/atspi.h>)
#include <atspi/atspi.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/linux/LinuxRoles.h"

namespace orv::linuxdesk {
namespace {

std::string role(int r, uint32_t hints = kHintNone) {
    return axRoleFor(r, hints).role;
}
std::string subrole(int r, uint32_t hints = kHintNone) {
    const char* s = axRoleFor(r, hints).subrole;
    return s ? s : "";
}

TEST(LinuxRoles, TextRolesDependOnLinesAndSecrecy) {
    EXPECT_EQ(role(ATSPI_ROLE_TEXT), "AXTextField");
    EXPECT_EQ(role(ATSPI_ROLE_TEXT, kHintMultiLine), "AXTextArea");
    EXPECT_EQ(role(ATSPI_ROLE_ENTRY, kHintMultiLine | kHintEditable), "AXTextArea");
    EXPECT_EQ(role(ATSPI_ROLE_PASSWORD_TEXT), "AXTextField");
    EXPECT_EQ(subrole(ATSPI_ROLE_PASSWORD_TEXT), "AXSecureTextField");
    EXPECT_EQ(subrole(ATSPI_ROLE_TEXT), "");
    // A choice list is not a field: no text cursor to follow in it.
    EXPECT_EQ(role(ATSPI_ROLE_COMBO_BOX), "AXPopUpButton");
    EXPECT_EQ(role(ATSPI_ROLE_COMBO_BOX, kHintEditable), "AXComboBox");
    EXPECT_EQ(role(ATSPI_ROLE_AUTOCOMPLETE), "AXComboBox");
    // A page's editable paragraph is a region whose caret the web area tracker follows.
    EXPECT_EQ(role(ATSPI_ROLE_PARAGRAPH), "AXStaticText");
    EXPECT_EQ(role(ATSPI_ROLE_PARAGRAPH, kHintEditable), "AXGroup");
    EXPECT_EQ(role(ATSPI_ROLE_HEADING, kHintEditable), "AXGroup");
}

TEST(LinuxRoles, WindowsAndContainers) {
    for (int r : {ATSPI_ROLE_FRAME, ATSPI_ROLE_DIALOG, ATSPI_ROLE_WINDOW}) {
        EXPECT_EQ(role(r), "AXWindow");
        EXPECT_TRUE(isWindowRole(r));
    }
    EXPECT_EQ(subrole(ATSPI_ROLE_DIALOG), "AXDialog");
    EXPECT_EQ(role(ATSPI_ROLE_PANEL), "AXGroup");
    EXPECT_EQ(role(ATSPI_ROLE_FILLER), "AXGroup");
    EXPECT_EQ(role(ATSPI_ROLE_SCROLL_PANE), "AXScrollArea");
    EXPECT_EQ(role(ATSPI_ROLE_DOCUMENT_WEB), "AXWebArea");
    EXPECT_EQ(role(ATSPI_ROLE_APPLICATION), "AXApplication");
    EXPECT_FALSE(isWindowRole(ATSPI_ROLE_PANEL));
}

TEST(LinuxRoles, EveryRoleHasAName) {
    for (int r = 0; r < ATSPI_ROLE_LAST_DEFINED + 5; ++r) {
        AXRoleNames n = axRoleFor(r, kHintNone);
        ASSERT_NE(n.role, nullptr);
        EXPECT_EQ(std::strncmp(n.role, "AX", 2), 0) << r;
    }
    EXPECT_EQ(role(-1), "AXUnknown");
}

}  // namespace
}  // namespace orv::linuxdesk

#endif  // __has_include(<atspi/atspi.h>)
