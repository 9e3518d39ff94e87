#include <gtest/gtest.h>

#include "Common/ORVCommunicationHub.h"
#include "accessibility/focus/ORVAXFocusTracker.h"
#include "app/ORVAXAppDelegate.h"
#include "support/AgentHarness.h"

namespace orv {
namespace {

using Strings = std::vector<std::string>;

TEST(StartupRules, BlacklistSplitsAtEveryCommaWithoutTrimming) {
    EXPECT_EQ(ORVAXAppDelegate::splitBlacklist("com.a,,com.b"), (Strings{"com.a", "", "com.b"}));
    EXPECT_EQ(ORVAXAppDelegate::splitBlacklist("com.a"), Strings{"com.a"});
    EXPECT_EQ(ORVAXAppDelegate::splitBlacklist(""), Strings{""});
    EXPECT_EQ(ORVAXAppDelegate::splitBlacklist(" a, b"), (Strings{" a", " b"}));
}

TEST(StartupRules, TheLogOnlyHubNeedsTheFlagAtIndexOneAndAnotherArgument) {
    const char* flag = "-NSDocumentRevisionsDebugMode";
    EXPECT_FALSE(ORVAXAppDelegate::wantsLogOnlyHub({"agent", flag}));
    EXPECT_TRUE(ORVAXAppDelegate::wantsLogOnlyHub({"agent", flag, "YES"}));
    EXPECT_TRUE(ORVAXAppDelegate::wantsLogOnlyHub({"agent", flag, ""}));
    EXPECT_FALSE(ORVAXAppDelegate::wantsLogOnlyHub({"agent", "YES", flag}));
    EXPECT_TRUE(ORVAXAppDelegate::isTenNineOrLater(10, 9));
    EXPECT_FALSE(ORVAXAppDelegate::isTenNineOrLater(10, 8));
    EXPECT_TRUE(ORVAXAppDelegate::isTenNineOrLater(11, 0));
    EXPECT_FALSE(ORVAXAppDelegate::isTenNineOrLater(9, 12));
}

class Startup : public ::testing::Test {
  protected:
    void SetUp() override {
        ORVAXAppDelegate::resetCachedVersionForTesting();
        h.desk->addApplication(100, "com.example.editor", "Editor");
        h.desk->workspace().setAuxiliaryExecutable("OcuvaneAXMakeTrusted.app", "/opt/helper");
        h.desk->host().setExecutablePath("/opt/agent");
        delegate.attach();
    }
    void TearDown() override { ORVAXAppDelegate::resetCachedVersionForTesting(); }

    test::AgentHarness h{1};
    ORVAXAppDelegate delegate;
};

TEST_F(Startup, AnUntrustedAgentOnANewSystemIsPromptedAndGoesOn) {
    h.desk->ax().setTrusted(false);
    h.desk->ax().setAPIEnabled(false);
    h.desk->host().setOperatingSystemVersion({10, 9, 0});
    h.desk->host().legacyTrustPath = true;
    delegate.applicationDidFinishLaunching();
    EXPECT_EQ(h.desk->ax().trustPrompts(), 1);
    EXPECT_TRUE(h.desk->workspace().scripts().empty());
    EXPECT_TRUE(h.desk->workspace().launches().empty());
    EXPECT_TRUE(ORVAXFocusTracker::isEnabled());
    EXPECT_EQ(OrvLogger::verbosity(), 1u);
}

TEST_F(Startup, AnUntrustedAgentOnAnOldSystemRunsTheScriptLaunchesTheHelperAndEnds) {
    h.desk->ax().setTrusted(false);
    h.desk->ax().setAPIEnabled(false);
    h.desk->host().setOperatingSystemVersion({10, 8, 5});
    h.desk->host().legacyTrustPath = true;
    h.desk->workspace().setScriptFailure("not allowed");
    delegate.applicationDidFinishLaunching();
    h.desk->runUntilIdle();
    ASSERT_EQ(h.desk->workspace().scripts().size(), 1u);
    EXPECT_EQ(h.desk->workspace().scripts()[0],
              "tell application \"System Events\" to set UI elements enabled to true");
    EXPECT_EQ(h.log.countContaining("(error) Failed running AXAPI Enable script: not allowed"), 1u);
    ASSERT_EQ(h.desk->workspace().launches().size(), 1u);
    EXPECT_EQ(h.desk->workspace().launches()[0].path, "/opt/helper");
    EXPECT_EQ(h.desk->workspace().launches()[0].arguments, Strings{"/opt/agent"});
    EXPECT_TRUE(h.desk->host().terminated());
    EXPECT_FALSE(ORVAXFocusTracker::isEnabled());
}

TEST_F(Startup, HubChoiceFollowsTheArguments) {
    h.desk->host().setArguments({"agent", "-NSDocumentRevisionsDebugMode", "YES"});
    delegate.applicationDidFinishLaunching();
    auto hub = ORVCommunicationHub::sharedInstance();
    ASSERT_NE(hub, nullptr);
    EXPECT_TRUE(hub->log());
}

TEST_F(Startup, ActivationHidesAndTerminationIsAlwaysAllowed) {
    delegate.applicationDidFinishLaunching();
    h.desk->host().activate();
    h.desk->host().activate();
    h.desk->runUntilIdle();
    EXPECT_EQ(h.desk->host().hides(), 2);
    h.desk->host().terminate();
    h.desk->runUntilIdle();
    EXPECT_TRUE(h.desk->host().terminated());
}

}  // namespace
}  // namespace orv
