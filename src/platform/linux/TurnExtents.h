#pragma once

// Screen extents of objects for the current turn of the main loop, and requests for them sent
// ahead. Asking where a new focus is costs the agent the object's extents, its container's and its
// window's, each one blocking round trip; AXPosition and AXSize are two reads of the same call,
// and a batch of notifications asks again about the same few objects. Within one turn the answers
// are kept; a new focus's chain is asked for in one go, the requests leaving as soon as its
// focus-in arrives and the answers awaited only when the readers are about to run.
//
// A focus's ancestors (its container, its window) are also kept across turns while nothing can
// have moved them: a top-level window changed on the X server, or the application said
// bounds-changed for one of its objects, forgets them. Only applications that are heard saying
// bounds-changed qualify, and nothing inside a scrolled view (scrolling moves the content without
// a word). A new focus then costs one round trip to its application instead of three or four.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Common/Geometry.h"

typedef struct _AtspiAccessible AtspiAccessible;
typedef struct DBusPendingCall DBusPendingCall;
typedef struct DBusMessage DBusMessage;

namespace orv::linuxdesk {

class TurnExtents {
  public:
    TurnExtents();
    ~TurnExtents();
    TurnExtents(const TurnExtents&) = delete;
    TurnExtents& operator=(const TurnExtents&) = delete;

    // Extents in X screen coordinates, if read this turn.
    bool find(AtspiAccessible* acc, Rect* out);
    void remember(AtspiAccessible* acc, const Rect& x11);
    // The object's application left a request of this turn unanswered: do not wait on it again.
    bool timedOut(AtspiAccessible* acc);
    // A request of this turn for the object was answered with no place (not laid out yet).
    bool unplaced(AtspiAccessible* acc);

    // Sends GetExtents for `acc` and its ancestors below the application, as far as libatspi
    // knows the parents without asking; returns at once. Safe inside libatspi's event dispatch.
    void request(AtspiAccessible* acc, int timeoutMs);
    // Waits for every request sent and keeps the answers for this turn.
    void collect();
    // Drops the requests sent (their answers would belong to an earlier turn).
    void cancel();

    // Whether the ancestors of a focus in the object's application may be kept across turns:
    // the application is heard saying bounds-changed.
    std::function<bool(AtspiAccessible*)> hearsMoves;
    // A number that changes whenever a top-level window may have moved or changed size; read once
    // per turn before kept ancestors are used. Must not call libatspi.
    std::function<uint64_t()> topLevelGeneration;
    // A read from the object's application got no answer: the rest of this turn does not wait
    // on it again, and nothing kept of it is used.
    void noAnswerFrom(AtspiAccessible* acc);
    // Something in the application (bus name; empty: anywhere) may have moved.
    void forgetSteady(const std::string& bus);

    // Requests sent and answers kept since start, for tests and diagnostics.
    uint64_t requests() const { return requests_; }
    // Extents found among the kept ancestors instead of asked for.
    uint64_t steadyHits() const { return steadyHits_; }
    size_t steadyKept() const { return steady_.size(); }
    uint64_t forgets() const { return forgets_; }

  private:
    void enterCurrentTurn();
    // Brings the kept ancestors up to date with the X server, once per turn.
    void syncSteady();
    const Rect* findSteady(AtspiAccessible* acc);
    void keepSteady(AtspiAccessible* acc, const Rect& x11);

    struct Entry {
        AtspiAccessible* acc;  // one reference held
        Rect x11;
    };
    struct Asked {
        AtspiAccessible* acc;  // one reference held
        DBusPendingCall* call;
        bool ancestor;
        // forgetSteady calls (a top-level change among them) before it was asked.
        uint64_t forgets;
    };
    struct Steady {
        AtspiAccessible* acc;  // one reference held
        std::string bus;
        Rect x11;
    };
    uint64_t turn_ = 0;
    std::vector<Entry> entries_;
    std::vector<std::string> timedOut_;  // bus names
    std::vector<AtspiAccessible*> unplaced_;  // compared only, never used
    std::vector<Asked> asked_;
    uint64_t requests_ = 0;
    std::vector<Steady> steady_;
    uint64_t steadyGeneration_ = 0;
    uint64_t steadySyncedTurn_ = ~uint64_t{0};
    uint64_t steadyHits_ = 0;
    uint64_t forgets_ = 0;
};

// Sends Component.GetExtents (screen coordinates) for the object on libatspi's connection;
// null when it could not be sent. The caller owns the pending call.
DBusPendingCall* sendGetExtents(AtspiAccessible* acc, int timeoutMs);
// The rectangle of a GetExtents reply, when it is one and says where the object is (unrealized
// widgets answer negative sizes).
bool extentsOfReply(DBusMessage* reply, Rect* out);

// Turns of the default main context so far (each iteration prepares its sources once).
uint64_t currentTurn();

}  // namespace orv::linuxdesk
