#include <gtest/gtest.h>

#include "platform/linux/WindowRelative.h"

namespace orv::linuxdesk {
namespace {

XSurface window(Rect r, std::string title, bool focused = false) {
    XSurface s;
    s.screen = r;
    s.title = std::move(title);
    s.focused = focused;
    return s;
}

XSurface popup(Rect r) {
    XSurface s;
    s.screen = r;
    s.popup = true;
    return s;
}

TEST(WindowRelativeTest, OnlyToolkitsThatDoNotKnowTheirWindowsAreConverted) {
    EXPECT_TRUE(answersWindowRelative("GTK", "4.8.3"));
    EXPECT_TRUE(answersWindowRelative("GTK", "4.16.0"));
    EXPECT_FALSE(answersWindowRelative("GTK", "3.24.38"));
    EXPECT_FALSE(answersWindowRelative("gail", "3.24"));
    EXPECT_FALSE(answersWindowRelative("Qt", "5.15.8"));
    EXPECT_FALSE(answersWindowRelative("Gecko", "115.0"));
    EXPECT_FALSE(answersWindowRelative("GTK", ""));
}

TEST(WindowRelativeTest, WindowContentStartsInsideItsDecorationMargins) {
    // As measured: an X window of 1342x800 at (150, 110) whose frame reports (0, 0, 1332, 790):
    // the entry GTK reports at (19, 233) is drawn at (174, 348).
    const auto offset = surfaceOffset(Rect(0, 0, 1332, 790), true, "GTK Widget Factory",
                                      {window(Rect(150, 110, 1342, 800), "GTK Widget Factory")});
    ASSERT_TRUE(offset);
    EXPECT_EQ(Point(offset->x + 19, offset->y + 233), Point(174, 348));
}

TEST(WindowRelativeTest, TheWindowIsChosenByTitleThenFocusThenFit) {
    const std::vector<XSurface> surfaces = {
        window(Rect(10, 10, 600, 400), "Main"),
        window(Rect(300, 200, 410, 310), "About", false),
        window(Rect(700, 300, 410, 310), "Preferences", true),
    };
    // A dialog of the same size as another is told apart by its title...
    auto about = surfaceOffset(Rect(0, 0, 400, 300), true, "About", surfaces);
    ASSERT_TRUE(about);
    EXPECT_EQ(*about, Point(305, 205));
    // ...and without one, the focused window wins.
    auto untitled = surfaceOffset(Rect(0, 0, 400, 300), true, "", surfaces);
    ASSERT_TRUE(untitled);
    EXPECT_EQ(*untitled, Point(705, 305));
    // A window smaller than the content, or far larger, is not its surface.
    EXPECT_FALSE(surfaceOffset(Rect(0, 0, 900, 700), true, "Main", surfaces));
    EXPECT_FALSE(surfaceOffset(Rect(0, 0, 40, 30), true, "", {window(Rect(0, 0, 600, 400), "")}));
}

TEST(WindowRelativeTest, PopoverContentIsPlacedOnItsPopupSurface) {
    // As measured: a dropdown's list reported at (432, 246, 118, 120), relative to the main
    // window through the button it hangs from, drawn on a popup of 136x144 at (575, 379).
    const std::vector<XSurface> surfaces = {
        window(Rect(150, 110, 1342, 800), "GTK Widget Factory", true),
        popup(Rect(575, 379, 136, 144)),
    };
    const auto offset = surfaceOffset(Rect(432, 246, 118, 120), false, "", surfaces);
    ASSERT_TRUE(offset);
    // Its first row (441, 246, 100, 30) lies on the popup, where the row is drawn.
    const Rect row(441 + offset->x, 246 + offset->y, 100, 30);
    EXPECT_TRUE(Rect(575, 379, 136, 144).contains(row.origin));
    EXPECT_NEAR(row.origin.y, 393, 2);
    // Popover content never lands on a top-level window, nor a window on a popup.
    EXPECT_FALSE(surfaceOffset(Rect(432, 246, 118, 120), false, "",
                               {window(Rect(0, 0, 130, 130), "")}));
    EXPECT_FALSE(surfaceOffset(Rect(0, 0, 120, 130), true, "", {popup(Rect(0, 0, 136, 144))}));
}

}  // namespace
}  // namespace orv::linuxdesk
