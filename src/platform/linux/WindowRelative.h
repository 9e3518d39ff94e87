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

// The offset to add to the window-relative extents of objects below `top`, the topmost ancestor
// of an object (a window whose parent is the application, or an object with no parent: GTK 4
// leaves popovers' contents without one). `topExtents` is what the toolkit answered for `top`;
// `topIsWindow` tells the two kinds apart, `title` is the window's accessible name. The surface is
// chosen among `surfaces` by kind, title and size: a toolkit's surface is its widget plus
// client-side decoration margins, which are taken as even on opposite sides. Nothing when no
// surface fits.
std::optional<Point> surfaceOffset(const Rect& topExtents, bool topIsWindow,
                                   const std::string& title,
                                   const std::vector<XSurface>& surfaces);

}  // namespace orv::linuxdesk
