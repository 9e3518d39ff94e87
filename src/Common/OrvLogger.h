#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Format.h"

namespace orv {

// Where finished log lines go. The sink adds time stamp and process name.
class LogSink {
  public:
    virtual ~LogSink() = default;
    virtual void writeLine(const std::string& line) = 0;
};

// Standard error: "2026-11-22 10:00:00.123 ocuvane-agent[1234] line".
std::shared_ptr<LogSink> makeStderrSink();
// The system log (syslog), which stamps time and process itself.
std::shared_ptr<LogSink> makeSyslogSink(const std::string& ident);

// The process's plain log, unfiltered: used by the geometry conversions, the containers and the
// trackers, which write lines straight to the system log whatever the verbosity.
void systemLog(const std::string& line);
void setSystemLogSink(std::shared_ptr<LogSink> sink);
std::shared_ptr<LogSink> systemLogSink();

template <typename... A>
void systemLogFormat(std::string_view fmt, A&&... args) {
    systemLog(format(fmt, std::forward<A>(args)...));
}

// The shared logger object; OrvLogger's class-level operations forward to it.
class OrvLoggerInstance {
  public:
    static constexpr uint32_t kError = 1;
    static constexpr uint32_t kWarning = 2;
    static constexpr uint32_t kInfo = 3;

    uint32_t verbosity() const { return verbosity_.load(std::memory_order_relaxed); }
    void setVerbosity(uint32_t v) { verbosity_.store(v, std::memory_order_relaxed); }
    bool infoMessageIsLogged() const { return verbosity() > 2; }
    bool isLogged(uint32_t level) const { return verbosity() >= level; }

    void addInfoMessage(const std::string& text) { addMessage(text, kInfo); }
    void addWarningMessage(const std::string& text) { addMessage(text, kWarning); }
    void addErrorMessage(const std::string& text) { addMessage(text, kError); }

    template <typename... A>
    void addInfoMessageWithFormat(std::string_view fmt, A&&... a) {
        if (isLogged(kInfo)) addMessageOf(kInfo, fmt, {FormatArg(std::forward<A>(a))...});
    }
    template <typename... A>
    void addWarningMessageWithFormat(std::string_view fmt, A&&... a) {
        if (isLogged(kWarning)) addMessageOf(kWarning, fmt, {FormatArg(std::forward<A>(a))...});
    }
    template <typename... A>
    void addErrorMessageWithFormat(std::string_view fmt, A&&... a) {
        if (isLogged(kError)) addMessageOf(kError, fmt, {FormatArg(std::forward<A>(a))...});
    }

    // Writes the prefixed text as it stands: a "%" in it is never read as a conversion.
    void addMessage(const std::string& text, uint32_t level);
    // Prefixes the format first, then formats it with the arguments.
    void addMessageOf(uint32_t level, std::string_view format, const std::vector<FormatArg>& args);
    std::string prefix(std::string_view text, uint32_t level) const;

  private:
    std::atomic<uint32_t> verbosity_{1};
};

// The process-wide log, filtered by verbosity (1 errors, 2 warnings, 3 info).
class OrvLogger {
  public:
    static OrvLoggerInstance& instance();

    static void setVerbosity(uint32_t v) { instance().setVerbosity(v); }
    static uint32_t verbosity() { return instance().verbosity(); }
    static bool infoMessageIsLogged() { return instance().infoMessageIsLogged(); }

    static void addInfoMessage(const std::string& t) { instance().addInfoMessage(t); }
    static void addWarningMessage(const std::string& t) { instance().addWarningMessage(t); }
    static void addErrorMessage(const std::string& t) { instance().addErrorMessage(t); }

    template <typename... A>
    static void addInfoMessageWithFormat(std::string_view fmt, A&&... a) {
        instance().addInfoMessageWithFormat(fmt, std::forward<A>(a)...);
    }
    template <typename... A>
    static void addWarningMessageWithFormat(std::string_view fmt, A&&... a) {
        instance().addWarningMessageWithFormat(fmt, std::forward<A>(a)...);
    }
    template <typename... A>
    static void addErrorMessageWithFormat(std::string_view fmt, A&&... a) {
        instance().addErrorMessageWithFormat(fmt, std::forward<A>(a)...);
    }

    static void addMessage(const std::string& text, uint32_t level) {
        instance().addMessage(text, level);
    }
    static void addMessageOf(uint32_t level, std::string_view fmt,
                             const std::vector<FormatArg>& args) {
        instance().addMessageOf(level, fmt, args);
    }
    static std::string prefix(std::string_view text, uint32_t level) {
        return instance().prefix(text, level);
    }
};

}  // namespace orv
