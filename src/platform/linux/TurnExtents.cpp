#include "platform/linux/TurnExtents.h"

#include <atspi/atspi.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "platform/linux/AtspiElement.h"

namespace orv::linuxdesk {

namespace {

// Ancestors asked for at most: a focus is rarely deeper below its window.
constexpr int kChain = 8;

uint64_t g_turns = 0;

// A source that is never ready: its prepare runs once per iteration of the context, first of
// all sources, which makes it the turn counter.
gboolean prepareTurn(GSource*, gint* timeout) {
    ++g_turns;
    *timeout = -1;
    return FALSE;
}
gboolean checkTurn(GSource*) {
    return FALSE;
}
gboolean dispatchTurn(GSource*, GSourceFunc, gpointer) {
    return G_SOURCE_CONTINUE;
}
GSourceFuncs kTurnFuncs = {prepareTurn, checkTurn, dispatchTurn, nullptr, nullptr, nullptr};

AtspiAccessible* knownParent(AtspiAccessible* acc) {
    return (acc->cached_properties & ATSPI_CACHE_PARENT) ? acc->accessible_parent : nullptr;
}

bool isApplicationRoot(AtspiAccessible* acc) {
    const char* path = ATSPI_OBJECT(acc)->path;
    return path && std::strcmp(path, kRootPath) == 0;
}

// Scrolling moves what is inside a scrolled view and says nothing about it; an ancestry libatspi
// does not know to the application counts as inside one.
bool mayBeScrolled(AtspiAccessible* acc) {
    for (int depth = 0; acc && depth < 64; ++depth, acc = knownParent(acc)) {
        if (isApplicationRoot(acc)) return false;
        if (!(acc->cached_properties & ATSPI_CACHE_ROLE)) return true;
        if (acc->role == ATSPI_ROLE_SCROLL_PANE || acc->role == ATSPI_ROLE_VIEWPORT) return true;
    }
    return true;
}

}  // namespace

DBusPendingCall* sendGetExtents(AtspiAccessible* acc, int timeoutMs) {
    AtspiObject* obj = ATSPI_OBJECT(acc);
    if (!obj->app || !obj->app->bus || !obj->path) return nullptr;
    DBusMessage* m = dbus_message_new_method_call(obj->app->bus_name, obj->path,
                                                  "org.a11y.atspi.Component", "GetExtents");
    if (!m) return nullptr;
    dbus_uint32_t coords = ATSPI_COORD_TYPE_SCREEN;
    dbus_message_append_args(m, DBUS_TYPE_UINT32, &coords, DBUS_TYPE_INVALID);
    DBusPendingCall* call = nullptr;
    if (!dbus_connection_send_with_reply(obj->app->bus, m, &call, timeoutMs)) call = nullptr;
    dbus_message_unref(m);
    return call;
}

bool extentsOfReply(DBusMessage* reply, Rect* out) {
    if (!reply || dbus_message_get_type(reply) != DBUS_MESSAGE_TYPE_METHOD_RETURN) return false;
    DBusMessageIter it, rect;
    dbus_int32_t v[4] = {0, 0, -1, -1};
    if (dbus_message_iter_init(reply, &it) &&
        dbus_message_iter_get_arg_type(&it) == DBUS_TYPE_STRUCT) {
        dbus_message_iter_recurse(&it, &rect);
        for (int i = 0; i < 4 && dbus_message_iter_get_arg_type(&rect) == DBUS_TYPE_INT32;
             ++i, dbus_message_iter_next(&rect))
            dbus_message_iter_get_basic(&rect, &v[i]);
    }
    if (v[2] < 0 || v[3] < 0 || v[0] == INT_MIN || v[1] == INT_MIN) return false;
    *out = Rect(v[0], v[1], v[2], v[3]);
    return true;
}

uint64_t currentTurn() {
    static const bool attached = [] {
        GSource* s = g_source_new(&kTurnFuncs, sizeof(GSource));
        g_source_set_priority(s, G_PRIORITY_HIGH);
        g_source_set_name(s, "orv turn counter");
        g_source_attach(s, nullptr);
        g_source_unref(s);
        return true;
    }();
    (void)attached;
    return g_turns;
}

TurnExtents::TurnExtents() {
    turn_ = currentTurn();
}

TurnExtents::~TurnExtents() {
    cancel();
    for (auto& e : entries_) g_object_unref(e.acc);
    forgetSteady({});
}

void TurnExtents::enterCurrentTurn() {
    const uint64_t now = currentTurn();
    if (now == turn_) return;
    turn_ = now;
    for (auto& e : entries_) g_object_unref(e.acc);
    entries_.clear();
    timedOut_.clear();
    unplaced_.clear();
}

bool TurnExtents::find(AtspiAccessible* acc, Rect* out) {
    enterCurrentTurn();
    for (const auto& e : entries_) {
        if (e.acc == acc) {
            *out = e.x11;
            return true;
        }
    }
    if (const Rect* kept = findSteady(acc)) {
        *out = *kept;
        ++steadyHits_;
        return true;
    }
    return false;
}

void TurnExtents::syncSteady() {
    const uint64_t now = currentTurn();
    if (steadySyncedTurn_ == now) return;
    steadySyncedTurn_ = now;
    const uint64_t generation = topLevelGeneration ? topLevelGeneration() : 0;
    if (generation != steadyGeneration_) forgetSteady({});
    steadyGeneration_ = generation;
}

const Rect* TurnExtents::findSteady(AtspiAccessible* acc) {
    if (steady_.empty()) return nullptr;
    syncSteady();
    for (const auto& s : steady_)
        if (s.acc == acc) return &s.x11;
    return nullptr;
}

void TurnExtents::keepSteady(AtspiAccessible* acc, const Rect& x11) {
    if (!hearsMoves || !hearsMoves(acc) || mayBeScrolled(acc)) return;
    // Containers and windows of the focuses of a session: a handful; past a bound, start over.
    constexpr size_t kSteadyKept = 64;
    if (steady_.size() >= kSteadyKept) forgetSteady({});
    steady_.push_back(
        Steady{static_cast<AtspiAccessible*>(g_object_ref(acc)), busNameOf(acc), x11});
}

void TurnExtents::forgetSteady(const std::string& bus) {
    ++forgets_;
    auto gone = std::remove_if(steady_.begin(), steady_.end(), [&bus](const Steady& s) {
        if (!bus.empty() && s.bus != bus) return false;
        g_object_unref(s.acc);
        return true;
    });
    steady_.erase(gone, steady_.end());
}

void TurnExtents::remember(AtspiAccessible* acc, const Rect& x11) {
    enterCurrentTurn();
    entries_.push_back(Entry{static_cast<AtspiAccessible*>(g_object_ref(acc)), x11});
}

bool TurnExtents::unplaced(AtspiAccessible* acc) {
    enterCurrentTurn();
    return std::find(unplaced_.begin(), unplaced_.end(), acc) != unplaced_.end();
}

bool TurnExtents::timedOut(AtspiAccessible* acc) {
    enterCurrentTurn();
    return !timedOut_.empty() &&
           std::find(timedOut_.begin(), timedOut_.end(), busNameOf(acc)) != timedOut_.end();
}

void TurnExtents::noAnswerFrom(AtspiAccessible* acc) {
    enterCurrentTurn();
    std::string bus = busNameOf(acc);
    forgetSteady(bus);
    if (std::find(timedOut_.begin(), timedOut_.end(), bus) == timedOut_.end())
        timedOut_.push_back(std::move(bus));
}

void TurnExtents::request(AtspiAccessible* acc, int timeoutMs) {
    Rect known;
    // The focus itself is always asked afresh, even where it was kept as another's ancestor.
    if (acc) {
        auto kept = std::find_if(steady_.begin(), steady_.end(),
                                 [acc](const Steady& s) { return s.acc == acc; });
        if (kept != steady_.end()) {
            g_object_unref(kept->acc);
            steady_.erase(kept);
        }
    }
    // A top-level change the X server has told of by now forgets what is kept, and so counts
    // against the answers asked for here.
    syncSteady();
    for (int depth = 0; acc && depth < kChain; ++depth, acc = knownParent(acc)) {
        AtspiObject* obj = ATSPI_OBJECT(acc);
        if (!obj->app || !obj->app->bus || !obj->path || std::strcmp(obj->path, kRootPath) == 0)
            break;
        const bool asked = std::any_of(asked_.begin(), asked_.end(),
                                       [acc](const Asked& a) { return a.acc == acc; });
        if (asked || find(acc, &known)) continue;
        DBusPendingCall* call = sendGetExtents(acc, timeoutMs);
        if (!call) break;
        asked_.push_back(
            Asked{static_cast<AtspiAccessible*>(g_object_ref(acc)), call, depth > 0, forgets_});
        ++requests_;
    }
}

void TurnExtents::collect() {
    std::vector<Asked> asked;
    asked.swap(asked_);
    syncSteady();
    for (const Asked& q : asked) {
        dbus_pending_call_block(q.call);
        DBusMessage* reply = dbus_pending_call_steal_reply(q.call);
        dbus_pending_call_unref(q.call);
        Rect r;
        if (reply && dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN) {
            // Unknown (unrealized widgets) and malformed answers are left to the ordinary read.
            if (extentsOfReply(reply, &r)) {
                remember(q.acc, r);
                // An answer given before something moved is not kept past this turn: the
                // answers come on the application's own connection, its word of the move
                // through the bus, in no set order.
                if (q.ancestor && q.forgets == forgets_) keepSteady(q.acc, r);
            } else {
                enterCurrentTurn();
                unplaced_.push_back(q.acc);
            }
        } else if (reply && dbus_message_get_error_name(reply) &&
                   std::strcmp(dbus_message_get_error_name(reply), DBUS_ERROR_NO_REPLY) == 0) {
            enterCurrentTurn();
            timedOut_.push_back(busNameOf(q.acc));
        }
        if (reply) dbus_message_unref(reply);
        g_object_unref(q.acc);
    }
}

void TurnExtents::cancel() {
    for (const Asked& q : asked_) {
        dbus_pending_call_cancel(q.call);
        dbus_pending_call_unref(q.call);
        g_object_unref(q.acc);
    }
    asked_.clear();
}

}  // namespace orv::linuxdesk
