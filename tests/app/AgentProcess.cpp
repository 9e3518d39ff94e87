#include "app/AgentProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace orv::test {

using Clock = std::chrono::steady_clock;

std::string agentProgram() {
    // Another build of the program can be put to the same tests.
    if (const char* other = std::getenv("ORV_AGENT_UNDER_TEST"); other && *other) return other;
#ifdef ORV_AGENT_EXE
    return ORV_AGENT_EXE;
#else
    return {};
#endif
}

std::string demoScenario() {
    return std::string(ORV_TESTS_DIR) + "/../scenarios/demo.scn";
}

// ---- FullPipe -----------------------------------------------------------------------------------

FullPipe::FullPipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) return;
    read = fds[0];
    write = fds[1];
    ::fcntl(write, F_SETPIPE_SZ, 4096);
    const std::string page(4096, '.');
    while (::write(write, page.data(), page.size()) > 0) {
    }
    // The child gets the blocking kind of write end, as a shell gives it.
    ::fcntl(write, F_SETFL, ::fcntl(write, F_GETFL) & ~O_NONBLOCK);
}

FullPipe::~FullPipe() {
    closeWrite();
    if (read >= 0) ::close(read);
}

void FullPipe::closeWrite() {
    if (write >= 0) ::close(write);
    write = -1;
}

// ---- SilentMagnifier ----------------------------------------------------------------------------

SilentMagnifier::SilentMagnifier() {
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return;
    port_ = ntohs(a.sin_port);
}

SilentMagnifier::~SilentMagnifier() {
    if (fd_ >= 0) ::close(fd_);
}

size_t SilentMagnifier::received() {
    char buf[2048];
    while (fd_ >= 0 && ::recv(fd_, buf, sizeof buf, 0) >= 0) ++count_;
    return count_;
}

// ---- LineStream ---------------------------------------------------------------------------------

void LineStream::readAvailable() {
    char buf[4096];
    while (fd >= 0) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return;  // nothing more for now
        if (n == 0) {
            if (!partial.empty()) lines.push_back(partial);
            partial.clear();
            close();
            return;
        }
        partial.append(buf, size_t(n));
        for (size_t nl; (nl = partial.find('\n')) != std::string::npos;) {
            lines.push_back(partial.substr(0, nl));
            partial.erase(0, nl + 1);
        }
    }
}

void LineStream::close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

bool LineStream::contains(const std::string& text) const {
    for (const auto& l : lines)
        if (l.find(text) != std::string::npos) return true;
    return false;
}

// ---- AgentProcess -------------------------------------------------------------------------------

AgentProcess::~AgentProcess() {
    if (pid_ > 0 && !status_) {
        ::kill(pid_, SIGKILL);
        reap(true);
    }
    if (exitFd_ >= 0) ::close(exitFd_);
    out.close();
    err.close();
}

bool AgentProcess::start(const std::vector<std::string>& args, Outputs outputs) {
    int outPipe[2] = {-1, -1}, errPipe[2] = {-1, -1};
    if (outputs.out < 0) {
        if (::pipe2(outPipe, O_CLOEXEC) != 0) return false;
        outputs.out = outPipe[1];
    }
    if (outputs.err < 0) {
        if (::pipe2(errPipe, O_CLOEXEC) != 0) return false;
        outputs.err = errPipe[1];
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outputs.out, 1);
    posix_spawn_file_actions_adddup2(&actions, outputs.err, 2);
    // The child starts as a shell would start it: nothing blocked, default dispositions.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGALRM}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> all{agentProgram()};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    const int rc = ::posix_spawn(&pid_, all[0].c_str(), &actions, &attr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);

    for (int fd : {outPipe[1], errPipe[1]})
        if (fd >= 0) ::close(fd);
    out.fd = outPipe[0];
    err.fd = errPipe[0];
    for (int fd : {out.fd, err.fd})
        if (fd >= 0) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    if (rc != 0) {
        pid_ = -1;
        return false;
    }
    exitFd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    return exitFd_ >= 0;
}

void AgentProcess::signal(int sig) {
    if (pid_ > 0 && !status_) ::kill(pid_, sig);
}

void AgentProcess::reap(bool block) {
    int st = 0;
    if (pid_ > 0 && !status_ && ::waitpid(pid_, &st, block ? 0 : WNOHANG) == pid_) status_ = st;
}

bool AgentProcess::waitFor(const std::function<bool()>& done, double seconds) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        out.readAvailable();
        err.readAvailable();
        if (done()) return true;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return false;
        std::vector<pollfd> fds;
        for (int fd : {out.fd, err.fd, status_ ? -1 : exitFd_})
            if (fd >= 0) fds.push_back({fd, POLLIN, 0});
        if (fds.empty()) return done();
        ::poll(fds.data(), fds.size(), static_cast<int>(left));
        reap(false);
    }
}

bool AgentProcess::waitForLine(const LineStream& stream, const std::string& text, double seconds) {
    return waitFor([&] { return stream.contains(text); }, seconds);
}

std::optional<int> AgentProcess::waitExit(double seconds) {
    // Ended, and all it wrote has been read.
    waitFor([&] { return status_ && out.fd < 0 && err.fd < 0; }, seconds);
    return status_;
}

std::string describeStatus(std::optional<int> status) {
    if (!status) return "still running";
    if (WIFEXITED(*status)) return "exited with " + std::to_string(WEXITSTATUS(*status));
    if (WIFSIGNALED(*status))
        return "killed by signal " + std::to_string(WTERMSIG(*status)) + " (" +
               strsignal(WTERMSIG(*status)) + ")";
    return "status " + std::to_string(*status);
}

}  // namespace orv::test
