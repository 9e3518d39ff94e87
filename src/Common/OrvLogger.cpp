#include "Common/OrvLogger.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <mutex>

namespace orv {

namespace {

std::string processName() {
    std::ifstream f("/proc/self/comm");
    std::string name;
    if (f && std::getline(f, name) && !name.empty()) return name;
    return "ocuvane";
}

// Standard error is shared with whoever started the agent (a terminal, a pipe, a journal) and may
// stop being read. Its descriptor stays blocking, because making it non-blocking would change it
// for everyone sharing it; instead each line waits a bounded time for room and is dropped when
// none comes, so that the log never holds the main loop. Once it is closed the log stops.
class StderrSink : public LogSink {
  public:
    void writeLine(const std::string& line) override {
        std::lock_guard lock(mutex_);
        if (closed_) return;
        // While lines are being dropped, none waits: the reader has shown it is not there.
        if (dropped_ > 0) {
            if (!put(stamped("(" + std::to_string(dropped_) +
                             " log lines dropped: standard error was not being read)"),
                     0)) {
                if (!closed_) ++dropped_;
                return;
            }
            dropped_ = 0;
        }
        if (!put(stamped(line), kWaitMs) && !closed_) ++dropped_;
    }

  private:
    static constexpr int kWaitMs = 100;

    std::string stamped(const std::string& line) const {
        using namespace std::chrono;
        const auto now = system_clock::now();
        const std::time_t t = system_clock::to_time_t(now);
        const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
        std::tm tm{};
        localtime_r(&t, &tm);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
        return std::string(stamp) + "." + (ms < 100 ? (ms < 10 ? "00" : "0") : "") +
               std::to_string(ms) + " " + name_ + "[" + std::to_string(::getpid()) + "] " + line +
               "\n";
    }

    // Writes in pieces of at most PIPE_BUF bytes, each only once poll has found room for it, so
    // that no write blocks and a line up to PIPE_BUF bytes goes out whole (lines from several
    // threads do not interleave). False when the room did not come within waitMs or standard
    // error is closed (closed_ is then set).
    bool put(std::string text, int waitMs) {
        if (midLine_) text.insert(0, "\n");
        size_t done = 0;
        while (done < text.size()) {
            pollfd p{STDERR_FILENO, POLLOUT, 0};
            const int r = ::poll(&p, 1, done == 0 ? waitMs : kWaitMs);
            if (r < 0 && errno == EINTR) continue;
            if (r < 0 || (r > 0 && (p.revents & (POLLERR | POLLNVAL)))) {
                closed_ = true;
                return false;
            }
            if (r == 0) {
                midLine_ = midLine_ || done > 0;
                return false;
            }
            const size_t piece = std::min(text.size() - done, size_t(PIPE_BUF));
            const ssize_t n = ::write(STDERR_FILENO, text.data() + done, piece);
            if (n < 0) {
                if (errno == EINTR || errno == EAGAIN) continue;
                closed_ = true;  // EPIPE, EIO after a hang-up, EBADF
                return false;
            }
            done += static_cast<size_t>(n);
            midLine_ = false;
        }
        return true;
    }

    std::string name_ = processName();
    std::mutex mutex_;
    bool closed_ = false;
    bool midLine_ = false;  // a line was cut off: the next text starts on a line of its own
    size_t dropped_ = 0;
};

class SyslogSink : public LogSink {
  public:
    explicit SyslogSink(std::string ident) : ident_(std::move(ident)) {
        ::openlog(ident_.c_str(), LOG_PID, LOG_USER);
    }
    void writeLine(const std::string& line) override { ::syslog(LOG_NOTICE, "%s", line.c_str()); }

  private:
    std::string ident_;  // openlog keeps the pointer
};

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}
std::shared_ptr<LogSink>& sinkSlot() {
    static std::shared_ptr<LogSink> sink = makeStderrSink();
    return sink;
}

}  // namespace

std::shared_ptr<LogSink> makeStderrSink() {
    return std::make_shared<StderrSink>();
}
std::shared_ptr<LogSink> makeSyslogSink(const std::string& ident) {
    return std::make_shared<SyslogSink>(ident);
}

void setSystemLogSink(std::shared_ptr<LogSink> sink) {
    std::lock_guard lock(sinkMutex());
    sinkSlot() = sink ? std::move(sink) : makeStderrSink();
}

std::shared_ptr<LogSink> systemLogSink() {
    std::lock_guard lock(sinkMutex());
    return sinkSlot();
}

// Whatever a message carries from outside, it reaches the sink as one line of plain text.
void systemLog(const std::string& line) {
    if (auto sink = systemLogSink()) sink->writeLine(escapeUnprintable(line));
}

OrvLoggerInstance& OrvLogger::instance() {
    static OrvLoggerInstance shared;
    return shared;
}

std::string OrvLoggerInstance::prefix(std::string_view text, uint32_t level) const {
    switch (level) {
        case kError:
            return "(error) " + std::string(text);
        case kWarning:
            return "(warning) " + std::string(text);
        case kInfo:
            return "(info) " + std::string(text);
        default:
            return "(unknown) " + std::string(text);
    }
}

void OrvLoggerInstance::addMessage(const std::string& text, uint32_t level) {
    if (!isLogged(level)) return;
    systemLog(prefix(text, level));
}

void OrvLoggerInstance::addMessageOf(uint32_t level, std::string_view fmt,
                                     const std::vector<FormatArg>& args) {
    if (!isLogged(level)) return;
    systemLog(formatArgs(prefix(fmt, level), args));
}

}  // namespace orv
