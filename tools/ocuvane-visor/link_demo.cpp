// ocuvane-link-demo: a client hub acting as the agent does on the link, to try a magnifier (or
// ocuvane-visor) by hand: on connection it subscribes to status changes, asks for the status once
// the subscription is confirmed, then sends focus areas and reports whatever the magnifier sends.

#include <charconv>
#include <iostream>
#include <string>

#include "Common/NotificationCenter.h"
#include "Common/ORVCommunicationHub.h"
#include "Common/OrvLogger.h"
#include "platform/Platform.h"
#include "platform/glib/GLibMainLoop.h"

namespace {

const char* kUsage =
    "Usage: ocuvane-link-demo [--port N] [--areas N] [--verbose]\n"
    "\n"
    "Connects to the magnifier's port on 127.0.0.1 (default 41227) like the agent, subscribes\n"
    "to status changes, asks for the status, sends N focus areas (default 3; area i is at\n"
    "x = 100.5 + 10 i, y = -20.5, 300 x 20, edges (2, 0), source 1) and then prints every status\n"
    "change it is sent. Ends with status 0 on a shutdown request, 1 when the subscription or\n"
    "the inquiry is not answered within 5 seconds, 3 when the link is lost.\n";

class DemoApp : public orv::ApplicationHost {
  public:
    explicit DemoApp(orv::MainLoop& loop) : loop_(loop) {}
    std::vector<std::string> arguments() override { return {}; }
    orv::OSVersion operatingSystemVersion() override { return {}; }
    std::string executablePath() override { return {}; }
    void terminate() override {
        std::cout << "link lost" << std::endl;
        exitStatus = 3;
        loop_.quit();
    }
    void hide() override {}
    int exitStatus = 0;

  private:
    orv::MainLoop& loop_;
};

bool parsePort(const std::string& s, unsigned* out) {
    auto res = std::from_chars(s.data(), s.data() + s.size(), *out);
    return res.ec == std::errc() && res.ptr == s.data() + s.size() && *out <= 65535;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned port = orv::ORVCommunicationHub::kServerPort;
    unsigned areas = 3;
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return 0;
        } else if (arg == "--verbose") {
            verbose = true;
        } else if ((arg == "--port" || arg == "--areas") && i + 1 < argc &&
                   parsePort(argv[i + 1], arg == "--port" ? &port : &areas)) {
            ++i;
        } else {
            std::cerr << "ocuvane-link-demo: bad option '" << arg << "'\n" << kUsage;
            return 2;
        }
    }
    orv::OrvLogger::setVerbosity(verbose ? 3 : 1);

    auto loop = std::make_shared<orv::GLibMainLoop>();
    auto app = std::make_shared<DemoApp>(*loop);
    auto platform = std::make_shared<orv::Platform>();
    platform->name = "link-demo";
    platform->loop = loop;
    platform->app = app;
    orv::installPlatform(platform);

    auto giveUp = [&](orv::ORVCommPkt& p) {
        std::cout << "no answer to " << p.className() << std::endl;
        app->exitStatus = 1;
        loop->quit();
    };

    auto& hooks = orv::ORVCommAgentHooks::shared();
    hooks.statusSubscriptionConfirmed = [&](bool) {
        std::cout << "subscription confirmed" << std::endl;
        auto inquiry = orv::ORVCommStatusInquiry::create();
        inquiry->setTimeoutHandler(giveUp);
        inquiry->dispatch();
    };
    hooks.statusReceived = [&](const orv::ORVCommDictionary& status) {
        std::cout << "status";
        for (const auto& [k, v] : status) std::cout << " " << k << "=" << v;
        std::cout << std::endl;
        for (unsigned i = 0; i < areas; ++i) {
            auto rect = orv::ORVOrientedRect::initWithRect(
                orv::Rect(100.5 + 10 * i, -20.5, 300, 20), 2, 0, 1);
            orv::ORVCommFocusArea::create(rect)->dispatch();
        }
        std::cout << "sent " << areas << " focus areas" << std::endl;
    };
    hooks.statusChanged = [](const std::string& key, const std::string& oldValue,
                             const std::string& newValue) {
        std::cout << "status changed " << key << ": " << oldValue << " -> " << newValue
                  << std::endl;
    };
    hooks.shutdown = [&] {
        std::cout << "shutdown received" << std::endl;
        loop->quit();
    };
    orv::NotificationCenter::defaultCenter().addObserver(
        orv::ORVCommunicationHub::kConnectedNotification, nullptr, [&](const orv::Notification&) {
            std::cout << "connected" << std::endl;
            auto subscription = orv::ORVCommStatusSubscription::create();
            subscription->setTimeoutHandler(giveUp);
            subscription->dispatch();
        });

    orv::ORVCommunicationHub::Options options;
    options.serverPort = static_cast<uint16_t>(port);
    orv::ORVCommunicationHub::setDefaultOptions(options);
    orv::ORVCommunicationHub::clientInstance();
    loop->run();

    orv::ORVCommunicationHub::resetSharedState();
    orv::installPlatform(nullptr);
    return app->exitStatus;
}
