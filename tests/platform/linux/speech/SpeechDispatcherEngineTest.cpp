// speech-dispatcher for real: the session's daemon (tests/platform/linux/desktop-session.sh sets
// SPEECHD_ADDRESS), and a daemon of the test's own that it kills and restarts.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "SpeechTestSupport.h"
#include "platform/linux/SpeechDispatcherEngine.h"

extern char** environ;

// libspeechd 0.11 keeps a copy of the socket path when spd_open2 cannot connect, which the outage
// test makes it do. Its frames are only seen with the slow unwinder (GLib's g_malloc has no frame
// pointers), so this test program alone uses it, and lets that one leak of the library pass.
extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}
extern "C" const char* __lsan_default_suppressions() {
    return "leak:spd_open2\n";
}

namespace orv::linuxdesk {
namespace {

using speechtest::Ends;
using speechtest::turnUntil;
namespace fs = std::filesystem;

const std::string kLong =
    "This sentence is long enough that it is still being spoken when the test stops it, "
    "because it goes on about nothing in particular for quite a while.";

class SessionSpeech : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!std::getenv("ORV_DESKTOP_SESSION") || !std::getenv("SPEECHD_ADDRESS"))
            GTEST_SKIP() << "needs the speech daemon of tests/platform/linux/desktop-session.sh";
        std::string why;
        engine_ = makeSpeechDispatcherEngine(loop_, &why);
        ASSERT_TRUE(engine_);
        ASSERT_TRUE(why.empty()) << why;
        synth_ = engine_->createSynthesizer();
        synth_->setDidFinishSpeaking(ends_.callback());
    }

    std::shared_ptr<GLibMainLoop> loop_ = std::make_shared<GLibMainLoop>();
    std::shared_ptr<SpeechEngine> engine_;
    std::unique_ptr<SpeechSynthesizer> synth_;
    Ends ends_;
};

TEST_F(SessionSpeech, AnUtteranceEndsOnTheMainLoop) {
    ASSERT_TRUE(synth_->startSpeakingString("Hello."));
    EXPECT_TRUE(synth_->isSpeaking());
    ASSERT_TRUE(turnUntil(*loop_, [&] { return !ends_.seen.empty(); }, 20));
    EXPECT_TRUE(ends_.seen[0]);
    EXPECT_FALSE(synth_->isSpeaking());
    // An utterance of nothing ends too.
    ASSERT_TRUE(synth_->startSpeakingString("  "));
    ASSERT_TRUE(turnUntil(*loop_, [&] { return ends_.seen.size() == 2; }, 5));
    EXPECT_TRUE(ends_.seen[1]);
}

TEST_F(SessionSpeech, StopAndInterruptionReportStoppedAndLateEventsStayQuiet) {
    ASSERT_TRUE(synth_->startSpeakingString(kLong));
    synth_->stopSpeaking();
    EXPECT_FALSE(synth_->isSpeaking());
    EXPECT_TRUE(ends_.seen.empty()) << "a stop reports on a later turn";
    ASSERT_TRUE(synth_->startSpeakingString(kLong));
    ASSERT_TRUE(synth_->startSpeakingString("Done."));  // interrupts the one before
    ASSERT_TRUE(turnUntil(*loop_, [&] { return ends_.seen.size() >= 3; }, 20));
    // Whatever the daemon says later about the first two must not count a second time.
    ASSERT_TRUE(synth_->startSpeakingString("Again."));
    ASSERT_TRUE(turnUntil(*loop_, [&] { return ends_.seen.size() >= 4; }, 20));
    EXPECT_EQ(ends_.seen, (std::vector<bool>{false, false, true, true}));
}

TEST_F(SessionSpeech, VoicesAreListedAndOneOfThemSpeaks) {
    auto voices = engine_->availableVoices();
    ASSERT_FALSE(voices.empty());
    const std::string def = engine_->defaultVoice();
    EXPECT_NE(std::find(voices.begin(), voices.end(), def), voices.end()) << def;
    const std::string other = voices.back() == def ? voices.front() : voices.back();
    auto synth = engine_->createSynthesizer();
    EXPECT_EQ(synth->voice(), def);
    EXPECT_FALSE(synth->setVoice("espeak-ng/No Such Voice"));
    EXPECT_FALSE(synth->setVoice("no-module-part"));
    ASSERT_TRUE(synth->setVoice(other));
    EXPECT_EQ(synth->voice(), other);
    Ends ends;
    synth->setDidFinishSpeaking(ends.callback());
    ASSERT_TRUE(synth->startSpeakingString("One two three."));
    ASSERT_TRUE(turnUntil(*loop_, [&] { return !ends.seen.empty(); }, 20));
    EXPECT_TRUE(ends.seen[0]);
}

// A daemon of the test's own, on a private socket, playing into ALSA's null device.
class PrivateDaemon {
  public:
    PrivateDaemon() : dir_(fs::temp_directory_path() / ("orv-speechd-" + std::to_string(getpid()))) {
        fs::create_directories(dir_ / "config/speech-dispatcher");
        std::ofstream(dir_ / "asound.conf") << "pcm.!default { type null }\n";
        std::ofstream(dir_ / "config/speech-dispatcher/speechd.conf")
            << "CommunicationMethod \"unix_socket\"\nSocketPath \"" << socket() << "\"\n"
            << "Timeout 0\nLogDir \"" << dir_.string() << "\"\nAudioOutputMethod \"alsa\"\n"
            << "AddModule \"espeak-ng\" \"sd_espeak-ng\" "
               "\"/etc/speech-dispatcher/modules/espeak-ng.conf\"\nDefaultModule espeak-ng\n";
    }
    ~PrivateDaemon() {
        stop();
        fs::remove_all(dir_);
    }
    std::string socket() const { return (dir_ / "speechd.sock").string(); }

    // --spawn returns once the daemon listens.
    bool start() {
        std::vector<std::string> env{"XDG_CONFIG_HOME=" + (dir_ / "config").string(),
                                     "ALSA_CONFIG_PATH=/usr/share/alsa/alsa.conf:" +
                                         (dir_ / "asound.conf").string()};
        for (char** e = environ; *e; ++e)
            if (std::strncmp(*e, "XDG_CONFIG_HOME=", 16) && std::strncmp(*e, "ALSA_CONFIG_PATH=", 17))
                env.push_back(*e);
        std::vector<char*> envp;
        for (auto& s : env) envp.push_back(s.data());
        envp.push_back(nullptr);
        std::string pidFile = (dir_ / "pid").string();
        fs::remove(pidFile);
        const char* argv[] = {"speech-dispatcher", "--spawn", "-P", pidFile.c_str(), nullptr};
        pid_t launcher = 0;
        if (posix_spawnp(&launcher, argv[0], nullptr, nullptr, const_cast<char**>(argv),
                         envp.data()) != 0)
            return false;
        int status = 0;
        if (!exited(launcher, 20) || waitpid(launcher, &status, 0) != launcher ||
            !WIFEXITED(status) || WEXITSTATUS(status) != 0)
            return false;
        pid_ = awaitPid(20);
        return pid_ > 0;
    }
    void stop() {
        if (pid_ <= 0) pid_ = ownPid();  // a start that gave up waiting
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        exited(pid_, 20);
        pid_ = 0;
    }

  private:
    // The daemon writes its process id (into a file it keeps open) only after the launcher has
    // returned: wait for it, at most `seconds`.
    pid_t awaitPid(double seconds) {
        const int fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        inotify_add_watch(fd, dir_.c_str(), IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        pid_t pid = 0;
        while (true) {
            pid = ownPid();
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (pid > 0 || left.count() <= 0) break;
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) != 1) break;
            char events[4096];
            while (read(fd, events, sizeof events) > 0) {
            }
        }
        close(fd);
        return pid;
    }

    // The pid file's process, when it is this daemon: a file caught half written names another.
    pid_t ownPid() const {
        pid_t pid = 0;
        std::ifstream(dir_ / "pid") >> pid;
        if (pid <= 0) return 0;
        std::ifstream in("/proc/" + std::to_string(pid) + "/cmdline");
        std::string cmdline((std::istreambuf_iterator<char>(in)), {});
        return cmdline.find((dir_ / "pid").string()) != std::string::npos ? pid : 0;
    }

    // Waits for the process to end, at most `seconds`, on its pidfd.
    static bool exited(pid_t pid, double seconds) {
        const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        if (fd < 0) return true;  // already gone
        pollfd p{fd, POLLIN, 0};
        const bool done = poll(&p, 1, static_cast<int>(seconds * 1000)) == 1;
        close(fd);
        return done;
    }

    fs::path dir_;
    pid_t pid_ = 0;
};

bool daemonInstalled() {
    for (const char* d : {"/usr/bin/speech-dispatcher", "/usr/local/bin/speech-dispatcher"})
        if (access(d, X_OK) == 0) return true;
    return false;
}

TEST(SpeechDispatcherOutage, SpeechComesBackWhenTheDaemonDoes) {
    if (!daemonInstalled()) GTEST_SKIP() << "speech-dispatcher is not installed";
    auto loop = std::make_shared<GLibMainLoop>();
    PrivateDaemon daemon;
    SpeechDispatcherOptions options;
    options.address = "unix_socket:" + daemon.socket();
    options.autospawn = false;
    options.reconnectInterval = 0;
    std::string why;
    auto engine = makeSpeechDispatcherEngine(loop, options, &why);
    ASSERT_TRUE(engine) << "an engine that reconnects later, not none";
    EXPECT_FALSE(why.empty());
    auto synth = engine->createSynthesizer();
    Ends ends;
    synth->setDidFinishSpeaking(ends.callback());
    EXPECT_FALSE(synth->startSpeakingString("Nobody listens."));
    EXPECT_FALSE(synth->isSpeaking());

    ASSERT_TRUE(daemon.start());
    ASSERT_TRUE(synth->startSpeakingString("Now somebody does."));
    ASSERT_TRUE(turnUntil(*loop, [&] { return !ends.seen.empty(); }, 20));
    EXPECT_TRUE(ends.seen[0]);

    daemon.stop();
    EXPECT_FALSE(synth->startSpeakingString("Gone again."));
    ASSERT_TRUE(daemon.start());
    ASSERT_TRUE(synth->startSpeakingString("Back."));
    ASSERT_TRUE(turnUntil(*loop, [&] { return ends.seen.size() >= 2; }, 20));
    EXPECT_EQ(ends.seen, (std::vector<bool>{true, true}));
}

}  // namespace
}  // namespace orv::linuxdesk
