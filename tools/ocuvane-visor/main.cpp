// ocuvane-visor: the magnifier's end of the agent's UDP link, as a command-line peer.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <iostream>
#include <string>

#include "Common/ORVCommunicationHub.h"
#include "Common/OrvLogger.h"
#include "VisorPeer.h"
#include "platform/Platform.h"
#include "platform/glib/GLibMainLoop.h"

namespace {

using orv::visor::VisorOptions;
using orv::visor::VisorPeer;

const char* kUsage =
    "Usage: ocuvane-visor [options]\n"
    "\n"
    "Plays the magnifier's end of the agent's UDP link on 127.0.0.1: binds the magnifier's\n"
    "port, learns the agent's address from the first datagram it sends, answers status\n"
    "subscriptions (\"status\" \"OK\") and status inquiries (the settings below), and prints one\n"
    "line on standard output for every request received. Commands are read from standard\n"
    "input ('help' lists them); the end of input ends the program with status 0.\n"
    "\n"
    "Options:\n"
    "  --port N           port to bind (default 41227; 0 takes any free port, which is then\n"
    "                     reported on standard error as \"listening on 127.0.0.1:N\")\n"
    "  --json             print JSON lines instead of text lines\n"
    "  --set KEY=VALUE    a setting for status inquiry replies (repeatable, in reply order)\n"
    "  --settings FILE    settings from a file of KEY=VALUE lines ('#' comments)\n"
    "  --no-input         ignore standard input and run until interrupted\n"
    "  --verbose          log the link's info and warning lines on standard error\n"
    "  --help             this text\n"
    "\n"
    "Settings keys the agent reads: echoVoice, echoRate, echoVolume, focusEchoEnabled,\n"
    "focusEchoStyle, mouseEchoEnabled, mouseEchoCondition, magnificationEnabled,\n"
    "speechEnabled, keyMods. Other keys are sent as given (with a warning).\n"
    "\n"
    "Output lines:\n"
    "  focus areas   DATE TIME focus ID x=X y=Y width=W height=H edge=(EX,EY) source=S\n"
    "                {\"type\":\"focusArea\",\"requestId\",\"x\",\"y\",\"width\",\"height\",\n"
    "                 \"edgeX\",\"edgeY\",\"source\",\"from\",\"time\"} with --json\n"
    "  other kinds   DATE TIME request KIND ID from HOST:PORT [payload FIELDS]\n"
    "                {\"type\":\"request\",\"kind\",\"code\",\"requestId\",\"payload\",\"from\",\n"
    "                 \"time\"} with --json\n"
    "Times are wall-clock (seconds since 1970 in JSON). Diagnostics go to standard error.\n"
    "\n"
    "Exit status: 0 at the end of input or on 'quit', 1 when the port cannot be bound,\n"
    "2 for bad options.\n";

// Log lines go to standard error with the program's name, without the agent's time stamps.
class ToolSink : public orv::LogSink {
  public:
    void writeLine(const std::string& line) override {
        std::cerr << "ocuvane-visor: " << line << std::endl;
    }
};

class ToolApp : public orv::ApplicationHost {
  public:
    explicit ToolApp(orv::MainLoop& loop) : loop_(loop) {}
    std::vector<std::string> arguments() override { return {}; }
    orv::OSVersion operatingSystemVersion() override { return {}; }
    std::string executablePath() override { return {}; }
    void terminate() override {
        terminated = true;
        loop_.quit();
    }
    void hide() override {}
    bool terminated = false;

  private:
    orv::MainLoop& loop_;
};

double wallClock() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

int badOption(const std::string& message) {
    std::cerr << "ocuvane-visor: " << message << "\n(--help lists the options)" << std::endl;
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    VisorOptions options;
    bool readInput = true;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string* out) {
            if (i + 1 >= argc) return false;
            *out = argv[++i];
            return true;
        };
        std::string v, error;
        if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return 0;
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "--no-input") {
            readInput = false;
        } else if (arg == "--verbose") {
            verbose = true;
        } else if (arg == "--port") {
            unsigned port = 0;
            if (!value(&v)) return badOption("--port needs a number");
            auto res = std::from_chars(v.data(), v.data() + v.size(), port);
            if (res.ec != std::errc() || res.ptr != v.data() + v.size() || port > 65535)
                return badOption("--port needs a number from 0 to 65535, not '" + v + "'");
            options.port = static_cast<uint16_t>(port);
        } else if (arg == "--set") {
            if (!value(&v)) return badOption("--set needs KEY=VALUE");
            if (!orv::visor::parseSetting(v, &options.settings, &error)) return badOption(error);
        } else if (arg == "--settings") {
            if (!value(&v)) return badOption("--settings needs a file");
            if (!orv::visor::readSettingsFile(v, &options.settings, &error))
                return badOption(error);
        } else {
            return badOption("unknown option '" + arg + "'");
        }
    }
    const auto& known = orv::visor::knownSettingsKeys();
    for (const auto& [key, value] : options.settings) {
        if (std::find(known.begin(), known.end(), key) == known.end())
            std::cerr << "ocuvane-visor: warning: '" << key << "' is not a key the agent reads"
                      << std::endl;
    }

    orv::setSystemLogSink(std::make_shared<ToolSink>());
    orv::OrvLogger::setVerbosity(verbose ? 3 : 1);

    auto loop = std::make_shared<orv::GLibMainLoop>();
    auto app = std::make_shared<ToolApp>(*loop);
    auto platform = std::make_shared<orv::Platform>();
    platform->name = "visor";
    platform->loop = loop;
    platform->app = app;
    orv::installPlatform(platform);

    orv::ORVCommunicationHub::Options hubOptions;
    hubOptions.serverPort = options.port;
    orv::ORVCommunicationHub::setDefaultOptions(hubOptions);
    auto hub = orv::ORVCommunicationHub::serverInstance();
    if (app->terminated) {
        std::cerr << "ocuvane-visor: cannot listen on 127.0.0.1:" << options.port
                  << " (is a magnifier or another peer already running there? --port picks "
                     "another)"
                  << std::endl;
        return 1;
    }
    std::cerr << "ocuvane-visor: listening on 127.0.0.1:" << hub->localPort() << std::endl;

    VisorPeer peer(options, std::cout, std::cerr, wallClock);
    peer.attach(hub);

    std::string pending;
    if (readInput) {
        loop->watchFd(STDIN_FILENO, orv::kFdReadable, [&](int fd, short) {
            char buf[4096];
            const ssize_t n = ::read(fd, buf, sizeof buf);
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
            if (n > 0) pending.append(buf, static_cast<size_t>(n));
            const bool eof = n <= 0;
            size_t nl;
            while ((nl = pending.find('\n')) != std::string::npos || (eof && !pending.empty())) {
                std::string line = nl == std::string::npos ? pending : pending.substr(0, nl);
                pending.erase(0, nl == std::string::npos ? pending.size() : nl + 1);
                if (peer.execute(line) == VisorPeer::CommandResult::Quit) {
                    loop->quit();
                    return;
                }
            }
            if (eof) loop->quit();
        });
    }
    loop->run();
    // The socket sends what is still queued (a last shutdown request, say) before it goes.
    orv::ORVCommunicationHub::resetSharedState();
    orv::installPlatform(nullptr);
    return 0;
}
