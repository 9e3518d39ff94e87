#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orv {

struct AgentOptions {
    std::vector<std::string> arguments;
    std::string desktop = "auto";  // auto, linux or sim
    std::string scenario;          // simulated desktop: empty plays the bundled demo
    bool realtime = false;
    bool printFocus = false;
    uint16_t magnifierPort = 41227;
    std::optional<unsigned> verbosity;
    bool logToSyslog = false;
    // Above zero: report on standard error every time the main loop was kept from its timers for
    // longer than this many seconds (a diagnostic for hung applications).
    double reportStallsOver = 0;
};

// Installs the chosen desktop, starts the agent on it and runs the main loop until the agent
// ends. Returns the process's exit status.
int runAgent(const AgentOptions& options);

}  // namespace orv
