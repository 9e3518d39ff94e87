#include "platform/linux/WindowRelative.h"

#include <cmath>
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

std::optional<Point> surfaceOffset(const Rect& topExtents, bool topIsWindow,
                                   const std::string& title,
                                   const std::vector<XSurface>& surfaces) {
    const XSurface* best = nullptr;
    double bestScore = std::numeric_limits<double>::max();
    for (const auto& s : surfaces) {
        if (s.popup == topIsWindow) continue;
        const double mw = s.screen.size.width - topExtents.size.width;
        const double mh = s.screen.size.height - topExtents.size.height;
        if (mw < 0 || mh < 0 || mw > 2 * kMaxMargin || mh > 2 * kMaxMargin) continue;
        // A matching title outranks any margin; among equals, the focused window, then the
        // tightest fit.
        double score = mw + mh;
        if (topIsWindow && !title.empty() && s.title != title) score += 1e6;
        if (!s.focused) score += 0.5;
        if (score < bestScore) {
            bestScore = score;
            best = &s;
        }
    }
    if (!best) return std::nullopt;
    const double left = std::floor((best->screen.size.width - topExtents.size.width) / 2);
    const double top = std::floor((best->screen.size.height - topExtents.size.height) / 2);
    return Point(best->screen.origin.x + left - topExtents.origin.x,
                 best->screen.origin.y + top - topExtents.origin.y);
}

}  // namespace orv::linuxdesk
