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
};

// Installs the chosen desktop, starts the agent on it and runs the main loop until the agent
// ends. Returns the process's exit status.
int runAgent(const AgentOptions& options);

}  // namespace orv
