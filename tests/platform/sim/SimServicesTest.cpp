#include <gtest/gtest.h>

#include <thread>

#include "platform/glib/GLibMainLoop.h"
#include "platform/sim/SimDesktop.h"

using namespace orv;
using namespace orv::sim;

namespace {

TEST(SimDisplays, ScreenFramesAreFlippedAgainstTheMainDisplay) {
    auto desk = SimDesktop::create();
    auto& d = desk->displays();
    d.setDisplays({{7, Rect(0, 0, 1440, 900)}, {9, Rect(1440, -100, 1920, 1080)}}, 7);
    EXPECT_EQ(d.screenFrames(),
              (std::vector<Rect>{Rect(0, 0, 1440, 900), Rect(1440, -80, 1920, 1080)}));

    Displays::DisplayID id = 0;
    uint32_t count = 0;
    EXPECT_EQ(d.getDisplaysWithPoint(Point{1500, 50}, &id, &count), 0);
    EXPECT_EQ(id, 9u);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(d.getDisplaysWithPoint(Point{-5, 50}, &id, &count), 0);
    EXPECT_EQ(count, 0u);
    d.setPointLookupError(1001);
    EXPECT_EQ(d.getDisplaysWithPoint(Point{10, 10}, &id, &count), 1001);

    d.setMouseLocationTopLeft(Point{100, 50});
    EXPECT_EQ(d.mouseLocation(), (Point{100, 850}));
}

TEST(SimSpeech, UtterancesLastLongerForLongerTextsAndShorterAtHigherRates) {
    auto desk = SimDesktop::create();
    auto synth = desk->speech().createSynthesizer();
    std::vector<bool> finished;
    synth->setDidFinishSpeaking([&](bool f) { finished.push_back(f); });
    EXPECT_FALSE(synth->setVoice("no.such.voice"));
    EXPECT_TRUE(synth->setVoice("sim.voice.bruno"));
    synth->setVolume(2.0f);

    const std::string text = "hello there world";  // 17 characters: 3.4 words
    const double atDefault = SimSpeechEngine::durationFor(text, 180);
    EXPECT_DOUBLE_EQ(atDefault, 3.4 * 60 / 180);
    EXPECT_GT(atDefault, SimSpeechEngine::durationFor("hi", 180));
    EXPECT_DOUBLE_EQ(SimSpeechEngine::durationFor(text, 360), atDefault / 2);

    ASSERT_TRUE(synth->startSpeakingString(text));
    desk->advance(atDefault - 0.01);
    EXPECT_TRUE(synth->isSpeaking());
    EXPECT_TRUE(finished.empty());
    desk->advance(0.02);
    EXPECT_FALSE(synth->isSpeaking());
    EXPECT_EQ(finished, std::vector<bool>{true});
    auto& u = desk->speech().utterances().at(0);
    EXPECT_EQ(u.voice, "sim.voice.bruno");
    EXPECT_EQ(u.volume, 1.0f);
    EXPECT_DOUBLE_EQ(u.end - u.start, atDefault);
    EXPECT_TRUE(u.finished);
}

TEST(SimSpeech, StoppingEndsAtOnceAndReportsOnTheNextTurn) {
    auto desk = SimDesktop::create();
    auto synth = desk->speech().createSynthesizer();
    std::vector<bool> finished;
    synth->setDidFinishSpeaking([&](bool f) { finished.push_back(f); });
    synth->startSpeakingString("a fairly long sentence to be cut short");
    desk->advance(0.5);
    synth->stopSpeaking();
    EXPECT_FALSE(synth->isSpeaking());
    EXPECT_TRUE(finished.empty());
    desk->runUntilIdle();
    EXPECT_EQ(finished, std::vector<bool>{false});
    EXPECT_DOUBLE_EQ(desk->speech().utterances()[0].end, 0.5);
    EXPECT_FALSE(desk->speech().utterances()[0].finished);
    desk->advance(60);
    EXPECT_EQ(finished.size(), 1u) << "the stopped utterance never finishes later";

    // A delegate removed right after stopping hears nothing; stopping while silent does nothing.
    synth->startSpeakingString("again");
    synth->stopSpeaking();
    synth->setDidFinishSpeaking(nullptr);
    synth->stopSpeaking();
    desk->advance(10);
    EXPECT_EQ(finished.size(), 1u);
    EXPECT_EQ(desk->speech().spokenTexts().size(), 2u);
}

TEST(SimMessagePorts, NamedPortsCarryRequestAndReply) {
    auto desk = SimDesktop::create();
    auto& ports = desk->messagePorts();
    std::vector<uint8_t> seen;
    auto port = ports.createLocal("Cmd", [&](int32_t id, const std::vector<uint8_t>& data) {
        EXPECT_TRUE(desk->loop().isMainThread());
        seen = data;
        return std::vector<uint8_t>{uint8_t(id), 2};
    });
    ASSERT_TRUE(port);
    EXPECT_FALSE(ports.createLocal("Cmd", [](int32_t, auto&) { return std::vector<uint8_t>{}; }));

    std::vector<uint8_t> reply;
    EXPECT_EQ(ports.sendRequest("Cmd", 7, {1, 2, 3}, 1.0, &reply), 0);
    EXPECT_EQ(seen, (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_EQ(reply, (std::vector<uint8_t>{7, 2}));

    // From another thread the request waits for the main loop to run the handler.
    int32_t result = 1;
    std::thread client([&] { result = ports.sendRequest("Cmd", 9, {4}, 10.0, &reply); });
    EXPECT_TRUE(
        desk->virtualLoop()->runUntil([&] { return ports.messagesDelivered() == 2; }, 10.0));
    client.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(reply, (std::vector<uint8_t>{9, 2}));

    port->invalidate();
    EXPECT_EQ(ports.sendRequest("Cmd", 1, {}, 1.0, &reply), SimMessagePorts::kIsInvalid);
    auto again = ports.createLocal("Cmd", [](int32_t, auto&) { return std::vector<uint8_t>{}; });
    EXPECT_TRUE(again);
    again.reset();
    EXPECT_FALSE(ports.hasPort("Cmd"));
}

TEST(SimUserDefaults, BooleansAndRegisteredDefaults) {
    SimUserDefaults d;
    d.registerDefaults({{"flag", "YES"}, {"list", "a,b"}});
    EXPECT_TRUE(d.boolForKey("flag"));
    EXPECT_FALSE(d.boolForKey("missing"));
    for (auto [text, expect] : std::vector<std::pair<const char*, bool>>{{"yes", true},
                                                                         {"true", true},
                                                                         {"1", true},
                                                                         {"-2.5", true},
                                                                         {"0", false},
                                                                         {"NO", false},
                                                                         {"", false},
                                                                         {"1x", false}}) {
        d.setString("flag", text);
        EXPECT_EQ(d.boolForKey("flag"), expect) << text;
    }
    d.removeKey("flag");
    EXPECT_EQ(d.stringForKey("flag"), "YES");
}

TEST(SimApplicationHost, TerminateAsksOnTheMainLoopThenQuitsIt) {
    auto desk = SimDesktop::create();
    auto& host = desk->host();
    int asked = 0;
    bool allow = false;
    host.shouldTerminate = [&] {
        ++asked;
        return allow;
    };
    host.terminate();
    EXPECT_EQ(asked, 0);
    desk->runUntilIdle();
    EXPECT_EQ(asked, 1);
    EXPECT_FALSE(host.terminated());
    EXPECT_FALSE(desk->virtualLoop()->quitRequested());

    allow = true;
    host.terminate();
    desk->runUntilIdle();
    EXPECT_TRUE(host.terminated());
    EXPECT_TRUE(desk->virtualLoop()->quitRequested());
    EXPECT_EQ(host.terminateRequests(), 2);
    EXPECT_EQ(host.terminationsRefused(), 1);
}

TEST(SimDesktopPlatform, InstallsEveryFacilityAndKeepsTheDesktopAlive) {
    std::weak_ptr<SimDesktop> weak;
    {
        auto desk = SimDesktop::create();
        weak = desk;
        desk->addApplication(100, "com.example.editor", "Editor");
        auto p = desk->install();
        for (bool filled :
             {bool(p->loop), bool(p->ax), bool(p->workspace), bool(p->displays), bool(p->speech),
              bool(p->messagePorts), bool(p->defaults), bool(p->app)})
            EXPECT_TRUE(filled);
    }
    ASSERT_FALSE(weak.expired());
    EXPECT_EQ(platform().workspace->runningApplications().size(), 1u);
    AXValue v;
    EXPECT_EQ(axAPI().copyAttributeValue(axAPI().createApplication(100), "AXTitle", &v),
              kAXErrorSuccess);
    weak.lock()->uninstall();
    EXPECT_TRUE(weak.expired());
    EXPECT_FALSE(installedPlatform());
}

TEST(SimDesktopPlatform, RunsOnARealMainLoop) {
    auto loop = std::make_shared<GLibMainLoop>();
    auto desk = SimDesktop::create(loop);
    EXPECT_EQ(desk->virtualLoop(), nullptr);
    auto& app = desk->addApplication(100, "com.example.editor", "Editor");
    auto button = app.root()->addChild("AXWindow", "W", Rect(0, 0, 100, 100))->addChild("AXButton");
    AXObserverRef observer;
    std::vector<std::string> got;
    desk->ax().createObserver(
        100, [&](auto&, auto&, const std::string& n, void*) { got.push_back(n); }, &observer);
    observer->attachToMainLoop();
    observer->addNotification(desk->ax().createApplication(100), "AXFocusedUIElementChanged",
                              nullptr);
    desk->focus(button);
    loop->post([&] { loop->quit(); });
    loop->run();
    EXPECT_EQ(got, std::vector<std::string>{"AXFocusedUIElementChanged"});
}

}  // namespace
