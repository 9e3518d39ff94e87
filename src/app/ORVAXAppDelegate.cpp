#include "app/ORVAXAppDelegate.h"

#include "Common/ORVCommunicationHub.h"
#include "Common/OrvLogger.h"
#include "accessibility/focus/ORVAXAppTracker.h"
#include "accessibility/focus/ORVAXFocusTracker.h"
#include "accessibility/trackers/ORVAXTextElementTracker.h"
#include "accessibility/trackers/ORVAXWebAreaElementTracker.h"
#include "context/OrvContextHandler.h"
#include "platform/Platform.h"
#include "speech/ORVAXEchoController.h"
#include "speech/ORVAXFocusEchoController.h"
#include "speech/ORVAXSpeechDirectiveController.h"

namespace orv {

namespace {
const char* const kEnableScript =
    "tell application \"System Events\" to set UI elements enabled to true";
const char* const kMakeTrustedApp = "OcuvaneAXMakeTrusted.app";

std::optional<OSVersion>& cachedVersion() {
    static std::optional<OSVersion> version;
    return version;
}
}  // namespace

void ORVAXAppDelegate::resetCachedVersionForTesting() {
    cachedVersion().reset();
}

void ORVAXAppDelegate::resetClassStateForTesting() {
    ORVAXFocusTracker::resetForTesting();
    ORVAXAppTracker::resetForTesting();
    ORVAXSystemUITracker::resetForTesting();
    ORVAXPlainTextElementTracker::resetClassStateForTesting();
    ORVAXWebAreaElementTracker::resetClassStateForTesting();
    OrvContextHandler::resetForTesting();
    ORVAXEchoController::resetForTesting();
    ORVAXFocusEchoController::resetForTesting();
    ORVAXSpeechDirectiveController::resetForTesting();
    ORVCommunicationHub::resetSharedState();
    resetCachedVersionForTesting();
}

void ORVAXAppDelegate::attach() {
    auto& host = *platform().app;
    host.shouldTerminate = [this] { return applicationShouldTerminate(); };
    host.didBecomeActive.connect([this] { applicationDidBecomeActive(); });
}

bool ORVAXAppDelegate::wantsLogOnlyHub(const std::vector<std::string>& arguments) {
    return arguments.size() >= 3 && arguments[1] == kLogOnlyArgument;
}

bool ORVAXAppDelegate::isTenNineOrLater(int major, int minor) {
    return (major == 10 && minor > 8) || major >= 11;
}

std::vector<std::string> ORVAXAppDelegate::splitBlacklist(const std::string& value) {
    std::vector<std::string> items;
    size_t start = 0;
    for (;;) {
        size_t comma = value.find(',', start);
        items.push_back(
            value.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return items;
}

void ORVAXAppDelegate::applicationDidFinishLaunching() {
    auto& p = platform();

    // 1. Only errors reach the log.
    OrvLogger::setVerbosity(1);
    if (verbosityOverride) OrvLogger::setVerbosity(*verbosityOverride);

    // 2. Accessibility trust. The version is read once.
    if (!cachedVersion()) cachedVersion() = p.app->operatingSystemVersion();
    const OSVersion version = *cachedVersion();
    if (!p.app->legacyTrustPath || isTenNineOrLater(version.major, version.minor)) {
        // The platform prompts the user where it can; start-up goes on either way.
        p.ax->isProcessTrusted(true);
    } else if (!p.ax->isProcessTrusted(false) && !p.ax->isAPIEnabled()) {
        enableAXApi();
        makeTrusted();
        return;
    }

    // 3. The hub: its first request makes it and its socket.
    if (wantsLogOnlyHub(p.app->arguments()))
        ORVCommunicationHub::logOnlyInstance();
    else
        ORVCommunicationHub::clientInstance();

    // 4. Focus tracking; this also starts the application tracker and makes the first switch.
    ORVAXFocusTracker::enable();

    // 5. The system-wide focus poll.
    ORVAXSystemUITracker::initialize();

    // 6. and 7., the magnifier status monitor and the local command port, join here when they
    // are built.

    // 8. The enhanced-interface exclusion list.
    p.defaults->registerDefaults({{kBlacklistKey, kBlacklistDefault}});
    const std::string value = p.defaults->stringForKey(kBlacklistKey).value_or("");
    ORVAXAppTracker::setEnhancedUserInterfaceBlacklist(splitBlacklist(value));
}

void ORVAXAppDelegate::applicationDidBecomeActive() {
    platform().app->hide();
}

bool ORVAXAppDelegate::applicationShouldTerminate() {
    // The command processor's port is closed here once it exists.
    return true;
}

void ORVAXAppDelegate::enableAXApi() {
    std::string error;
    if (!platform().workspace->runSystemScript(kEnableScript, &error))
        OrvLogger::addErrorMessageWithFormat("Failed running AXAPI Enable script: %@", error);
}

void ORVAXAppDelegate::makeTrusted() {
    auto& p = platform();
    const std::string helper = p.workspace->pathForAuxiliaryExecutable(kMakeTrustedApp);
    std::string ignored;
    // A failed launch is not inspected: the agent ends all the same.
    p.workspace->launchApplication(helper, {p.app->executablePath()}, &ignored);
    p.app->terminate();
}

}  // namespace orv
