// Reading a scenario file from a path someone gave: only a regular file, and only so much of it.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "platform/sim/SimScenarioParts.h"

namespace orv::sim {

namespace {

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

std::string systemError(int error) {
    return std::generic_category().message(error);
}

std::string sizeText(size_t bytes) {
    if (bytes % (size_t{1} << 20) == 0) return std::to_string(bytes >> 20) + " MiB";
    return std::to_string(bytes) + " bytes";
}

}  // namespace

ScenarioParse loadScenarioFile(const std::string& path, size_t maxBytes) {
    auto refuse = [&](const std::string& why) {
        ScenarioParse out;
        out.error = scenario_parts::shownPath(path) + ": " + why;
        return out;
    };
    if (path.find('\0') != std::string::npos) return refuse("cannot be read: a NUL in the path");
    // Not blocking: opening a named pipe would otherwise wait for a writer. The checks below are
    // on the opened descriptor, so the path cannot be swapped between check and read.
    Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (fd.get() < 0) return refuse("cannot be read: " + systemError(errno));
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) return refuse("cannot be read: " + systemError(errno));
    if (S_ISDIR(st.st_mode)) return refuse("is a directory, not a scenario file");
    if (!S_ISREG(st.st_mode)) return refuse("is not a regular file");
    const std::string tooLarge =
        "is larger than " + sizeText(maxBytes) + ", the most a scenario file may hold";
    if (st.st_size < 0 || static_cast<unsigned long long>(st.st_size) > maxBytes)
        return refuse(tooLarge);

    // Files of the kernel's (/proc) report size 0 and hold more, and a file may grow while it is
    // read: read up to one byte past the bound, whatever the size said.
    std::string text;
    text.resize(std::min(maxBytes, static_cast<size_t>(st.st_size)) + 1);
    size_t have = 0;
    for (;;) {
        if (have == text.size()) {
            if (text.size() > maxBytes) break;
            text.resize(std::min(maxBytes + 1, std::max(text.size() * 2, size_t{4096})));
        }
        ssize_t n = ::read(fd.get(), text.data() + have, text.size() - have);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return refuse("cannot be read: " + systemError(errno));
        if (n == 0) break;
        have += static_cast<size_t>(n);
    }
    if (have > maxBytes) return refuse(tooLarge);
    text.resize(have);
    return parseScenario(text, path);
}

}  // namespace orv::sim
