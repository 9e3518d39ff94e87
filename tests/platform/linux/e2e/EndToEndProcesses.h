#pragma once

// The agent, the magnifier stand-in and the GTK test window as child processes of the test, their
// output read as lines, every wait a poll on their pipes with a deadline.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace orv::e2e {

using Clock = std::chrono::steady_clock;

// Lines from one pipe, with the time each was read.
struct LineSource {
    int fd = -1;
    bool eof = false;
    std::string partial;
    std::vector<std::string> lines;
    std::vector<Clock::time_point> times;
    void readAvailable();
};

class Child {
  public:
    Child() = default;
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Standard output and error come back through pipes; standard input is a pipe when asked.
    bool start(const std::vector<std::string>& argv, bool withStdin, std::string* why);
    void send(const std::string& line);
    void signal(int sig);
    // Still running (not reaped, no exit seen).
    bool running();
    // Sends SIGKILL (after SIGCONT) and reaps.
    void kill();
    // Status as waitpid gave it once the process has ended.
    std::optional<int> status() const { return status_; }
    pid_t pid() const { return pid_; }

    LineSource out, err;

  private:
  public:
    // Readable once the process has ended (a pidfd), -1 where the kernel has none.
    int exitFd() const { return exitFd_; }

  private:
    pid_t pid_ = 0;
    int in_ = -1;
    int exitFd_ = -1;
    std::optional<int> status_;
};

// Reads whatever the children have written until `done` holds or `seconds` pass.
bool waitFor(const std::vector<Child*>& children, const std::function<bool()>& done,
             double seconds);

// Runs a helper program (xdotool) to its end; its exit status, -1 when it failed to start or
// did not end within `seconds` (it is then killed).
int runTool(const std::vector<std::string>& argv, double seconds = 10);

// A focus area: rectangle in the agent's coordinates, edges and source.
struct Area {
    int x = 0, y = 0, width = 0, height = 0;
    int edgeX = 0, edgeY = 0, source = 0;
    bool operator==(const Area&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Area& a);

// A JSON line with integer fields x, y, width, height, edgeX, edgeY, source (the visor's and the
// agent's --print-focus); nothing for any other line.
std::optional<Area> parseArea(const std::string& line);

// "focus NAME X Y W H T" or "at NAME X Y W H T" from the test window.
struct FocusReport {
    std::string kind;
    std::string name;
    int x = 0, y = 0, width = 0, height = 0;
};
std::optional<FocusReport> parseReport(const std::string& line);

// "caret NAME OFFSET X Y W H T" from the test window: GTK's own text cursor rectangle.
struct CaretReport {
    std::string name;
    int offset = 0;
    int x = 0, y = 0, width = 0, height = 0;
};
std::optional<CaretReport> parseCaret(const std::string& line);

}  // namespace orv::e2e
