#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/sim/SimScenario.h"
#include "support/AgentHarness.h"

namespace orv {
namespace {

namespace fs = std::filesystem;

// Each tests/scenarios/NAME.scn is played through the whole agent, and what reaches the magnifier
// over loopback must equal NAME.expected exactly, line by line.
std::vector<std::string> expectedLines(const fs::path& file) {
    std::ifstream in(file);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(in, line))
        if (!line.empty() && line[0] != '#') lines.push_back(line);
    return lines;
}

std::string asLine(const test::FocusDatagram& d) {
    std::ostringstream os;
    os << d.x << ' ' << d.y << ' ' << d.width << ' ' << d.height << ' ' << d.edgeX << ' ' << d.edgeY
       << ' ' << d.source;
    return os.str();
}

std::vector<fs::path> scenarioFiles() {
    std::vector<fs::path> files;
    for (auto& entry : fs::directory_iterator(fs::path(ORV_TESTS_DIR) / "scenarios"))
        if (entry.path().extension() == ".scn") files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

TEST(ScenarioRuns, DatagramsAtTheMagnifierMatchTheExpectedFiles) {
    const auto files = scenarioFiles();
    ASSERT_GE(files.size(), 2u);
    for (const auto& file : files) {
        SCOPED_TRACE(file.filename().string());
        auto expectedFile = file;
        expectedFile.replace_extension(".expected");
        ASSERT_TRUE(fs::exists(expectedFile));

        auto parsed = sim::loadScenarioFile(file.string());
        ASSERT_TRUE(parsed.ok()) << parsed.error;
        test::AgentHarness h;
        ASSERT_EQ(sim::applyScenarioSetup(*h.desk, *parsed.scenario), "");
        h.startAgent();
        h.takeFocusAreas();  // what start-up decided went out before the link was up

        sim::ScenarioPlayer player(h.desk, parsed.scenario);
        player.start();
        h.desk->advance(parsed.scenario->endTime() + 1.0);
        ASSERT_TRUE(player.hasEnded());
        // A focus decision never takes longer than its own turn: once the timeline has ended,
        // nothing more arrives however long the agent keeps polling.
        auto received = h.takeFocusAreas();
        h.advance(2.0);
        EXPECT_TRUE(h.takeFocusAreas().empty());

        std::vector<std::string> got;
        for (const auto& d : received) got.push_back(asLine(d));
        EXPECT_EQ(got, expectedLines(expectedFile));
    }
}

TEST(ScenarioRuns, TheBundledDemoPlaysThroughTheAgent) {
    auto parsed = sim::loadScenarioFile(std::string(ORV_TESTS_DIR) + "/../scenarios/demo.scn");
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    test::AgentHarness h;
    ASSERT_EQ(sim::applyScenarioSetup(*h.desk, *parsed.scenario), "");
    h.startAgent();
    sim::ScenarioPlayer player(h.desk, parsed.scenario);
    player.start();
    h.desk->advance(parsed.scenario->endTime() + 0.5);
    auto areas = h.takeFocusAreas();
    EXPECT_GE(areas.size(), 5u);
    // Request identifiers count up from the first one sent, with none skipped.
    for (size_t i = 0; i < areas.size(); ++i) {
        char id[32];
        std::snprintf(id, sizeof id, "ORVCommReq%08zu", i + 1);
        EXPECT_EQ(areas[i].id, id);
    }
}

}  // namespace
}  // namespace orv
