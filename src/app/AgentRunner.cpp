#include "app/AgentRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "Common/Format.h"
#include "Common/ORVAXCommController.h"
#include "Common/ORVCommunicationHub.h"
#include "Common/OrvLogger.h"
#include "app/LazySpeechEngine.h"
#include "app/ORVAXAppDelegate.h"
#include "app/SpeechPrinter.h"
#include "platform/NullSpeech.h"
#include "speech/OrvLocalization.h"
#include "platform/Platform.h"
#include "platform/VirtualMainLoop.h"
#include "platform/glib/GLibMainLoop.h"
#include "platform/posix/PosixServices.h"
#include "platform/sim/SimDesktop.h"
#include "platform/sim/SimScenario.h"
#if ORV_HAVE_LINUX
#include "platform/linux/LinuxPlatform.h"
#endif
#if ORV_HAVE_SPEECHD
#include "platform/linux/SpeechDispatcherEngine.h"
#endif
#if ORV_HAVE_ESPEAK
#include "platform/linux/EspeakEngine.h"
#endif

namespace orv {

namespace {

// ---- signals ------------------------------------------------------------------------------------

int signalPipe[2] = {-1, -1};
volatile std::sig_atomic_t terminationSignal = 0;

void onTermination(int sig) {
    const int saved = errno;
    if (!terminationSignal) {
        terminationSignal = sig;
        // The main loop may be held (a write nobody reads, a hung call): the end comes within
        // the bound all the same.
        ::alarm(kOrderlyEndBound);
    }
    char c = 1;
    [[maybe_unused]] auto n = ::write(signalPipe[1], &c, 1);
    errno = saved;
}

static_assert(kOrderlyEndBound == 2, "the line below names the bound");

void onOrderlyEndOverdue(int) {
    if (!terminationSignal) return;  // not our alarm
    static const char kLine[] = "ocuvane-agent: could not end in order within 2 s; ending now\n";
    pollfd p{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&p, 1, 0) == 1 && (p.revents & POLLOUT)) {
        [[maybe_unused]] auto n = ::write(STDERR_FILENO, kLine, sizeof kLine - 1);
    }
    ::_exit(kExitForced);
}

// A handler, not SIG_IGN: an ignored disposition would pass on to the programs the agent
// launches, while a handled one is reset for them.
void onIgnored(int) {}

void setHandler(int sig, void (*handler)(int), bool keepIgnored) {
    struct sigaction old {};
    if (keepIgnored && ::sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) return;
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    // A write interrupted half-way would leave half a line behind.
    sa.sa_flags = SA_RESTART;
    ::sigaction(sig, &sa, nullptr);
}

// SIGINT and SIGTERM end the agent in order, through the main loop.
void watchTerminationSignals(MainLoop& loop, ApplicationHost& host) {
    if (signalPipe[0] < 0) return;
    loop.watchFd(signalPipe[0], kFdReadable, [&host](int fd, short) {
        char buf[16];
        while (::read(fd, buf, sizeof buf) > 0) {
        }
        host.terminate();
    });
}

// ---- output -------------------------------------------------------------------------------------

// Writes the text when room comes within waitMs (each PIPE_BUF piece, so that a piece the poll
// found room for never blocks); false when the room did not come or the descriptor is closed.
bool writeWithin(int fd, const std::string& text, int waitMs) {
    size_t done = 0;
    while (done < text.size()) {
        pollfd p{fd, POLLOUT, 0};
        const int r = ::poll(&p, 1, waitMs);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0 || (p.revents & (POLLERR | POLLNVAL))) return false;
        const size_t piece = std::min(text.size() - done, size_t(PIPE_BUF));
        const ssize_t n = ::write(fd, text.data() + done, piece);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

// Standard output keeps the ordinary blocking behaviour: a consumer of the focus lines gets
// every one of them. False once the descriptor refuses (closed, gone with its terminal).
bool writeAll(int fd, const char* p, size_t n) {
    while (n > 0) {
        const ssize_t w = ::write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN) {  // someone made the descriptor non-blocking
                pollfd pf{fd, POLLOUT, 0};
                ::poll(&pf, 1, -1);
                continue;
            }
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

std::atomic<bool> outputLinesOpen{true};

// Focus and speech lines share standard output; once it is closed both stop, the agent goes on.
void printLine(const char* text, size_t n) {
    if (!outputLinesOpen.load()) return;
    if (!writeAll(STDOUT_FILENO, text, n)) {
        outputLinesOpen = false;
        notice("standard output is closed: no more focus or speech lines, the agent goes on");
    }
}

void printFocusArea(const ORVOrientedRectRef& area, double time) {
    if (!outputLinesOpen.load()) return;
    const Rect r = area ? area->rect() : Rect();
    char line[2048];
    const int n = std::snprintf(
        line, sizeof line,
        "{\"time\":%.3f,\"x\":%.0f,\"y\":%.0f,\"width\":%.0f,\"height\":%.0f,\"edgeX\":%u,"
        "\"edgeY\":%u,\"source\":%u}\n",
        time, roundHalfAwayFromZero(r.origin.x), roundHalfAwayFromZero(r.origin.y),
        roundHalfAwayFromZero(r.size.width), roundHalfAwayFromZero(r.size.height),
        area ? area->edgeX() : 0u, area ? area->edgeY() : 0u, area ? area->source() : 0u);
    if (n <= 0 || size_t(n) >= sizeof line) return;
    printLine(line, size_t(n));
}

// The engine the options ask for, wrapped for --print-speech, and the settings given at start.
// False (with the notice given) when the engine asked for cannot be had.
bool setUpSpeech(const AgentOptions& options, Platform& p) {
    if (!options.phrases.empty()) OrvLocalization::setPhraseDirectoryOverride(options.phrases);
    std::string why;
    if (options.speech == "none") {
        p.speech = makeNullSpeechEngine();
    } else if (options.speech == "speech-dispatcher" || (options.speech == "auto" && !p.speech)) {
        // auto on a desktop that brings no engine of its own, as on Linux
#if ORV_HAVE_SPEECHD
        p.speech = makeLazySpeechEngine([loop = p.loop] {
            std::string why;
            auto engine = linuxdesk::makeSpeechDispatcherEngine(loop, &why);
            // The engine reconnects by itself later; the user hears why it is silent meanwhile.
            if (!why.empty()) notice("speech-dispatcher: " + outsideText(why, 400));
            return engine;
        });
#else
        if (options.speech == "speech-dispatcher") {
            why = "built without speech-dispatcher (libspeechd's development files were missing)";
        } else {
            notice("built without speech-dispatcher: the agent follows focus without speaking");
            p.speech = makeNullSpeechEngine();
        }
#endif
    } else if (options.speech == "espeak-ng") {
        // Asked for by name: better refused at start than silent later.
#if ORV_HAVE_ESPEAK
        p.speech = linuxdesk::makeEspeakEngine(p.loop, &why);
#else
        why = "built without espeak-ng (its development files were missing)";
#endif
    }
    if (!p.speech) {
        notice("cannot use --speech=" + options.speech + ": " + outsideText(why, 400));
        return false;
    }
    if (options.printSpeech) {
        p.speech = makePrintingSpeechEngine(
            p.speech, [] { return mainLoop().now(); },
            [](const std::string& line) { printLine(line.data(), line.size()); });
    }
    if (!options.speechSettings.empty()) {
        std::map<std::string, std::string> settings;
        for (const auto& [key, value] : options.speechSettings) settings[key] = value;
        ORVAXCommController::updateUsingDictionary(settings);
    }
    return true;
}

// ---- stall probe --------------------------------------------------------------------------------

// A timer that should fire every 10 ms; when it comes late, something held the loop that long,
// and it says so once the loop is back. A thread of its own watches the timer's beat, so that a
// loop which does not come back is reported too, once per stall.
class StallProbe {
  public:
    StallProbe(MainLoop& loop, double threshold) : threshold_(threshold), beat_(steadyNow()) {
        auto last = std::make_shared<double>(loop.now());
        timer_ = loop.scheduleTimer(kTick, true, [this, &loop, last](Timer&) {
            const double now = loop.now();
            const double stalled = now - *last - kTick;
            *last = now;
            beat_ = steadyNow();
            if (stalled > threshold_) notice("main loop stalled for " + milliseconds(stalled) + " ms");
        });
        watcher_ = std::thread([this] { watch(); });
    }
    ~StallProbe() {
        timer_->invalidate();
        {
            std::lock_guard lock(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        watcher_.join();
    }
    StallProbe(const StallProbe&) = delete;
    StallProbe& operator=(const StallProbe&) = delete;

  private:
    static constexpr double kTick = 0.01;
    static double steadyNow() {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    static std::string milliseconds(double seconds) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.0f", seconds * 1e3);
        return buf;
    }

    void watch() {
        double reported = -1;  // the beat whose silence was reported
        std::unique_lock lock(mutex_);
        while (!wake_.wait_for(lock, std::chrono::milliseconds(10), [this] { return stop_; })) {
            const double beat = beat_.load();
            const double silent = steadyNow() - beat - kTick;
            if (silent > threshold_ && beat != reported) {
                reported = beat;
                notice("main loop still stalled after " + milliseconds(silent) + " ms");
            }
        }
    }

    double threshold_;
    std::atomic<double> beat_;
    TimerRef timer_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread watcher_;
};

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

// Lets the socket's own thread put the last datagrams on the wire before the process ends.
void flushLink(MainLoop& loop) {
    if (auto* v = dynamic_cast<VirtualMainLoop*>(&loop)) {
        v->runUntil([] { return false; }, 0.2);
    }
}

int runSimulated(const AgentOptions& options, ORVAXAppDelegate& delegate) {
    if (options.reportStallsOver > 0 && !options.realtime) {
        notice("--report-stalls needs real time: virtual time has no stalls (add --realtime)");
        notice("Try 'ocuvane-agent --help'.");
        return kExitUsage;
    }
    const std::string path = options.scenario.empty() ? bundledDemo() : options.scenario;
    if (path.empty()) {
        notice("the bundled demo scenario was not found; give one with --scenario FILE");
        return kExitDesktopUnusable;
    }
    auto parsed = sim::loadScenarioFile(path);
    // Asked to end while the file was being read: nothing has started, nothing to complain of.
    if (terminationRequested()) return kExitOrderly;
    if (!parsed.ok()) {
        notice(outsideText(parsed.error, 1000));
        return kExitScenario;
    }
    std::shared_ptr<MainLoop> loop;
    if (options.realtime) loop = std::make_shared<GLibMainLoop>();
    auto desk = sim::SimDesktop::create(loop);
    if (std::string why = sim::applyScenarioSetup(*desk, *parsed.scenario); !why.empty()) {
        notice(outsideText(why, 1000));
        return kExitScenario;
    }
    auto platformRef = desk->install();
    platformRef->name = "sim";
    desk->host().setArguments(options.arguments);
    if (!setUpSpeech(options, *platformRef)) return kExitDesktopUnusable;

    notice("simulated desktop, playing " + outsideText(path) + " in " +
           (options.realtime ? "real" : "virtual") + " time");
    delegate.attach();
    watchTerminationSignals(desk->loop(), desk->host());
    std::unique_ptr<StallProbe> stallProbe;
    if (options.reportStallsOver > 0)
        stallProbe = std::make_unique<StallProbe>(desk->loop(), options.reportStallsOver);
    delegate.applicationDidFinishLaunching();
    if (desk->host().terminated()) return kExitOrderly;

    // The timeline starts once the link is up, so that its first focus change reaches the
    // magnifier (bounded: with no magnifier the scenario plays all the same). The log-only link
    // never comes up.
    if (auto hub = ORVCommunicationHub::sharedInstance();
        hub && !ORVAXAppDelegate::wantsLogOnlyHub(options.arguments)) {
        if (auto* v = desk->virtualLoop())
            v->runUntil([&] { return hub->connected() || terminationRequested(); }, 1.0);
    }
    // run() starts afresh, so an end asked for before it would be lost there.
    if (terminationRequested()) {
        flushLink(desk->loop());
        return kExitOrderly;
    }

    sim::ScenarioPlayer player(desk, parsed.scenario);
    const bool verbose = OrvLogger::infoMessageIsLogged();
    player.setOnEvent([verbose](const sim::ScenarioPlayer::Event& e) {
        if (verbose) systemLogFormat("scenario %0.3f: %@", e.time, e.text);
    });
    player.setOnEnd([&desk] { desk->loop().quit(); });
    player.start();
    desk->loop().run();
    flushLink(desk->loop());
    return kExitOrderly;
}

#if ORV_HAVE_LINUX
int runLinux(const AgentOptions& options, ORVAXAppDelegate& delegate,
             std::shared_ptr<Platform> platformRef) {
    auto host = std::make_shared<posix::PosixApplicationHost>(platformRef->loop, options.arguments);
    platformRef->app = host;
    platformRef->defaults = std::make_shared<posix::FileUserDefaults>();
    installPlatform(platformRef);
    if (!setUpSpeech(options, *platformRef)) return kExitDesktopUnusable;
    notice("following the Linux desktop (AT-SPI2)");
    delegate.attach();
    watchTerminationSignals(*platformRef->loop, *host);
    std::unique_ptr<StallProbe> stallProbe;
    if (options.reportStallsOver > 0)
        stallProbe = std::make_unique<StallProbe>(*platformRef->loop, options.reportStallsOver);
    delegate.applicationDidFinishLaunching();
    // Asked to end while the desktop was being reached or the agent started.
    if (terminationRequested()) return kExitOrderly;
    platformRef->loop->run();
    return kExitOrderly;
}
#endif

}  // namespace

void installSignalHandling() {
    if (signalPipe[0] < 0 && ::pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        signalPipe[0] = signalPipe[1] = -1;
    // A mask inherited from whoever started the agent would keep these from it.
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGALRM}) sigaddset(&set, sig);
    ::sigprocmask(SIG_UNBLOCK, &set, nullptr);

    setHandler(SIGALRM, onOrderlyEndOverdue, false);
    setHandler(SIGTERM, onTermination, false);
    // A job started in the background of a shell without job control comes with SIGINT ignored,
    // so that Ctrl-C at the terminal is not meant for it; it stays so.
    setHandler(SIGINT, onTermination, true);
    // No terminal to lose: the agent outlives the one it was started from.
    setHandler(SIGHUP, onIgnored, true);
    // A closed output fails its writes instead, and only that output stops.
    setHandler(SIGPIPE, onIgnored, true);
}

bool terminationRequested() {
    return terminationSignal != 0;
}

void notice(const std::string& text) {
    constexpr int kWaitMs = 100;
    writeWithin(STDERR_FILENO, "ocuvane-agent: " + text + "\n", kWaitMs);
}

int runAgent(const AgentOptions& options) {
    if (options.logToSyslog) setSystemLogSink(makeSyslogSink("ocuvane-agent"));
    if (ORVAXAppDelegate::wantsLogOnlyHub(options.arguments))
        notice(std::string(ORVAXAppDelegate::kLogOnlyArgument) +
               " comes first: log-only link, nothing is sent to the magnifier");

    ORVCommunicationHub::Options link = ORVCommunicationHub::defaultOptions();
    link.serverPort = options.magnifierPort;
    ORVCommunicationHub::setDefaultOptions(link);

    ORVAXAppDelegate delegate;
    delegate.verbosityOverride = options.verbosity;
    if (options.printFocus) {
        ORVAXCommController::setFocusAreaObserver(
            [](const ORVOrientedRectRef& area) { printFocusArea(area, mainLoop().now()); });
    }

    // A scenario is played on the simulated desktop only.
    if (options.desktop == "sim" || !options.scenario.empty())
        return runSimulated(options, delegate);

#if ORV_HAVE_LINUX
    std::string why;
    auto desktop = linuxdesk::makeLinuxPlatform(&why);
    if (terminationRequested()) return kExitOrderly;
    if (desktop) return runLinux(options, delegate, desktop);
    if (options.desktop == "linux") {
        notice("cannot follow the Linux desktop: " + outsideText(why, 400));
        return kExitDesktopUnusable;
    }
    notice("no Linux desktop to follow (" + outsideText(why, 400) +
           "); playing the simulated demo");
#else
    if (options.desktop == "linux") {
        notice("built without the Linux desktop backend (libatspi, X11 and XRandR development "
               "files were missing)");
        return kExitDesktopUnusable;
    }
#endif
    return runSimulated(options, delegate);
}

}  // namespace orv
