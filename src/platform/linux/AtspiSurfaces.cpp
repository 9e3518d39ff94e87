// Extents of toolkits that answer relative to their own windows, made screen coordinates.

#include <atspi/atspi.h>

#include <vector>

#include "platform/linux/AtspiAccessibility.h"

namespace orv::linuxdesk {

namespace {

constexpr int kMaxDepth = 64;

std::string takeString(gchar* s) {
    std::string out = s ? s : "";
    g_free(s);
    return out;
}

bool isPopover(AtspiAccessible* acc) {
    const AtspiRole role = atspi_accessible_get_role(acc, nullptr);
    if (role == ATSPI_ROLE_MENU || role == ATSPI_ROLE_POPUP_MENU) return true;
    return namesAPopover(takeString(atspi_accessible_get_name(acc, nullptr)));
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

    // The object and its ancestors below the application, from libatspi's cached parents.
    std::vector<AtspiAccessible*> chain{static_cast<AtspiAccessible*>(g_object_ref(acc))};
    for (int depth = 0; depth < kMaxDepth; ++depth) {
        AtspiAccessible* parent = atspi_accessible_get_parent(chain.back(), nullptr);
        if (!parent) break;
        if (pathOf(parent) == kRootPath) {
            g_object_unref(parent);
            break;
        }
        chain.push_back(parent);
    }
    // The nearest popover below the window draws on a surface of its own.
    size_t popover = chain.size();
    for (size_t i = 0; i + 1 < chain.size(); ++i)
        if (isPopover(chain[i])) {
            popover = i;
            break;
        }
    AtspiAccessible* key = popover < chain.size() ? chain[popover] : chain.back();

    if (currentTurn() != offsetsTurn_) {
        offsets_.clear();
        offsetsTurn_ = currentTurn();
    }
    const std::string keyName = busNameOf(key) + pathOf(key);
    std::optional<Point> offset;
    if (auto it = offsets_.find(keyName); it != offsets_.end()) {
        offset = it->second;
    } else {
        const std::vector<XSurface> surfaces = surfacesOf(app->pid);
        AtspiAccessible* top = chain.back();
        Rect topExtents;
        std::optional<Point> window;
        if (rawExtents(top, &topExtents) == kAXErrorSuccess)
            window = windowOffset(topExtents,
                                  takeString(atspi_accessible_get_name(top, nullptr)), surfaces);
        offset = window;
        Rect popoverExtents;
        if (popover < chain.size() &&
            rawExtents(chain[popover], &popoverExtents) == kAXErrorSuccess) {
            // The widget the popover hangs from is in its window, where `window` places it.
            std::optional<Point> anchor;
            Rect anchorExtents;
            if (window && rawExtents(chain[popover + 1], &anchorExtents) == kAXErrorSuccess)
                anchor = Point(anchorExtents.midX() + window->x, anchorExtents.midY() + window->y);
            offset = popoverOffset(popoverExtents, anchor, surfaces);
        }
        offsets_[keyName] = offset;
    }
    for (AtspiAccessible* a : chain) g_object_unref(a);
    return offset;
}

}  // namespace orv::linuxdesk
