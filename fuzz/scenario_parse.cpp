// Fuzzes the scenario reader with files anyone could write: reading and checking (which plays
// the whole timeline on a private desktop), then for an accepted scenario its setup on a fresh
// desktop and its timeline played there on virtual time. A refused file must be told in one short
// line; an accepted one must set up and play to its end without skipping an action.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/sim/SimScenario.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace orv::sim;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    ScenarioParse parsed = parseScenario(text, "fuzz.scn");
    if (!parsed.ok()) {
        // Prose and a few quotes of at most 160 bytes of the file each.
        if (parsed.error.find('\n') != std::string::npos || parsed.error.size() > 1024)
            std::abort();
        return 0;
    }
    const Scenario& scenario = *parsed.scenario;
    if (!(scenario.endTime() >= 0 && scenario.endTime() <= kScenarioMaxSeconds + 1e-6))
        std::abort();

    auto desk = SimDesktop::create();
    if (!applyScenarioSetup(*desk, scenario).empty()) std::abort();
    ScenarioPlayer player(desk, parsed.scenario);
    bool ended = false;
    player.setOnEvent([](const ScenarioPlayer::Event& e) {
        if (e.text.find('\n') != std::string::npos || e.text.find("(skipped") != std::string::npos)
            std::abort();
    });
    player.setOnEnd([&] { ended = true; });
    player.start();
    desk->advance(scenario.endTime() + 1);
    if (!ended || player.actionsPlayed() != scenario.actionCount()) std::abort();
    for (SimApp* app : desk->applications()) (void)app->dump();
    return 0;
}
