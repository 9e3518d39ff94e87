#include "EndToEndProcesses.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

extern char** environ;

namespace orv::e2e {

void LineSource::readAvailable() {
    if (fd < 0 || eof) return;
    char buf[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) {
            partial.append(buf, static_cast<size_t>(n));
            continue;
        }
        if (n == 0) eof = true;
        break;
    }
    size_t nl;
    while ((nl = partial.find('\n')) != std::string::npos) {
        lines.push_back(partial.substr(0, nl));
        times.push_back(Clock::now());
        partial.erase(0, nl + 1);
    }
}

Child::~Child() {
    kill();
    for (int fd : {in_, out.fd, err.fd, exitFd_})
        if (fd >= 0) close(fd);
}

bool Child::start(const std::vector<std::string>& argv, bool withStdin, std::string* why) {
    int inPipe[2] = {-1, -1}, outPipe[2], errPipe[2];
    if ((withStdin && pipe2(inPipe, O_CLOEXEC) != 0) || pipe2(outPipe, O_CLOEXEC) != 0 ||
        pipe2(errPipe, O_CLOEXEC) != 0) {
        *why = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (withStdin)
        posix_spawn_file_actions_adddup2(&actions, inPipe[0], 0);
    else
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe[1], 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe[1], 2);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const int rc = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (withStdin) close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    in_ = inPipe[1];
    out.fd = outPipe[0];
    err.fd = errPipe[0];
    fcntl(out.fd, F_SETFL, O_NONBLOCK);
    fcntl(err.fd, F_SETFL, O_NONBLOCK);
    if (rc != 0) {
        pid_ = 0;
        *why = "cannot start " + argv[0] + ": " + std::strerror(rc);
        return false;
    }
    // A process closes its pipes a moment before it can be reaped: its end is an event of its own.
    exitFd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    return true;
}

void Child::send(const std::string& line) {
    const std::string l = line + "\n";
    if (in_ >= 0) (void)!::write(in_, l.data(), l.size());
}

void Child::signal(int sig) {
    if (running()) ::kill(pid_, sig);
}

bool Child::running() {
    if (pid_ <= 0 || status_) return false;
    int st = 0;
    if (waitpid(pid_, &st, WNOHANG) == pid_) {
        status_ = st;
        return false;
    }
    return true;
}

void Child::kill() {
    if (!running()) return;
    ::kill(pid_, SIGCONT);
    ::kill(pid_, SIGKILL);
    int st = 0;
    if (waitpid(pid_, &st, 0) == pid_) status_ = st;
}

bool waitFor(const std::vector<Child*>& children, const std::function<bool()>& done,
             double seconds) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        for (Child* c : children) {
            c->out.readAvailable();
            c->err.readAvailable();
        }
        if (done()) return true;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        std::vector<pollfd> fds;
        bool blind = false;
        for (Child* c : children) {
            for (LineSource* s : {&c->out, &c->err})
                if (s->fd >= 0 && !s->eof) fds.push_back(pollfd{s->fd, POLLIN, 0});
            if (c->running()) {
                if (c->exitFd() >= 0)
                    fds.push_back(pollfd{c->exitFd(), POLLIN, 0});
                else
                    blind = true;
            }
        }
        // Without a pidfd an ending goes unseen by poll: look again every 20 ms.
        const int wait = static_cast<int>(left.count()) + 1;
        poll(fds.data(), fds.size(), blind ? std::min(wait, 20) : wait);
    }
}

int runTool(const std::vector<std::string>& argv, double seconds) {
    Child tool;
    std::string why;
    if (!tool.start(argv, false, &why)) return -1;
    // Its pipes close when it ends.
    if (!waitFor(
            {&tool}, [&] { return tool.out.eof && tool.err.eof; }, seconds))
        return -1;
    int st = 0;
    if (waitpid(tool.pid(), &st, 0) != tool.pid()) return -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

std::ostream& operator<<(std::ostream& os, const Area& a) {
    return os << "(" << a.x << "," << a.y << " " << a.width << "x" << a.height << " edges "
              << a.edgeX << "," << a.edgeY << " source " << a.source << ")";
}

namespace {

bool jsonInt(const std::string& line, const char* key, int* out) {
    const std::string k = std::string("\"") + key + "\":";
    const size_t at = line.find(k);
    if (at == std::string::npos) return false;
    const char* start = line.c_str() + at + k.size();
    char* end = nullptr;
    const long v = std::strtol(start, &end, 10);
    if (end == start) return false;
    *out = static_cast<int>(v);
    return true;
}

}  // namespace

std::optional<Area> parseArea(const std::string& line) {
    Area a;
    if (jsonInt(line, "x", &a.x) && jsonInt(line, "y", &a.y) && jsonInt(line, "width", &a.width) &&
        jsonInt(line, "height", &a.height) && jsonInt(line, "edgeX", &a.edgeX) &&
        jsonInt(line, "edgeY", &a.edgeY) && jsonInt(line, "source", &a.source))
        return a;
    return std::nullopt;
}

std::optional<FocusReport> parseReport(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    // Names have spaces; the five numbers close the line.
    if (words.size() < 7 || (words[0] != "focus" && words[0] != "at")) return std::nullopt;
    FocusReport r;
    r.kind = words[0];
    const size_t n = words.size();
    for (size_t i = 1; i + 5 < n; ++i) r.name += (i > 1 ? " " : "") + words[i];
    r.x = std::atoi(words[n - 5].c_str());
    r.y = std::atoi(words[n - 4].c_str());
    r.width = std::atoi(words[n - 3].c_str());
    r.height = std::atoi(words[n - 2].c_str());
    return r;
}

std::optional<CaretReport> parseCaret(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) words.push_back(w);
    if (words.size() < 8 || words[0] != "caret") return std::nullopt;
    CaretReport r;
    const size_t n = words.size();
    for (size_t i = 1; i + 6 < n; ++i) r.name += (i > 1 ? " " : "") + words[i];
    r.offset = std::atoi(words[n - 6].c_str());
    r.x = std::atoi(words[n - 5].c_str());
    r.y = std::atoi(words[n - 4].c_str());
    r.width = std::atoi(words[n - 3].c_str());
    r.height = std::atoi(words[n - 2].c_str());
    return r;
}

}  // namespace orv::e2e
