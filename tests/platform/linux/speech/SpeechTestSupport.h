#pragma once

// Running the real main loop until a speech engine reports, with a time limit as failure.

#include <glib.h>

#include <functional>
#include <memory>
#include <vector>

#include "platform/glib/GLibMainLoop.h"

namespace orv::speechtest {

// Turns the loop until `done` holds; false when `seconds` pass first (a bound, never a pause).
inline bool turnUntil(GLibMainLoop& loop, const std::function<bool()>& done, double seconds) {
    auto late = std::make_shared<bool>(false);
    loop.postAfter(seconds, [late] { *late = true; });
    while (!done() && !*late) g_main_context_iteration(loop.context(), TRUE);
    return done();
}

// The finish callbacks a synthesizer made, in order.
struct Ends {
    std::vector<bool> seen;
    std::function<void(bool)> callback() {
        return [this](bool finished) { seen.push_back(finished); };
    }
};

}  // namespace orv::speechtest
