#pragma once

// Screen extents of objects for the current turn of the main loop, and requests for them sent
// ahead. Asking where a new focus is costs the agent the object's extents, its container's and its
// window's, each one blocking round trip; AXPosition and AXSize are two reads of the same call,
// and a batch of notifications asks again about the same few objects. Within one turn the answers
// are kept; a new focus's chain is asked for in one go, the requests leaving as soon as its
// focus-in arrives and the answers awaited only when the readers are about to run.

#include <cstdint>
#include <string>
#include <vector>

#include "Common/Geometry.h"

typedef struct _AtspiAccessible AtspiAccessible;
typedef struct DBusPendingCall DBusPendingCall;

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

    // Sends GetExtents for `acc` and its ancestors below the application, as far as libatspi
    // knows the parents without asking; returns at once. Safe inside libatspi's event dispatch.
    void request(AtspiAccessible* acc, int timeoutMs);
    // Waits for every request sent and keeps the answers for this turn.
    void collect();
    // Drops the requests sent (their answers would belong to an earlier turn).
    void cancel();

    // Requests sent and answers kept since start, for tests and diagnostics.
    uint64_t requests() const { return requests_; }

  private:
    void enterCurrentTurn();

    struct Entry {
        AtspiAccessible* acc;  // one reference held
        Rect x11;
    };
    struct Asked {
        AtspiAccessible* acc;  // one reference held
        DBusPendingCall* call;
    };
    uint64_t turn_ = 0;
    std::vector<Entry> entries_;
    std::vector<std::string> timedOut_;  // bus names
    std::vector<Asked> asked_;
    uint64_t requests_ = 0;
};

// Turns of the default main context so far (each iteration prepares its sources once).
uint64_t currentTurn();

}  // namespace orv::linuxdesk
