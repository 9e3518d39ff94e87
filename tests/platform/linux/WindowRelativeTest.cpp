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
    const auto offset = windowOffset(Rect(0, 0, 1332, 790), "GTK Widget Factory",
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
    auto about = windowOffset(Rect(0, 0, 400, 300), "About", surfaces);
    ASSERT_TRUE(about);
    EXPECT_EQ(*about, Point(305, 205));
    // ...and without one, the focused window wins.
    auto untitled = windowOffset(Rect(0, 0, 400, 300), "", surfaces);
    ASSERT_TRUE(untitled);
    EXPECT_EQ(*untitled, Point(705, 305));
    // A window smaller than the content, or far larger, is not its surface.
    EXPECT_FALSE(windowOffset(Rect(0, 0, 900, 700), "Main", surfaces));
    EXPECT_FALSE(windowOffset(Rect(0, 0, 40, 30), "", {window(Rect(0, 0, 600, 400), "")}));
    // Popups are never a window's surface.
    EXPECT_FALSE(windowOffset(Rect(0, 0, 120, 130), "", {popup(Rect(0, 0, 136, 144))}));
}

TEST(WindowRelativeTest, PopoverContentIsPlacedOnItsPopupSurface) {
    // A popover GTK reports at (400, 250) inside its window, 118x120, drawn on a popup 6 px
    // taller: the arrow's room lies on the side facing the button it hangs from.
    const Rect popover(400, 250, 118, 120);
    const std::vector<XSurface> below = {window(Rect(150, 110, 1342, 800), "Main", true),
                                         popup(Rect(570, 380, 118, 126))};
    // The button is above the popup: the room is at the popup's top.
    auto offset = popoverOffset(popover, Point(620, 360), below);
    ASSERT_TRUE(offset);
    EXPECT_EQ(Point(popover.origin.x + offset->x, popover.origin.y + offset->y), Point(570, 386));
    // Below it (a popover that opens upwards): the room is at the bottom, the popover at the top.
    offset = popoverOffset(popover, Point(620, 560), below);
    ASSERT_TRUE(offset);
    EXPECT_EQ(Point(popover.origin.x + offset->x, popover.origin.y + offset->y), Point(570, 380));
    // An item inside moves with it.
    EXPECT_EQ(Point(409 + offset->x, 259 + offset->y), Point(579, 389));
    // The topmost popup is the one shown last; no popup, or one too small, is no surface.
    const std::vector<XSurface> two = {popup(Rect(0, 0, 300, 300)), popup(Rect(40, 50, 118, 120))};
    offset = popoverOffset(popover, std::nullopt, two);
    ASSERT_TRUE(offset);
    EXPECT_EQ(Point(popover.origin.x + offset->x, popover.origin.y + offset->y), Point(40, 50));
    EXPECT_FALSE(popoverOffset(popover, std::nullopt, {window(Rect(0, 0, 130, 130), "")}));
    EXPECT_FALSE(popoverOffset(popover, std::nullopt, {popup(Rect(0, 0, 100, 100))}));
}

TEST(WindowRelativeTest, PopoversAreKnownByTheClassNameGtkGivesThem) {
    for (const char* n : {"GtkPopover", "GtkPopoverMenu", "GtkTreePopover", "GtkEmojiPopover"})
        EXPECT_TRUE(namesAPopover(n)) << n;
    for (const char* n : {"", "Popover", "GtkPopoverMenuBar", "GtkButton", "Gtk Popover",
                          "My GtkPopover"})
        EXPECT_FALSE(namesAPopover(n)) << n;
}

}  // namespace
}  // namespace orv::linuxdesk
