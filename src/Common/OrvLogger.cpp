#include "Common/OrvLogger.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
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

class StderrSink : public LogSink {
  public:
    void writeLine(const std::string& line) override {
        using namespace std::chrono;
        const auto now = system_clock::now();
        const std::time_t t = system_clock::to_time_t(now);
        const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
        std::tm tm{};
        localtime_r(&t, &tm);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
        std::string out = std::string(stamp) + "." + (ms < 100 ? (ms < 10 ? "00" : "0") : "") +
                          std::to_string(ms) + " " + name_ + "[" + std::to_string(::getpid()) +
                          "] " + line + "\n";
        // One write per line, so lines from several threads do not interleave.
        std::fwrite(out.data(), 1, out.size(), stderr);
    }

  private:
    std::string name_ = processName();
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
