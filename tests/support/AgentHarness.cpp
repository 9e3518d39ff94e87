#include "support/AgentHarness.h"

#include <ostream>
#include <sstream>

#include "Common/ORVCommPkt.h"
#include "Common/ORVCommunicationHub.h"
#include "app/ORVAXAppDelegate.h"

namespace orv::test {

std::ostream& operator<<(std::ostream& os, const FocusDatagram& d) {
    return os << "{" << d.x << "," << d.y << "," << d.width << "," << d.height << " edges "
              << d.edgeX << "," << d.edgeY << " source " << d.source << "}";
}

FocusDatagram area(int x, int y, int w, int h, int edgeX, int edgeY, int source) {
    FocusDatagram d;
    d.x = x, d.y = y, d.width = w, d.height = h, d.edgeX = edgeX, d.edgeY = edgeY,
    d.source = source;
    return d;
}

AgentHarness::AgentHarness(uint32_t verbosity) : desk(sim::SimDesktop::create()), log(verbosity) {
    desk->install();
    ORVAXAppDelegate::resetClassStateForTesting();
    ORVCommPkt::resetSignatureCounter(0);
    ORVCommunicationHub::Options options;
    options.serverPort = magnifier.port();
    ORVCommunicationHub::setDefaultOptions(options);
}

AgentHarness::~AgentHarness() {
    ORVAXAppDelegate::resetClassStateForTesting();
    desk->runUntilIdle();
    desk->uninstall();
}

void AgentHarness::startAgent() {
    ORVAXAppDelegate delegate;
    const uint32_t keep = OrvLogger::verbosity();
    delegate.verbosityOverride = keep;
    delegate.applicationDidFinishLaunching();
    connectLink();
}

void AgentHarness::connectLink() {
    auto hub = ORVCommunicationHub::clientInstance();
    desk->virtualLoop()->runUntil([&] { return hub && hub->connected(); }, 5.0);
    settle();
}

void AgentHarness::drainSocket() {
    std::string text;
    while (magnifier.tryReceive(&text)) datagrams_.push_back(text);
}

void AgentHarness::settle() {
    // Sends go through the socket's own thread; wait (bounded, real time) until the count of
    // datagrams stops growing across two quiet turns.
    desk->runUntilIdle();
    for (int quiet = 0; quiet < 2;) {
        size_t before = datagrams_.size();
        desk->virtualLoop()->runUntil(
            [&] {
                drainSocket();
                return datagrams_.size() > before;
            },
            0.02);
        quiet = datagrams_.size() == before ? quiet + 1 : 0;
    }
}

void AgentHarness::advance(double seconds) {
    desk->advance(seconds);
    settle();
}

std::vector<std::string> AgentHarness::takeDatagrams() {
    settle();
    auto out = std::move(datagrams_);
    datagrams_.clear();
    return out;
}

std::vector<FocusDatagram> AgentHarness::takeFocusAreas() {
    std::vector<FocusDatagram> areas;
    for (const auto& text : takeDatagrams()) {
        std::vector<std::string> f;
        std::stringstream ss(text);
        std::string part;
        while (std::getline(ss, part, ':')) f.push_back(part);
        if (f.size() != 9 || f[1] != "4120012") continue;
        FocusDatagram d;
        d.id = f[0];
        d.x = std::stoi(f[2]), d.y = std::stoi(f[3]), d.width = std::stoi(f[4]);
        d.height = std::stoi(f[5]), d.edgeX = std::stoi(f[6]), d.edgeY = std::stoi(f[7]);
        d.source = std::stoi(f[8]);
        areas.push_back(d);
    }
    return areas;
}

}  // namespace orv::test
