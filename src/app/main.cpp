// ocuvane-agent: follows the keyboard focus and sends the focus area to the magnifier.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Common/Format.h"
#include "app/AgentRunner.h"
#include "app/ORVAXAppDelegate.h"

namespace {

const char* const kUsage = R"(Usage: ocuvane-agent [options]

Follows the keyboard focus through the desktop's accessibility interface and sends the focus area
to the magnifier over UDP on 127.0.0.1.

Options (a value goes in the next argument or after '='; an option that takes a value may be
given once):
  --desktop=auto|linux|sim  Which desktop to follow (default auto: the Linux desktop when an
                            X display and an accessibility bus are reachable, else the simulated
                            demo desktop).
  --scenario FILE           Play this scenario file on the simulated desktop instead of the
                            bundled demo; with --desktop=auto it chooses the simulated desktop.
                            Refused with --desktop=linux.
  --realtime                Simulated desktop: play in real time instead of virtual time
                            (virtual time runs as fast as it can, timers firing in order).
                            Refused with --desktop=linux, which is always real time.
  --print-focus             Also print each focus area the agent sends, as one JSON line on
                            standard output. When standard output is closed the lines stop;
                            the agent goes on.
  --print-speech            Also print what the agent says, as JSON lines on standard output:
                            {"time":T,"say":"TEXT","voice":"V","rate":R,"volume":X} when a
                            piece of speech is handed to the engine (voice null for the
                            engine's default), {"time":T,"end":"finished"} or
                            {"time":T,"end":"stopped"} when it ends.
  --speech=auto|speech-dispatcher|espeak-ng|none
                            The speech engine (default auto: speech-dispatcher on the Linux
                            desktop, the simulated engine on the simulated desktop; none says
                            nothing). espeak-ng speaks through its own library to the sound
                            device.
  --speech-settings KEY=VALUE,...
                            Speech settings as the magnifier sends them, applied at start-up
                            in the magnifier's order: echoVoice, echoRate (words per minute,
                            180 to 400), echoVolume (0 to 1), focusEchoEnabled,
                            focusEchoStyle (1 simplified, 2 detailed), mouseEchoEnabled,
                            mouseEchoCondition (1, 4, 8 or 16 always), magnificationEnabled,
                            speechEnabled, keyMods. Nothing is said until speechEnabled,
                            magnificationEnabled and an echo are on, for instance
                            --speech-settings speechEnabled=1,magnificationEnabled=1,focusEchoEnabled=1
                            Values out of range are ignored as the magnifier's would be.
  --phrases DIR             Read the spoken phrase tables from DIR (docs/phrases.md) instead of
                            the XDG data directories.
  --magnifier-port N        UDP port of the magnifier, 1 to 65535 (default 41227).
  --verbosity N             Log verbosity after start-up: 1 errors (the default), 2 warnings,
                            3 information.
  --log=stderr|syslog       Where the log goes (default standard error).
  --report-stalls MS        Diagnostic, real time only (the Linux desktop, or the simulated one
                            with --realtime; refused in virtual time, which has no stalls).
                            Writes "ocuvane-agent: main loop stalled for N ms" on standard error
                            whenever the main loop could not run its timers for more than MS
                            milliseconds (1 to 60000; checked every 10 ms), and "ocuvane-agent:
                            main loop still stalled after N ms" once while such a stall lasts.
  --help, -h                Show this text.

  -NSDocumentRevisionsDebugMode VALUE
                            Accepted anywhere, together with the one argument after it, as
                            launchers pass it. Only as the very first argument, with an
                            argument after it, does it act: the agent then uses the log-only
                            link, which sends nothing to the magnifier (said on standard error).

Signals: SIGTERM and SIGINT end the agent in order; SIGHUP is ignored (the agent outlives the
terminal it was started from); SIGPIPE is ignored (a closed standard output stops only the focus
lines, a closed standard error only the log).

Exit status: 0 after an orderly end (the scenario ended, SIGTERM or SIGINT), 1 when the chosen
desktop cannot be used, 2 for bad usage, 3 when the scenario file cannot be read or played,
4 when the agent could not end in order within 2 s of a SIGTERM or SIGINT and ended at once.

The magnifier side can be stood in for by ocuvane-visor (tools/ocuvane-visor).
)";

int usageError(const std::string& message) {
    orv::notice(message);
    orv::notice("Try 'ocuvane-agent --help'.");
    return orv::kExitUsage;
}

std::string quoted(const std::string& text) {
    return "'" + orv::outsideText(text) + "'";
}

bool parseUnsigned(const std::string& text, unsigned long min, unsigned long max,
                   unsigned long* out) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long v = std::strtoul(text.c_str(), nullptr, 10);
    if (v < min || v > max) return false;
    *out = v;
    return true;
}

// The keys the magnifier sends; a typo here would otherwise be ignored without a word.
const char* const kSpeechSettingKeys[] = {
    "echoVoice",          "echoRate",         "echoVolume",         "focusEchoEnabled",
    "focusEchoStyle",     "mouseEchoEnabled", "mouseEchoCondition", "magnificationEnabled",
    "speechEnabled",      "keyMods"};

bool parseSpeechSettings(const std::string& text,
                         std::vector<std::pair<std::string, std::string>>* out, std::string* why) {
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        const std::string item =
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const size_t eq = item.find('=');
        if (eq == std::string::npos) {
            *why = "expected KEY=VALUE, not " + quoted(item);
            return false;
        }
        const std::string key = item.substr(0, eq);
        bool known = false;
        for (const char* k : kSpeechSettingKeys) known = known || key == k;
        if (!known) {
            *why = "unknown setting " + quoted(key) + " (known: echoVoice, echoRate, echoVolume, "
                   "focusEchoEnabled, focusEchoStyle, mouseEchoEnabled, mouseEchoCondition, "
                   "magnificationEnabled, speechEnabled, keyMods)";
            return false;
        }
        out->emplace_back(key, item.substr(eq + 1));
        if (comma == std::string::npos) return true;
        start = comma + 1;
    }
}

enum class Takes { Nothing, Value };

struct Option {
    const char* name;
    Takes takes;
    const char* what;  // what the value is, for "needs ..."
};

const Option kOptions[] = {
    {"--desktop", Takes::Value, "auto, linux or sim"},
    {"--scenario", Takes::Value, "a file"},
    {"--realtime", Takes::Nothing, ""},
    {"--print-focus", Takes::Nothing, ""},
    {"--print-speech", Takes::Nothing, ""},
    {"--speech", Takes::Value, "auto, speech-dispatcher, espeak-ng or none"},
    {"--speech-settings", Takes::Value, "KEY=VALUE pairs separated by commas"},
    {"--phrases", Takes::Value, "a directory"},
    {"--magnifier-port", Takes::Value, "a port number from 1 to 65535"},
    {"--verbosity", Takes::Value, "1 (errors), 2 (warnings) or 3 (information)"},
    {"--log", Takes::Value, "stderr or syslog"},
    {"--report-stalls", Takes::Value, "milliseconds from 1 to 60000"},
    {"--help", Takes::Nothing, ""},
};

// Fills the options; an exit status when the program should end here.
std::optional<int> parseArguments(const std::vector<std::string>& args, orv::AgentOptions& o) {
    std::set<std::string> given;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& word = args[i];
        // Launchers pass this flag with one value; start-up alone decides what it means.
        if (word == orv::ORVAXAppDelegate::kLogOnlyArgument) {
            ++i;
            continue;
        }
        if (word == "-h") {
            std::fputs(kUsage, stdout);
            return orv::kExitOrderly;
        }
        if (word.size() < 3 || word.rfind("--", 0) != 0)
            return usageError("unexpected argument " + quoted(word));

        const size_t eq = word.find('=');
        const std::string name = word.substr(0, eq);
        const Option* option = nullptr;
        for (const auto& candidate : kOptions)
            if (name == candidate.name) option = &candidate;
        if (!option) return usageError("unknown option " + quoted(name));

        if (option->takes == Takes::Nothing) {
            if (eq != std::string::npos)
                return usageError(name + " takes no value, not " + quoted(word.substr(eq + 1)));
            if (name == "--help") {
                std::fputs(kUsage, stdout);
                return orv::kExitOrderly;
            }
            if (name == "--realtime") o.realtime = true;
            if (name == "--print-focus") o.printFocus = true;
            if (name == "--print-speech") o.printSpeech = true;
            continue;
        }

        if (!given.insert(name).second) return usageError(name + " may be given once");
        std::string value;
        if (eq != std::string::npos) {
            value = word.substr(eq + 1);
        } else if (i + 1 < args.size() && args[i + 1].rfind('-', 0) != 0) {
            value = args[++i];
        } else {
            return usageError(name + " needs " + option->what);
        }
        const std::string bad = name + " takes " + option->what + ", not " + quoted(value);
        unsigned long n = 0;
        if (name == "--desktop") {
            if (value != "auto" && value != "linux" && value != "sim") return usageError(bad);
            o.desktop = value;
        } else if (name == "--scenario") {
            if (value.empty()) return usageError(name + " needs " + option->what);
            o.scenario = value;
        } else if (name == "--speech") {
            if (value != "auto" && value != "speech-dispatcher" && value != "espeak-ng" &&
                value != "none")
                return usageError(bad);
            o.speech = value;
        } else if (name == "--speech-settings") {
            std::string why;
            if (!parseSpeechSettings(value, &o.speechSettings, &why))
                return usageError(name + ": " + why);
        } else if (name == "--phrases") {
            if (value.empty()) return usageError(name + " needs " + option->what);
            o.phrases = value;
        } else if (name == "--magnifier-port") {
            if (!parseUnsigned(value, 1, 65535, &n)) return usageError(bad);
            o.magnifierPort = static_cast<uint16_t>(n);
        } else if (name == "--verbosity") {
            if (!parseUnsigned(value, 1, 3, &n)) return usageError(bad);
            o.verbosity = static_cast<unsigned>(n);
        } else if (name == "--log") {
            if (value != "stderr" && value != "syslog") return usageError(bad);
            o.logToSyslog = value == "syslog";
        } else if (name == "--report-stalls") {
            if (!parseUnsigned(value, 1, 60000, &n)) return usageError(bad);
            o.reportStallsOver = static_cast<double>(n) / 1000.0;
        }
    }

    const bool simulated = o.desktop == "sim" || !o.scenario.empty();
    if (o.desktop == "linux" && !o.scenario.empty())
        return usageError("--scenario plays on the simulated desktop only");
    if (o.desktop == "linux" && o.realtime)
        return usageError("--realtime applies to the simulated desktop only");
    if (simulated && !o.realtime && o.reportStallsOver > 0)
        return usageError("--report-stalls needs real time: virtual time has no stalls (add "
                          "--realtime)");
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    orv::installSignalHandling();
    orv::AgentOptions options;
    options.arguments.assign(argv, argv + argc);
    if (auto status = parseArguments(options.arguments, options)) return *status;
    return orv::runAgent(options);
}
