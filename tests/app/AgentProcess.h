#pragma once

// The built ocuvane-agent as a child process of the test: its output read as lines, every wait a
// poll on its pipes and on its end (a pidfd), with a deadline.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace orv::test {

// Path of the agent under test: $ORV_AGENT_UNDER_TEST, else the one built with the tests.
std::string agentProgram();
// The bundled demo scenario.
std::string demoScenario();

// A pipe of one page whose page is already written: the first write to its write end blocks
// until someone reads. Both ends close-on-exec; read end non-blocking.
struct FullPipe {
    int read = -1;
    int write = -1;
    FullPipe();
    ~FullPipe();
    FullPipe(const FullPipe&) = delete;
    FullPipe& operator=(const FullPipe&) = delete;
    void closeWrite();
};

// A UDP socket on 127.0.0.1 standing in for the magnifier: it listens and never answers.
class SilentMagnifier {
  public:
    SilentMagnifier();
    ~SilentMagnifier();
    uint16_t port() const { return port_; }
    std::string portArgument() const { return std::to_string(port_); }
    // Datagrams that have arrived so far.
    size_t received();

  private:
    int fd_ = -1;
    uint16_t port_ = 0;
    size_t count_ = 0;
};

struct LineStream {
    int fd = -1;
    std::string partial;
    std::vector<std::string> lines;
    // Reads what is there; at the end of the stream the descriptor is closed (fd becomes -1).
    void readAvailable();
    void close();
    bool contains(const std::string& text) const;
};

// Descriptors for the child's standard output and error; -1 gives a pipe the test reads.
struct Outputs {
    int out = -1;
    int err = -1;
};

class AgentProcess {
  public:
    AgentProcess() = default;
    ~AgentProcess();  // a child still running is killed
    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    // Starts the agent with these arguments (after the program name); standard input is empty.
    bool start(const std::vector<std::string>& args, Outputs outputs = Outputs());
    void signal(int sig);

    // Reads the child's output until `done` holds, giving up after `seconds`.
    bool waitFor(const std::function<bool()>& done, double seconds);
    bool waitForLine(const LineStream& stream, const std::string& text, double seconds);
    // The child's end: waitpid's status, nothing when it has not ended within `seconds`. What
    // it wrote is read to the end.
    std::optional<int> waitExit(double seconds);

    pid_t pid() const { return pid_; }
    LineStream out, err;

  private:
    void reap(bool block);

    pid_t pid_ = -1;
    int exitFd_ = -1;
    std::optional<int> status_;
};

// "exited with 0", "killed by signal 13 (Broken pipe)", ...
std::string describeStatus(std::optional<int> status);

}  // namespace orv::test
