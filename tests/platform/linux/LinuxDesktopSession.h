#pragma once

// The Linux backend under a live desktop session (tests/platform/linux/desktop-session.sh): one
// platform per test program, and the GTK test window started per test.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/contract/SeamContract.h"

namespace orv::linuxtest {

// The platform, made once; null with the reason when this machine has no session.
std::shared_ptr<Platform> sessionPlatform(std::string* whyNot);

// Runs a helper program to its end (xdotool); its exit status, -1 when it could not start.
int runTool(const std::vector<std::string>& argv);

// The test window as a child process, driven through its standard input.
class TestApp {
  public:
    explicit TestApp(Platform& platform) : platform_(platform) {}
    ~TestApp();
    // Starts it and waits until it is on the accessibility desktop with focus on "First".
    bool start(std::string* why, const std::vector<std::string>& extraArgs = {});
    void send(const std::string& command);
    // Waits, without turning the main loop, until the window has written `text` on its standard
    // output since the last such wait (with --report it tells of each focus change once GTK has
    // made it); false after `seconds`.
    bool awaitOutput(const std::string& text, double seconds);
    void kill(int signal);
    pid_t pid() const { return pid_; }

  private:
    Platform& platform_;
    pid_t pid_ = 0;
    int in_ = -1;
    int out_ = -1;
    std::string output_;  // read and not yet matched
    bool reaped_ = false;
};

bool waitUntil(Platform& platform, const std::function<bool()>& condition, double seconds);
// Runs the loop until `count` has not changed for `quiet` seconds (at most `seconds` in all).
bool waitForQuiet(Platform& platform, const std::function<uint64_t()>& count, double quiet,
                  double seconds);

class LinuxDesktopTest : public ::testing::Test, public contract::ContractDesktop {
  protected:
    void SetUp() override;
    void TearDown() override;

    Platform& platform() override { return *platform_; }
    pid_t appPid() override { return app_->pid(); }
    void focus(const std::string& title) override { app_->send("focus " + title); }
    void killApp() override { app_->kill(SIGKILL); }
    bool waitUntil(const std::function<bool()>& condition, double seconds) override {
        return linuxtest::waitUntil(*platform_, condition, seconds);
    }
    AccessibilityAPI& ax() { return *platform_->ax; }

    std::shared_ptr<Platform> platform_;
    std::unique_ptr<TestApp> app_;
};

}  // namespace orv::linuxtest
