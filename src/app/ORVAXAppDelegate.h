#pragma once

#include <optional>
#include <string>
#include <vector>

namespace orv {

// Starts the agent in a fixed order on the main loop and ends it cleanly.
class ORVAXAppDelegate {
  public:
    static constexpr const char* kBlacklistKey = "setEnhancedUserInterfaceBlacklist";
    static constexpr const char* kBlacklistDefault = "com.intuit.QuickBooks2014";
    static constexpr const char* kLogOnlyArgument = "-NSDocumentRevisionsDebugMode";

    // Hooks the delegate into the installed platform's application object.
    void attach();
    void applicationDidFinishLaunching();
    // The agent never stays in front.
    void applicationDidBecomeActive();
    // Closes the command port when there is one; always allows termination at once.
    bool applicationShouldTerminate();
    void enableAXApi();
    void makeTrusted();

    // Verbosity to apply right after start-up sets 1 (a command-line choice of the user).
    std::optional<unsigned> verbosityOverride;

    // The blacklist value split at every "," (items are not trimmed).
    static std::vector<std::string> splitBlacklist(const std::string& value);
    // The rule by which start-up picks the log-only hub.
    static bool wantsLogOnlyHub(const std::vector<std::string>& arguments);
    // Major 10 with minor above 8, or major 11 or later.
    static bool isTenNineOrLater(int major, int minor);
    // The operating-system version is read once per process.
    static void resetCachedVersionForTesting();
    // Back to a process that has not started: every class-level object start-up makes is
    // dropped (tests and benchmarks start the agent many times in one process).
    static void resetClassStateForTesting();
};

}  // namespace orv
