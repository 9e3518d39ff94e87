#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/VirtualMainLoop.h"
#include "platform/posix/PosixServices.h"

namespace orv::posix {
namespace {

TEST(PosixServices, TextReadsAsABooleanThePlatformsWay) {
    for (const char* yes : {"YES", "yes", "true", "T", "1", "  7", "+1", "-0003", "0009x", "y"})
        EXPECT_TRUE(textIsTrue(yes)) << yes;
    for (const char* no : {"NO", "", "0", "000", "false", "  ", "-", "x1", "on"})
        EXPECT_FALSE(textIsTrue(no)) << no;
}

TEST(PosixServices, DefaultsFileAnswersBeforeRegisteredDefaultsAndKeepsWhatIsSet) {
    namespace fs = std::filesystem;
    const fs::path dir =
        fs::temp_directory_path() / ("ocuvane-defaults-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    const std::string path = (dir / "defaults.conf").string();
    {
        std::ofstream out(path);
        out << "# "
               "comment\nsetEnhancedUserInterfaceBlacklist=com.a,com.b\nAllowFocusInAXWebArea=NO\n"
               "not a pair\n";
    }
    FileUserDefaults d(path);
    d.registerDefaults(
        {{"setEnhancedUserInterfaceBlacklist", "com.intuit.QuickBooks2014"}, {"other", "value"}});
    EXPECT_EQ(d.stringForKey("setEnhancedUserInterfaceBlacklist"), "com.a,com.b");
    EXPECT_EQ(d.stringForKey("other"), "value");
    EXPECT_EQ(d.stringForKey("missing"), std::nullopt);
    EXPECT_FALSE(d.boolForKey("AllowFocusInAXWebArea"));
    EXPECT_FALSE(d.boolForKey("missing"));

    d.setString("AllowFocusInAXWebArea", "YES");
    FileUserDefaults reread(path);
    EXPECT_TRUE(reread.boolForKey("AllowFocusInAXWebArea"));
    EXPECT_EQ(reread.stringForKey("setEnhancedUserInterfaceBlacklist"), "com.a,com.b");
    fs::remove_all(dir);
}

TEST(PosixServices, TerminateAsksTheDelegateOnTheLoopThenQuits) {
    auto loop = std::make_shared<VirtualMainLoop>();
    PosixApplicationHost host(loop, {"agent", "-x"});
    EXPECT_EQ(host.arguments(), (std::vector<std::string>{"agent", "-x"}));
    EXPECT_GT(host.operatingSystemVersion().major, 0);
    EXPECT_FALSE(host.executablePath().empty());

    bool allow = false;
    int asked = 0;
    host.shouldTerminate = [&] {
        ++asked;
        return allow;
    };
    host.terminate();
    EXPECT_EQ(asked, 0);  // not inside the call
    loop->runUntilIdle();
    EXPECT_EQ(asked, 1);
    EXPECT_FALSE(loop->quitRequested());
    allow = true;
    host.terminate();
    loop->runUntilIdle();
    EXPECT_TRUE(loop->quitRequested());
}

}  // namespace
}  // namespace orv::posix
