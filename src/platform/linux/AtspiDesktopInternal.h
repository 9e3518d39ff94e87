#pragma once

// What the AT-SPI desktop's files share and nobody else needs.

#include <glib.h>

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/linux/AtspiDesktop.h"

namespace orv::linuxdesk::detail {

constexpr const char* kRegistryBus = "org.a11y.atspi.Registry";
// Nodes looked at when the Collection interface is missing and the tree is walked by hand.
constexpr int kFocusSearchLimit = 2000;
// And the time such a walk may take.
constexpr double kFocusSearchTime = 0.25;
// Items looked at for the focused one when a list, table or tree says it has focus (each may
// cost a round trip to the application).
constexpr int kItemSearchLimit = 200;
// How long a window activation may wait for its focus widget's focus-in (GTK sends it on a later
// turn of its loop, a few milliseconds after); a window with no focus widget waits this long.
constexpr double kFocusGrace = 0.1;
// How long after a focus-out the next focus-in is awaited before the focus counts as gone.
// Measured gaps: 2 to 77 ms (GTK 3 page and menu switches, terminals, GTK 4 popovers, Qt popups).
constexpr double kFocusTransit = 0.2;
// How long a new focus with no place yet (a GTK 3 popover's button, before the popover is laid
// out) is waited for, and how often it is asked again meanwhile. Measured: within 30 ms.
constexpr double kPlaceGrace = 0.1;
constexpr double kPlaceRetry = 0.02;
// GTK's second focus-in for a widget follows the first within a turn of its loop.
constexpr double kSecondAnnouncement = 0.1;

// Each notification and the AT-SPI events behind it (none: always listened to).
const std::unordered_map<std::string, std::vector<const char*>>& notificationEvents();

inline double monotonicSeconds() {
    return static_cast<double>(g_get_monotonic_time()) / 1e6;
}

enum class EventKind {
    Focused,
    Unfocused,
    ActiveDescendant,
    WindowActivate,
    ActiveState,  // state-changed:active: a window's activation where it is a top-level one
    WindowDeactivate,
    WindowCreate,
    ChildAdded,
    ChildRemoved,
    Defunct,
    Bounds,
    WindowReshaped,  // from the X server, not AT-SPI
    ValueChanged,
    SelectedText,
    NameChanged,
    SelectionChanged,
    Ignored,
};

}  // namespace orv::linuxdesk::detail

namespace orv::linuxdesk {

struct AtspiDesktop::Pending {
    detail::EventKind kind;
    AtspiElementRef source;
    AtspiElementRef other;
    double at = detail::monotonicSeconds();  // arrival
    int detail = -1;                          // a caret's offset; -1 for other events
};

struct AtspiDesktop::Delivery {
    std::weak_ptr<AtspiObserver> observer;
    const AtspiObserver* key = nullptr;
    AtspiElementRef element;
    std::string notification;
    void* refcon = nullptr;
    std::function<void()> action;  // workspace signals, in order with the notifications
};

}  // namespace orv::linuxdesk
