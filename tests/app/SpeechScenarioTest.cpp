// The speech scenarios under tests/scenarios/speech, played by the agent program in virtual time
// with the shipped English phrases: every --print-speech line must equal NAME.speech. Each
// scenario names the speech settings it is played with in a "// Played with:" line.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>

#include "app/AgentProcess.h"

namespace orv::test {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> fileLines(const fs::path& file, bool dropComments) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line))
        if (!dropComments || (!line.empty() && line[0] != '#')) lines.push_back(line);
    return lines;
}

std::vector<std::string> playedWith(const fs::path& scenario) {
    const std::string marker = "// Played with: ";
    for (const auto& line : fileLines(scenario, false)) {
        if (line.rfind(marker, 0) != 0) continue;
        std::vector<std::string> args;
        std::string rest = line.substr(marker.size());
        for (size_t start = 0; start < rest.size();) {
            size_t space = rest.find(' ', start);
            if (space == std::string::npos) space = rest.size();
            if (space > start) args.push_back(rest.substr(start, space - start));
            start = space + 1;
        }
        return args;
    }
    return {};
}

TEST(SpeechScenarios, WhatIsSaidMatchesTheExpectedTranscripts) {
    const fs::path dir = fs::path(ORV_TESTS_DIR) / "scenarios" / "speech";
    std::vector<fs::path> files;
    for (auto& entry : fs::directory_iterator(dir))
        if (entry.path().extension() == ".scn") files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    ASSERT_GE(files.size(), 3u);

    for (const auto& file : files) {
        SCOPED_TRACE(file.filename().string());
        auto expected = file;
        expected.replace_extension(".speech");
        ASSERT_TRUE(fs::exists(expected));
        const auto settings = playedWith(file);
        ASSERT_FALSE(settings.empty()) << "no \"// Played with:\" line";

        SilentMagnifier magnifier;
        AgentProcess agent;
        std::vector<std::string> args = {
            "--desktop=sim", "--scenario", file.string(), "--print-speech", "--phrases",
            (fs::path(ORV_TESTS_DIR) / ".." / "data" / "phrases").string(), "--magnifier-port",
            magnifier.portArgument()};
        args.insert(args.end(), settings.begin(), settings.end());
        ASSERT_TRUE(agent.start(args));
        const auto status = agent.waitExit(20);
        ASSERT_TRUE(status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0)
            << describeStatus(status);
        std::string log;
        for (const auto& l : agent.err.lines) log += l + "\n";
        EXPECT_EQ(agent.out.lines, fileLines(expected, true)) << log;
    }
}

}  // namespace
}  // namespace orv::test
