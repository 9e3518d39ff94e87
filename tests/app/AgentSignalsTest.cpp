// The agent as it ships, on the simulated desktop: what signals and unread or closed outputs do
// to it. Every wait is bounded and ends on the child's output or its end.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "app/AgentProcess.h"

namespace orv::test {
namespace {

// Bound on waiting for something the agent should do at once.
constexpr double kPatience = 10;

bool exitedWith(std::optional<int> status, int code) {
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == code;
}

std::string errText(const AgentProcess& a) {
    std::string s;
    for (const auto& l : a.err.lines) s += "  " + l + "\n";
    return s;
}

class AgentSignals : public ::testing::Test {
  protected:
    void SetUp() override {
        if (agentProgram().empty()) GTEST_SKIP() << "the agent program was not built";
    }
    std::vector<std::string> simulated(std::vector<std::string> more) {
        std::vector<std::string> args{"--desktop=sim", "--magnifier-port",
                                      magnifier.portArgument(), "--print-focus"};
        args.insert(args.end(), more.begin(), more.end());
        return args;
    }
    SilentMagnifier magnifier;
};

TEST_F(AgentSignals, AClosedOutputStopsOnlyWhatWentThere) {
    AgentProcess reference;
    ASSERT_TRUE(reference.start(simulated({"--verbosity", "3"})));
    const auto refStatus = reference.waitExit(kPatience);
    ASSERT_TRUE(exitedWith(refStatus, 0)) << describeStatus(refStatus) << errText(reference);
    ASSERT_GE(reference.out.lines.size(), 2u);
    // The log's word for the end of the timeline ("scenario 10.000: end").
    std::string end;
    for (const auto& l : reference.err.lines)
        if (auto at = l.find("scenario "); at != std::string::npos && l.ends_with(": end"))
            end = l.substr(at);
    ASSERT_FALSE(end.empty()) << errText(reference);

    // Standard output closed before the first focus line, as by `| head -0`.
    AgentProcess noOut;
    ASSERT_TRUE(noOut.start(simulated({"--verbosity", "3"})));
    noOut.out.close();
    auto status = noOut.waitExit(kPatience);
    EXPECT_TRUE(exitedWith(status, 0)) << describeStatus(status) << errText(noOut);
    EXPECT_TRUE(noOut.err.contains("standard output is closed")) << errText(noOut);
    // The scenario played to its end after the focus lines stopped.
    EXPECT_TRUE(noOut.err.contains(end)) << errText(noOut);

    // Standard error closed: the log stops, the focus lines are all there.
    AgentProcess noErr;
    ASSERT_TRUE(noErr.start(simulated({"--verbosity", "3"})));
    noErr.err.close();
    status = noErr.waitExit(kPatience);
    EXPECT_TRUE(exitedWith(status, 0)) << describeStatus(status);
    EXPECT_EQ(noErr.out.lines, reference.out.lines);
}

TEST_F(AgentSignals, AStandardErrorNobodyReadsHoldsNeitherTheAgentNorItsEnd) {
    FullPipe unread;
    AgentProcess agent;
    ASSERT_TRUE(agent.start(simulated({"--realtime", "--verbosity", "3"}), {-1, unread.write}));
    unread.closeWrite();
    EXPECT_TRUE(agent.waitFor([&] { return !agent.out.lines.empty(); }, kPatience))
        << "no focus line: the agent is held by its log";
    agent.signal(SIGTERM);
    const auto status = agent.waitExit(kPatience);
    EXPECT_TRUE(exitedWith(status, 0)) << describeStatus(status);
}

TEST_F(AgentSignals, TerminationBeforeTheMainLoopRunsEndsInOrder) {
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(strsignal(sig));
        // Start-up's first focus line waits on a standard output nobody reads yet, so the signal
        // surely comes before the main loop runs.
        FullPipe held;
        AgentProcess agent;
        ASSERT_TRUE(agent.start(simulated({}), {held.write, -1}));
        held.closeWrite();
        ASSERT_TRUE(agent.waitForLine(agent.err, "simulated desktop, playing", kPatience))
            << describeStatus(agent.waitExit(0)) << errText(agent);
        agent.signal(sig);
        agent.out.fd = held.read;
        held.read = -1;
        const auto status = agent.waitExit(kPatience);
        EXPECT_TRUE(exitedWith(status, 0)) << describeStatus(status) << errText(agent);
        // Only what start-up decided: in virtual time a timeline once started would have
        // played to its end at once, and ended with status 0 all the same.
        ASSERT_FALSE(agent.out.lines.empty());
        for (auto line : agent.out.lines) {
            line.erase(0, line.find_first_not_of('.'));  // the page that held it
            EXPECT_EQ(line.rfind("{\"time\":0.000,", 0), 0u) << line;
        }
    }
}

TEST_F(AgentSignals, AHangupLeavesTheAgentFollowingTheFocus) {
    AgentProcess agent;
    ASSERT_TRUE(agent.start(simulated({"--realtime"})));
    ASSERT_TRUE(agent.waitFor([&] { return !agent.out.lines.empty(); }, kPatience));
    agent.signal(SIGHUP);
    // The demo's next focus change is a second later.
    EXPECT_TRUE(agent.waitFor([&] { return agent.out.lines.size() >= 2; }, kPatience))
        << describeStatus(agent.waitExit(0));
    agent.signal(SIGTERM);
    const auto status = agent.waitExit(kPatience);
    EXPECT_TRUE(exitedWith(status, 0)) << describeStatus(status);
}

// Standard output is a pipe nobody reads, so the first focus line holds the main loop; the stall
// probe says so while it lasts.
class HeldMainLoop : public AgentSignals {
  protected:
    void SetUp() override {
        AgentSignals::SetUp();
        if (IsSkipped()) return;
        ASSERT_TRUE(agent.start(simulated({"--realtime", "--report-stalls", "50"}),
                                {held.write, -1}));
        held.closeWrite();
        ASSERT_TRUE(agent.waitForLine(agent.err, "main loop still stalled after", kPatience))
            << describeStatus(agent.waitExit(0)) << errText(agent);
    }
    FullPipe held;
    AgentProcess agent;
};

TEST_F(HeldMainLoop, TheStallIsMeasuredOnceTheLoopIsBack) {
    // Reading standard output lets the loop go on.
    agent.out.fd = held.read;
    held.read = -1;
    int longest = 0;
    EXPECT_TRUE(agent.waitFor(
        [&] {
            for (const auto& l : agent.err.lines) {
                int ms = 0;
                if (std::sscanf(l.c_str(), "ocuvane-agent: main loop stalled for %d ms", &ms) == 1)
                    longest = std::max(longest, ms);
            }
            return longest > 50;
        },
        kPatience))
        << errText(agent);
    agent.signal(SIGTERM);
    const auto status = agent.waitExit(kPatience);
    EXPECT_TRUE(exitedWith(status, 0)) << describeStatus(status);
}

TEST_F(HeldMainLoop, TerminationStillEndsTheAgentWithinTheBound) {
    const auto asked = std::chrono::steady_clock::now();
    agent.signal(SIGTERM);
    const auto status = agent.waitExit(kPatience);
    const double took =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - asked).count();
    EXPECT_TRUE(exitedWith(status, 4)) << describeStatus(status) << errText(agent);
    EXPECT_TRUE(agent.err.contains("could not end in order within 2 s")) << errText(agent);
    // It waited for the orderly end first.
    EXPECT_GT(took, 1.5);
}

}  // namespace
}  // namespace orv::test
