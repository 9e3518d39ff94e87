#pragma once

// Some toolkits answer "screen" extents relative to the window (or popup surface) the object is
// drawn in: GTK 4 on X11 does not know where its windows are. The X server does; this turns such
// numbers into X screen coordinates.

#include <optional>
#include <string>
#include <vector>

#include "Common/Geometry.h"

namespace orv::linuxdesk {

// An X window of the application as the X server knows it.
struct XSurface {
    unsigned long xid = 0;
    Rect screen;          // root-window coordinates of the window's own area
    bool popup = false;   // override-redirect (menus, popovers, dropdown lists)
    bool focused = false; // holds the X input focus
    std::string title;    // _NET_WM_NAME or WM_NAME; empty for popups
};

// Whether an application's toolkit answers window-relative extents, from the toolkit name and
// version on its accessible application object.
bool answersWindowRelative(const std::string& toolkit, const std::string& version);

// The offset to add to the window-relative extents of objects in a top-level window: `top` is
// what the toolkit answered for the window (whose parent is the application), `title` its
// accessible name. The X window is chosen among the non-popup `surfaces` by title, then focus,
// then size: its area is the window's widget plus client-side decoration margins, which are taken
// as even on opposite sides. Nothing when no X window fits.
std::optional<Point> windowOffset(const Rect& top, const std::string& title,
                                  const std::vector<XSurface>& surfaces);

// The offset for objects inside a popover (a menu, a dropdown's list). GTK 4 answers their
// extents through the widget tree, as if the popover lay where it reports it inside its window
// (`popover`, already in screen coordinates through `windowOffset`'s frame, is not applied here:
// pass what the toolkit answered), while it is drawn on a popup surface of its own: the topmost
// popup among `surfaces`. That surface holds the popover plus, for some, room for the arrow on
// the side facing the widget it hangs from (`anchorCentre`, screen coordinates), so the extra
// size lies before the popover only when the surface is below or right of that widget.
std::optional<Point> popoverOffset(const Rect& popover, std::optional<Point> anchorCentre,
                                   const std::vector<XSurface>& surfaces);

// GTK 4 names its generic accessibles after their class: a popover without the menu role shows
// itself so ("GtkPopover", "GtkTreePopover", "GtkPopoverMenu").
bool namesAPopover(const std::string& name);

}  // namespace orv::linuxdesk
