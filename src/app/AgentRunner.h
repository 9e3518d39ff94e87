#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orv {

// The program's exit statuses (docs/agent-program.md).
enum AgentExit : int {
    kExitOrderly = 0,
    kExitDesktopUnusable = 1,
    kExitUsage = 2,
    kExitScenario = 3,
    // A SIGTERM or SIGINT the main loop could not get to within kOrderlyEndBound seconds.
    kExitForced = 4,
};
inline constexpr unsigned kOrderlyEndBound = 2;

struct AgentOptions {
    std::vector<std::string> arguments;
    std::string desktop = "auto";  // auto, linux or sim
    std::string scenario;          // simulated desktop: empty plays the bundled demo
    bool realtime = false;
    bool printFocus = false;
    bool printSpeech = false;
    std::string speech = "auto";  // auto, speech-dispatcher, espeak-ng or none
    // Speech settings as the magnifier would send them, applied before start-up, in order.
    std::vector<std::pair<std::string, std::string>> speechSettings;
    std::string phrases;  // a directory of phrase tables; empty looks in the usual places
    uint16_t magnifierPort = 41227;
    std::optional<unsigned> verbosity;
    bool logToSyslog = false;
    // Above zero: report on standard error every time the main loop was kept from its timers for
    // longer than this many seconds (a diagnostic for hung applications). Real time only.
    double reportStallsOver = 0;
};

// SIGTERM and SIGINT ask for an orderly end, SIGHUP and SIGPIPE are ignored. Call first thing in
// main, before any thread exists, so that every later thread inherits the unblocked mask.
void installSignalHandling();
// A SIGTERM or SIGINT has arrived.
bool terminationRequested();

// Writes "ocuvane-agent: TEXT" as one line on standard error. Waits only briefly for room, so a
// standard error nobody reads never holds the agent; the line is then lost.
void notice(const std::string& text);

// Installs the chosen desktop, starts the agent on it and runs the main loop until the agent
// ends. Returns the process's exit status.
int runAgent(const AgentOptions& options);

}  // namespace orv
