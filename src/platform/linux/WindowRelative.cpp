#include "platform/linux/WindowRelative.h"

#include <cctype>
#include <cmath>
#include <cstring>
#include <cstdlib>
#include <limits>

namespace orv::linuxdesk {

namespace {
// Client-side decorations (shadows, resize borders) larger than this are not a margin: the
// surface belongs to something else.
constexpr double kMaxMargin = 96;
}  // namespace

bool answersWindowRelative(const std::string& toolkit, const std::string& version) {
    if (toolkit != "GTK" && toolkit != "gtk") return false;
    // GTK 3 (through ATK) knows where its windows are; GTK 4 on X11 answers relative to the
    // surface, whatever coordinate type is asked for.
    return std::atoi(version.c_str()) >= 4;
}

std::optional<Point> windowOffset(const Rect& top, const std::string& title,
                                  const std::vector<XSurface>& surfaces) {
    const XSurface* best = nullptr;
    double bestScore = std::numeric_limits<double>::max();
    for (const auto& s : surfaces) {
        if (s.popup) continue;
        const double mw = s.screen.size.width - top.size.width;
        const double mh = s.screen.size.height - top.size.height;
        if (mw < 0 || mh < 0 || mw > 2 * kMaxMargin || mh > 2 * kMaxMargin) continue;
        // A matching title outranks any margin; among equals, the focused window, then the
        // tightest fit.
        double score = mw + mh;
        if (!title.empty() && s.title != title) score += 1e6;
        if (!s.focused) score += 0.5;
        if (score < bestScore) {
            bestScore = score;
            best = &s;
        }
    }
    if (!best) return std::nullopt;
    const double left = std::floor((best->screen.size.width - top.size.width) / 2);
    const double above = std::floor((best->screen.size.height - top.size.height) / 2);
    return Point(best->screen.origin.x + left - top.origin.x,
                 best->screen.origin.y + above - top.origin.y);
}

std::optional<Point> popoverOffset(const Rect& popover, std::optional<Point> anchorCentre,
                                   const std::vector<XSurface>& surfaces) {
    const XSurface* surface = nullptr;
    for (const auto& s : surfaces)
        if (s.popup) surface = &s;  // stacking order: the last is on top
    if (!surface) return std::nullopt;
    const Rect& g = surface->screen;
    const double extraW = g.size.width - popover.size.width;
    const double extraH = g.size.height - popover.size.height;
    if (extraW < 0 || extraH < 0 || extraW > 2 * kMaxMargin || extraH > 2 * kMaxMargin)
        return std::nullopt;
    const Point anchor = anchorCentre.value_or(g.origin);
    const double dx = extraW > 0 && g.midX() > anchor.x ? extraW : 0;
    const double dy = extraH > 0 && g.midY() > anchor.y ? extraH : 0;
    return Point(g.origin.x + dx - popover.origin.x, g.origin.y + dy - popover.origin.y);
}

bool namesAPopover(const std::string& name) {
    if (name.size() < 10 || name.compare(0, 3, "Gtk") != 0) return false;
    for (char c : name)
        if (!std::isalnum(static_cast<unsigned char>(c))) return false;
    const auto ends = [&](const char* tail) {
        const size_t n = std::strlen(tail);
        return name.size() >= n && name.compare(name.size() - n, n, tail) == 0;
    };
    return ends("Popover") || ends("PopoverMenu");
}

}  // namespace orv::linuxdesk
