// Built only with the backend: without libatspi's headers there is nothing to test.
#if __has_include(<atspi/atspi.h>)
#include "platform/linux/LinuxDesktopSession.h"

#include <fcntl.h>
#include <poll.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "platform/linux/AtspiDesktop.h"
#include "platform/linux/LinuxPlatform.h"

extern char** environ;

namespace orv::linuxtest {

std::shared_ptr<Platform> sessionPlatform(std::string* whyNot) {
    static std::shared_ptr<Platform> platform;
    static std::string reason;
    static bool tried = false;
    if (!tried) {
        tried = true;
        platform = linuxdesk::makeLinuxPlatform(&reason);
        if (platform) platform->ax->setMessagingTimeout(platform->ax->createSystemWide(), 0.25f);
    }
    if (whyNot) *whyNot = reason;
    return platform;
}

namespace {

pid_t spawn(const std::vector<std::string>& argv, posix_spawn_file_actions_t* actions) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, args[0], actions, nullptr, args.data(), environ) != 0) return -1;
    return pid;
}

}  // namespace

int runTool(const std::vector<std::string>& argv) {
    pid_t pid = spawn(argv, nullptr);
    if (pid <= 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool waitUntil(Platform& platform, const std::function<bool()>& condition, double seconds) {
    if (condition()) return true;
    MainLoop& loop = *platform.loop;
    const double deadline = loop.now() + seconds;
    bool met = false;
    auto timer = loop.scheduleTimer(0.01, true, [&](Timer&) {
        if (condition()) {
            met = true;
            loop.quit();
        } else if (loop.now() > deadline) {
            loop.quit();
        }
    });
    loop.run();
    timer->invalidate();
    return met;
}

bool waitForQuiet(Platform& platform, const std::function<uint64_t()>& count, double quiet,
                  double seconds) {
    uint64_t seen = count();
    double since = platform.loop->now();
    return waitUntil(
        platform,
        [&] {
            const double now = platform.loop->now();
            if (count() != seen) seen = count(), since = now;
            return now - since >= quiet;
        },
        seconds);
}

TestApp::~TestApp() {
    if (pid_ > 0 && !reaped_) {
        ::kill(pid_, SIGCONT);
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (in_ >= 0) close(in_);
    if (out_ >= 0) close(out_);
}

bool TestApp::start(std::string* why, const std::vector<std::string>& extraArgs) {
#ifndef ORV_GTK_TESTAPP
    *why = "the GTK test application was not built (no GTK3 development files)";
    return false;
#else
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        *why = "pipe failed";
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    std::vector<std::string> argv{ORV_GTK_TESTAPP};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    pid_ = spawn(argv, &actions);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
    if (pid_ <= 0) {
        *why = "cannot start " + argv[0];
        return false;
    }
    fcntl(out_, F_SETFL, O_NONBLOCK);
    std::string output;
    auto ready = [&] {
        char buf[256];
        ssize_t n;
        while ((n = read(out_, buf, sizeof buf)) > 0) output.append(buf, static_cast<size_t>(n));
        return output.find("ready") != std::string::npos;
    };
    if (!waitUntil(platform_, ready, 10)) {
        *why = "the test application did not show its window";
        return false;
    }
    AccessibilityAPI& ax = *platform_.ax;
    auto onDesktop = [&] {
        AXValue role;
        return ax.copyAttributeValue(ax.createApplication(pid_), "AXFocusedUIElement", &role) ==
               kAXErrorSuccess;
    };
    if (!waitUntil(platform_, onDesktop, 10)) {
        *why = "the test application did not appear on the accessibility desktop with focus";
        return false;
    }
    // Tests start once the window is active and what its activation set off is handled: on a
    // loaded machine a late activation or focus-in would pass for the test's own.
    auto front = [&] {
        auto f = platform_.workspace->frontmostApplication();
        return f && f->pid == pid_;
    };
    if (!waitUntil(platform_, front, 10)) {
        *why = "the test application's window did not become active";
        return false;
    }
    if (auto desktop = linuxdesk::atspiDesktopOf(platform_))
        waitForQuiet(
            platform_, [&] { return desktop->stats().events; }, 0.2, 5);
    return true;
#endif
}

void TestApp::send(const std::string& command) {
    std::string line = command + "\n";
    if (in_ >= 0) (void)!write(in_, line.data(), line.size());
}

bool TestApp::awaitOutput(const std::string& text, double seconds) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        char buf[256];
        ssize_t n;
        while ((n = read(out_, buf, sizeof buf)) > 0) output_.append(buf, static_cast<size_t>(n));
        if (auto at = output_.find(text); at != std::string::npos) {
            output_.erase(0, at + text.size());
            return true;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (n == 0 || left.count() <= 0) return false;  // the window closed, or time is up
        pollfd fd{out_, POLLIN, 0};
        poll(&fd, 1, static_cast<int>(left.count()) + 1);
    }
}

void TestApp::kill(int signal) {
    if (pid_ <= 0 || reaped_) return;
    ::kill(pid_, signal);
    if (signal == SIGKILL) {
        waitpid(pid_, nullptr, 0);
        reaped_ = true;
    }
}

void LinuxDesktopTest::SetUp() {
    // Inside desktop-session.sh a missing piece is a failure, elsewhere a reason to skip.
    const bool inSession = std::getenv("ORV_DESKTOP_SESSION") != nullptr;
    std::string why;
    platform_ = sessionPlatform(&why);
    if (!platform_) {
        if (inSession) FAIL() << "the desktop session has no usable backend: " << why;
        GTEST_SKIP() << "no desktop session: " << why;
    }
#ifndef ORV_GTK_TESTAPP
    if (inSession)
        FAIL() << "built without the GTK test application: install libgtk-3-dev, rebuild";
    GTEST_SKIP() << "the GTK test application was not built (no GTK3 development files)";
#endif
    app_ = std::make_unique<TestApp>(*platform_);
    if (!app_->start(&why)) FAIL() << why;
}

void LinuxDesktopTest::TearDown() {
    if (app_) {
        const pid_t pid = app_->pid();
        app_.reset();
        // Let the desktop forget it before the next test starts its own.
        if (platform_ && pid > 0)
            linuxtest::waitUntil(
                *platform_,
                [&] { return !platform_->workspace->runningApplicationWithProcessIdentifier(pid); },
                5);
    }
}

}  // namespace orv::linuxtest

#endif  // __has_include(<atspi/atspi.h>)
