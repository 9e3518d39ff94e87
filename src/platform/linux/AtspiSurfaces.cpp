// Extents of toolkits that answer relative to their own windows, made screen coordinates.

#include <atspi/atspi.h>

#include <cstring>

#include "platform/linux/AtspiAccessibility.h"

namespace orv::linuxdesk {

namespace {

constexpr const char* kRootPath = "/org/a11y/atspi/accessible/root";
constexpr int kMaxDepth = 64;

std::string takeString(gchar* s) {
    std::string out = s ? s : "";
    g_free(s);
    return out;
}

}  // namespace

std::optional<Point> AtspiAccessibility::surfaceOffset(AtspiAccessible* acc) {
    AppInfo* app = acc ? desktop_->appForBus(busNameOf(acc)) : nullptr;
    if (!app || !app->root) return Point{};
    if (app->windowRelative < 0) {
        // Asked once per application: the toolkit does not change while it runs.
        AtspiAccessible* root = app->root->accessible();
        const std::string toolkit = takeString(atspi_accessible_get_toolkit_name(root, nullptr));
        const std::string version =
            takeString(atspi_accessible_get_toolkit_version(root, nullptr));
        app->windowRelative = answersWindowRelative(toolkit, version) ? 1 : 0;
    }
    if (app->windowRelative == 0 || !surfacesOf) return Point{};

    // The topmost ancestor below the application: a window, or the parentless content of a
    // popover. Parents come from libatspi's cache.
    AtspiAccessible* top = static_cast<AtspiAccessible*>(g_object_ref(acc));
    bool topIsWindow = false;
    for (int depth = 0; depth < kMaxDepth; ++depth) {
        AtspiAccessible* parent = atspi_accessible_get_parent(top, nullptr);
        if (!parent) break;
        if (pathOf(parent) == kRootPath) {
            g_object_unref(parent);
            topIsWindow = true;
            break;
        }
        g_object_unref(top);
        top = parent;
    }
    if (currentTurn() != offsetsTurn_) {
        offsets_.clear();
        offsetsTurn_ = currentTurn();
    }
    const std::string key = busNameOf(top) + pathOf(top);
    if (auto it = offsets_.find(key); it != offsets_.end()) {
        g_object_unref(top);
        return it->second;
    }
    std::optional<Point> offset;
    Rect topExtents;
    if (rawExtents(top, &topExtents) == kAXErrorSuccess) {
        const std::string title =
            topIsWindow ? takeString(atspi_accessible_get_name(top, nullptr)) : std::string();
        offset = orv::linuxdesk::surfaceOffset(topExtents, topIsWindow, title,
                                               surfacesOf(app->pid));
    }
    g_object_unref(top);
    offsets_[key] = offset;
    return offset;
}

}  // namespace orv::linuxdesk
