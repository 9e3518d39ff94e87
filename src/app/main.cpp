// ocuvane-agent: follows the keyboard focus and sends the focus area to the magnifier.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Common/ORVAXCommController.h"
#include "Common/ORVCommunicationHub.h"
#include "Common/OrvLogger.h"
#include "app/AgentRunner.h"

namespace {

const char* const kUsage = R"(Usage: ocuvane-agent [options]

Follows the keyboard focus through the desktop's accessibility interface and sends the focus area
to the magnifier over UDP on 127.0.0.1.

Options:
  --desktop=auto|linux|sim  Which desktop to follow (default auto: the Linux desktop when an
                            X display and an accessibility bus are reachable, else the simulated
                            demo desktop).
  --scenario FILE           Simulated desktop only: play this scenario file instead of the
                            bundled demo.
  --realtime                Simulated desktop only: play in real time instead of virtual time
                            (virtual time runs as fast as it can, timers firing in order).
  --print-focus             Also print each focus area the agent sends, as one JSON line on
                            standard output.
  --magnifier-port N        UDP port of the magnifier (default 41227).
  --verbosity N             Log verbosity after start-up: 1 errors (the default), 2 warnings,
                            3 information.
  --log=stderr|syslog       Where the log goes (default standard error).
  --report-stalls MS        Diagnostic: write "ocuvane-agent: main loop stalled for N ms" on
                            standard error whenever the main loop could not run its timers for
                            more than MS milliseconds (checked every 10 ms).
  --help                    Show this text.

The magnifier side can be stood in for by ocuvane-visor (tools/ocuvane-visor).
Exit status: 0 after an orderly end, 1 when the chosen desktop cannot be used, 2 for bad usage.
)";

int usageError(const std::string& message) {
    std::fprintf(stderr, "ocuvane-agent: %s\nTry 'ocuvane-agent --help'.\n", message.c_str());
    return 2;
}

bool parseUnsigned(const std::string& text, unsigned long max, unsigned long* out) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    unsigned long v = std::strtoul(text.c_str(), nullptr, 10);
    if (errno || v > max) return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    orv::AgentOptions options;
    std::vector<std::string> args(argv, argv + argc);
    options.arguments = args;

    for (size_t i = 1; i < args.size(); ++i) {
        std::string arg = args[i];
        std::string value;
        bool hasValue = false;
        if (arg.rfind("--", 0) == 0) {
            if (auto eq = arg.find('='); eq != std::string::npos) {
                value = arg.substr(eq + 1);
                arg = arg.substr(0, eq);
                hasValue = true;
            }
        } else {
            // Arguments the platform's launcher may add (such as the log-only hub's flag and its
            // value) are passed through untouched.
            continue;
        }
        auto need = [&](const char* name) -> bool {
            if (hasValue) return true;
            if (i + 1 >= args.size()) return false;
            value = args[++i];
            (void)name;
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--desktop") {
            if (!need("--desktop")) return usageError("--desktop needs a value");
            if (value != "auto" && value != "linux" && value != "sim")
                return usageError("unknown desktop '" + value + "' (auto, linux or sim)");
            options.desktop = value;
        } else if (arg == "--scenario") {
            if (!need("--scenario")) return usageError("--scenario needs a file");
            options.scenario = value;
        } else if (arg == "--realtime") {
            options.realtime = true;
        } else if (arg == "--print-focus") {
            options.printFocus = true;
        } else if (arg == "--magnifier-port") {
            unsigned long port = 0;
            if (!need("--magnifier-port") || !parseUnsigned(value, 65535, &port) || port == 0)
                return usageError("--magnifier-port needs a port number from 1 to 65535");
            options.magnifierPort = static_cast<uint16_t>(port);
        } else if (arg == "--verbosity") {
            unsigned long v = 0;
            if (!need("--verbosity") || !parseUnsigned(value, 1000, &v))
                return usageError(
                    "--verbosity needs a number (1 errors, 2 warnings, 3 information)");
            options.verbosity = static_cast<unsigned>(v);
        } else if (arg == "--report-stalls") {
            unsigned long ms = 0;
            if (!need("--report-stalls") || !parseUnsigned(value, 60000, &ms) || ms == 0)
                return usageError("--report-stalls needs milliseconds from 1 to 60000");
            options.reportStallsOver = static_cast<double>(ms) / 1000.0;
        } else if (arg == "--log") {
            if (!need("--log") || (value != "stderr" && value != "syslog"))
                return usageError("--log takes stderr or syslog");
            options.logToSyslog = value == "syslog";
        } else {
            return usageError("unknown option '" + arg + "'");
        }
    }
    if (!options.scenario.empty() && options.desktop == "linux")
        return usageError("--scenario plays on the simulated desktop only");

    return orv::runAgent(options);
}
