#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Common/OrvLogger.h"

namespace orv::test {

// Collects every line written to the system log while alive, and restores verbosity and sink.
class LogCapture {
  public:
    explicit LogCapture(uint32_t verbosity = 3);
    ~LogCapture();
    std::vector<std::string> lines() const;
    size_t count() const { return lines().size(); }
    // Lines that contain the text.
    size_t countContaining(const std::string& text) const;
    void clear();

  private:
    class Sink;
    std::shared_ptr<Sink> sink_;
    std::shared_ptr<LogSink> previous_;
    uint32_t previousVerbosity_;
};

}  // namespace orv::test
