#include "support/LogCapture.h"

namespace orv::test {

class LogCapture::Sink : public LogSink {
  public:
    void writeLine(const std::string& line) override {
        std::lock_guard lock(m);
        lines.push_back(line);
    }
    mutable std::mutex m;
    std::vector<std::string> lines;
};

LogCapture::LogCapture(uint32_t verbosity)
    : sink_(std::make_shared<Sink>()),
      previous_(systemLogSink()),
      previousVerbosity_(OrvLogger::verbosity()) {
    setSystemLogSink(sink_);
    OrvLogger::setVerbosity(verbosity);
}

LogCapture::~LogCapture() {
    setSystemLogSink(previous_);
    OrvLogger::setVerbosity(previousVerbosity_);
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(sink_->m);
    return sink_->lines;
}

size_t LogCapture::countContaining(const std::string& text) const {
    size_t n = 0;
    for (auto& l : lines())
        if (l.find(text) != std::string::npos) ++n;
    return n;
}

void LogCapture::clear() {
    std::lock_guard lock(sink_->m);
    sink_->lines.clear();
}

}  // namespace orv::test
