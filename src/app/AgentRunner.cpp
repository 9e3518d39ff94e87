#include "app/AgentRunner.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>

#include "Common/ORVAXCommController.h"
#include "Common/ORVCommunicationHub.h"
#include "Common/OrvLogger.h"
#include "app/ORVAXAppDelegate.h"
#include "platform/Platform.h"
#include "platform/VirtualMainLoop.h"
#include "platform/glib/GLibMainLoop.h"
#include "platform/posix/PosixServices.h"
#include "platform/sim/SimDesktop.h"
#include "platform/sim/SimScenario.h"
#if ORV_HAVE_LINUX
#include "platform/linux/LinuxPlatform.h"
#endif

namespace orv {

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int) {
    char c = 1;
    [[maybe_unused]] auto n = ::write(signalPipe[1], &c, 1);
}

// SIGINT and SIGTERM end the agent in order, through the main loop.
void watchTerminationSignals(MainLoop& loop, ApplicationHost& host) {
    if (::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
    loop.watchFd(signalPipe[0], kFdReadable, [&host](int fd, short) {
        char buf[16];
        while (::read(fd, buf, sizeof buf) > 0) {
        }
        host.terminate();
    });
}

// A timer that should fire every 10 ms; when it comes late, something held the loop that long.
TimerRef watchStalls(MainLoop& loop, double threshold) {
    constexpr double kProbe = 0.01;
    auto last = std::make_shared<double>(loop.now());
    return loop.scheduleTimer(kProbe, true, [&loop, last, threshold](Timer&) {
        const double now = loop.now();
        const double stalled = now - *last - kProbe;
        *last = now;
        if (stalled > threshold)
            std::fprintf(stderr, "ocuvane-agent: main loop stalled for %.0f ms\n", stalled * 1e3);
    });
}

std::string bundledDemo() {
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    std::vector<fs::path> candidates;
    if (!ec) {
        candidates.push_back(exe.parent_path() / "scenarios" / "demo.scn");
        candidates.push_back(exe.parent_path() / ".." / "share" / "ocuvane" / "scenarios" /
                             "demo.scn");
    }
#ifdef ORV_SOURCE_DIR
    candidates.push_back(fs::path(ORV_SOURCE_DIR) / "scenarios" / "demo.scn");
#endif
    for (const auto& c : candidates)
        if (fs::exists(c, ec)) return c.string();
    return {};
}

void printFocusArea(const ORVOrientedRectRef& area, double time) {
    const Rect r = area ? area->rect() : Rect();
    std::printf(
        "{\"time\":%.3f,\"x\":%.0f,\"y\":%.0f,\"width\":%.0f,\"height\":%.0f,\"edgeX\":%u,"
        "\"edgeY\":%u,\"source\":%u}\n",
        time, roundHalfAwayFromZero(r.origin.x), roundHalfAwayFromZero(r.origin.y),
        roundHalfAwayFromZero(r.size.width), roundHalfAwayFromZero(r.size.height),
        area ? area->edgeX() : 0u, area ? area->edgeY() : 0u, area ? area->source() : 0u);
    std::fflush(stdout);
}

// Lets the socket's own thread put the last datagrams on the wire before the process ends.
void flushLink(MainLoop& loop) {
    if (auto* v = dynamic_cast<VirtualMainLoop*>(&loop)) {
        v->runUntil([] { return false; }, 0.2);
    }
}

int runSimulated(const AgentOptions& options, ORVAXAppDelegate& delegate) {
    const std::string path = options.scenario.empty() ? bundledDemo() : options.scenario;
    if (path.empty()) {
        std::fprintf(stderr,
                     "ocuvane-agent: the bundled demo scenario was not found; give one "
                     "with --scenario FILE\n");
        return 1;
    }
    auto parsed = sim::loadScenarioFile(path);
    if (!parsed.ok()) {
        std::fprintf(stderr, "ocuvane-agent: %s\n", parsed.error.c_str());
        return 1;
    }
    std::shared_ptr<MainLoop> loop;
    if (options.realtime) loop = std::make_shared<GLibMainLoop>();
    auto desk = sim::SimDesktop::create(loop);
    if (std::string why = sim::applyScenarioSetup(*desk, *parsed.scenario); !why.empty()) {
        std::fprintf(stderr, "ocuvane-agent: %s: %s\n", path.c_str(), why.c_str());
        return 1;
    }
    auto platformRef = desk->install();
    platformRef->name = "sim";
    desk->host().setArguments(options.arguments);

    std::fprintf(stderr, "ocuvane-agent: simulated desktop, playing %s in %s time\n", path.c_str(),
                 options.realtime ? "real" : "virtual");
    delegate.attach();
    delegate.applicationDidFinishLaunching();
    if (desk->host().terminated()) return 0;

    // The timeline starts once the link is up, so that its first focus change reaches the
    // magnifier (bounded: with no magnifier the scenario plays all the same).
    if (auto hub = ORVCommunicationHub::sharedInstance()) {
        if (auto* v = desk->virtualLoop()) v->runUntil([&] { return hub->connected(); }, 1.0);
    }

    sim::ScenarioPlayer player(desk, parsed.scenario);
    const bool verbose = OrvLogger::infoMessageIsLogged();
    player.setOnEvent([verbose](const sim::ScenarioPlayer::Event& e) {
        if (verbose) systemLogFormat("scenario %0.3f: %@", e.time, e.text);
    });
    player.setOnEnd([&desk] { desk->loop().quit(); });
    watchTerminationSignals(desk->loop(), desk->host());
    player.start();
    desk->loop().run();
    flushLink(desk->loop());
    return 0;
}

#if ORV_HAVE_LINUX
int runLinux(const AgentOptions& options, ORVAXAppDelegate& delegate,
             std::shared_ptr<Platform> platformRef) {
    auto host = std::make_shared<posix::PosixApplicationHost>(platformRef->loop, options.arguments);
    platformRef->app = host;
    platformRef->defaults = std::make_shared<posix::FileUserDefaults>();
    installPlatform(platformRef);
    std::fprintf(stderr, "ocuvane-agent: following the Linux desktop (AT-SPI2)\n");
    delegate.attach();
    watchTerminationSignals(*platformRef->loop, *host);
    TimerRef stallProbe;
    if (options.reportStallsOver > 0)
        stallProbe = watchStalls(*platformRef->loop, options.reportStallsOver);
    delegate.applicationDidFinishLaunching();
    platformRef->loop->run();
    if (stallProbe) stallProbe->invalidate();
    return 0;
}
#endif

}  // namespace

int runAgent(const AgentOptions& options) {
    if (options.logToSyslog) setSystemLogSink(makeSyslogSink("ocuvane-agent"));

    ORVCommunicationHub::Options link = ORVCommunicationHub::defaultOptions();
    link.serverPort = options.magnifierPort;
    ORVCommunicationHub::setDefaultOptions(link);

    ORVAXAppDelegate delegate;
    delegate.verbosityOverride = options.verbosity;
    if (options.printFocus) {
        ORVAXCommController::setFocusAreaObserver(
            [](const ORVOrientedRectRef& area) { printFocusArea(area, mainLoop().now()); });
    }

    if (options.desktop == "sim") return runSimulated(options, delegate);

#if ORV_HAVE_LINUX
    std::string why;
    auto desktop = linuxdesk::makeLinuxPlatform(&why);
    if (desktop) return runLinux(options, delegate, desktop);
    if (options.desktop == "linux") {
        std::fprintf(stderr, "ocuvane-agent: cannot follow the Linux desktop: %s\n", why.c_str());
        return 1;
    }
    std::fprintf(stderr,
                 "ocuvane-agent: no Linux desktop to follow (%s); playing the simulated demo\n",
                 why.c_str());
#else
    if (options.desktop == "linux") {
        std::fprintf(stderr,
                     "ocuvane-agent: built without the Linux desktop backend (libatspi, "
                     "X11 and XRandR development files were missing)\n");
        return 1;
    }
#endif
    return runSimulated(options, delegate);
}

}  // namespace orv
