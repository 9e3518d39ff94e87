// The agent program's command line, run as it ships: what it refuses, what it accepts from
// launchers, and its exit statuses.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <gtest/gtest.h>

#include "app/AgentProcess.h"

namespace orv::test {
namespace {

constexpr double kPatience = 10;

std::optional<int> exitCode(std::optional<int> status) {
    if (status && WIFEXITED(*status)) return WEXITSTATUS(*status);
    return std::nullopt;
}

std::string errText(const AgentProcess& a) {
    std::string s;
    for (const auto& l : a.err.lines) s += "  " + l + "\n";
    return s;
}

class AgentOptions : public ::testing::Test {
  protected:
    void SetUp() override {
        if (agentProgram().empty()) GTEST_SKIP() << "the agent program was not built";
    }
    // Runs the agent to its end.
    std::optional<int> run(AgentProcess& agent, const std::vector<std::string>& args) {
        if (!agent.start(args)) return std::nullopt;
        return exitCode(agent.waitExit(kPatience));
    }
    std::string port() const { return magnifier.portArgument(); }
    SilentMagnifier magnifier;
};

TEST_F(AgentOptions, WhatIsNotUnderstoodIsRefusedBeforeAnythingStarts) {
    const std::vector<std::vector<std::string>> refused = {
        {"--realtime=no"},
        {"--print-focus=yes"},
        {"--help=please"},
        {"stray"},
        {"--desktop=sim", "stray"},
        {"-x"},
        {"--"},
        {""},
        {"--no-such-option"},
        {"--verbosity", "0"},
        {"--verbosity=4"},
        {"--verbosity", "1000"},
        {"--verbosity"},
        {"--scenario", "a.scn", "--scenario", "b.scn"},
        {"--magnifier-port", "41227", "--magnifier-port=41228"},
        {"--magnifier-port", "0"},
        {"--scenario="},
        {"--scenario", "--realtime"},
        {"--desktop=mars"},
        {"--desktop=linux", "--scenario", "a.scn"},
        {"--desktop=linux", "--realtime"},
        {"--log=file"},
        {"--report-stalls", "0"},
        // Virtual time has no stalls to report.
        {"--desktop=sim", "--report-stalls", "100"},
    };
    for (const auto& args : refused) {
        std::string shown;
        for (const auto& a : args) shown += "[" + a + "]";
        SCOPED_TRACE(shown);
        AgentProcess agent;
        EXPECT_EQ(run(agent, args), 2) << errText(agent);
        EXPECT_TRUE(agent.out.lines.empty());
        ASSERT_FALSE(agent.err.lines.empty());
        EXPECT_EQ(agent.err.lines.back(), "ocuvane-agent: Try 'ocuvane-agent --help'.");
        EXPECT_FALSE(agent.err.contains("playing")) << errText(agent);
    }
}

TEST_F(AgentOptions, ARefusedValueIsShownEscaped) {
    AgentProcess agent;
    EXPECT_EQ(run(agent, {"--desktop=\x1b]0;owned\x07sim"}), 2);
    ASSERT_FALSE(agent.err.lines.empty());
    EXPECT_EQ(agent.err.lines[0],
              "ocuvane-agent: --desktop takes auto, linux or sim, not '\\x1b]0;owned\\x07sim'");
}

TEST_F(AgentOptions, TheLaunchersFlagIsAcceptedAnywhereAndActsOnlyFirst) {
    const std::string flag = "-NSDocumentRevisionsDebugMode";
    const std::string notice = flag + " comes first: log-only link";

    // Elsewhere, with its value: no effect, the focus areas reach the magnifier.
    AgentProcess later;
    EXPECT_EQ(run(later, {"--desktop=sim", "--magnifier-port", port(), flag, "YES",
                          "--print-focus"}),
              0)
        << errText(later);
    EXPECT_FALSE(later.out.lines.empty());
    EXPECT_FALSE(later.err.contains(notice)) << errText(later);
    EXPECT_GT(magnifier.received(), 0u);

    // First, with any argument after it: the log-only link, said once, and nothing is sent.
    SilentMagnifier unused;
    AgentProcess first;
    EXPECT_EQ(run(first, {flag, "--desktop=sim", "--desktop=sim", "--magnifier-port",
                          unused.portArgument()}),
              0)
        << errText(first);
    size_t said = 0;
    for (const auto& l : first.err.lines) said += l.find(notice) != std::string::npos;
    EXPECT_EQ(said, 1u) << errText(first);
    EXPECT_EQ(unused.received(), 0u);
}

TEST_F(AgentOptions, AScenarioThatCannotBePlayedHasItsOwnStatus) {
    char dir[] = "/tmp/orv-agent-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const std::string bad = std::string(dir) + "/bad.scn";
    FILE* f = std::fopen(bad.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("this is not a scenario\n", f);
    std::fclose(f);

    for (const std::string& path : {bad, std::string(dir) + "/missing.scn"}) {
        SCOPED_TRACE(path);
        AgentProcess agent;
        EXPECT_EQ(run(agent, {"--desktop=sim", "--magnifier-port", port(), "--scenario", path}),
                  3)
            << errText(agent);
        EXPECT_TRUE(agent.err.contains(path)) << errText(agent);
    }
    ::unlink(bad.c_str());
    ::rmdir(dir);

    AgentProcess help;
    EXPECT_EQ(run(help, {"--help"}), 0);
    bool saysThree = false;
    for (const auto& l : help.out.lines) saysThree |= l.find("3 when the scenario") != l.npos;
    EXPECT_TRUE(saysThree);
}

}  // namespace
}  // namespace orv::test
