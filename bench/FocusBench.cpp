// The focus road on the simulated desktop: one focus change from the notification's delivery to
// the datagram handed to the socket, and what the polls cost while nothing happens.
//
//   build/normal/bench/ocuvane-bench --benchmark_filter=Focus

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Common/ORVCommunicationHub.h"
#include "Common/OrvLogger.h"
#include "accessibility/focus/ORVAXAppTracker.h"
#include "app/ORVAXAppDelegate.h"
#include "platform/sim/SimDesktop.h"

namespace {

using namespace orv;

// A magnifier stand-in that only empties its socket.
class Sink {
  public:
    Sink() {
        fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
    }
    ~Sink() { ::close(fd_); }
    uint16_t port() const { return port_; }
    size_t drain() {
        char buf[2048];
        size_t n = 0;
        while (::recv(fd_, buf, sizeof buf, 0) > 0) ++n;
        return n;
    }

  private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

struct Desktop {
    explicit Desktop(bool startAgent) {
        desk = sim::SimDesktop::create();
        desk->install();
        auto& app = desk->addApplication(100, "com.example.editor", "Editor");
        app.load(R"(
AXWindow "Doc" [0 22 800 600] #win AXMain=true
  AXGroup [0 40 800 500] #pane
    AXButton "One" [20 60 80 24] #one
    AXButton "Two" [120 60 80 24] #two
    AXTextField "Name" [20 100 200 22] #name AXValue="Ada"
)");
        one = app.find("one");
        two = app.find("two");
        name = app.find("name");
        desk->focus(one);
        desk->runUntilIdle();
        if (!startAgent) return;
        ORVAXAppDelegate::resetClassStateForTesting();
        ORVCommunicationHub::Options o;
        o.serverPort = sink.port();
        ORVCommunicationHub::setDefaultOptions(o);
        ORVAXAppDelegate delegate;
        delegate.applicationDidFinishLaunching();
        auto hub = ORVCommunicationHub::sharedInstance();
        desk->virtualLoop()->runUntil([&] { return hub && hub->connected(); }, 5.0);
    }
    ~Desktop() {
        ORVAXAppDelegate::resetClassStateForTesting();
        desk->runUntilIdle();
        desk->uninstall();
    }
    Sink sink;
    std::shared_ptr<sim::SimDesktop> desk;
    sim::SimNodePtr one, two, name;
};

// The whole turn: the desktop posting the change, delivery, the agent's work, the send.
void BM_FocusChange(benchmark::State& state) {
    OrvLogger::setVerbosity(1);
    Desktop d(true);
    bool flip = false;
    size_t calls = 0;
    for (auto _ : state) {
        d.desk->calls().reset();
        d.desk->focus(flip ? d.one : d.two);
        d.desk->runUntilIdle();
        calls += d.desk->calls().total();
        flip = !flip;
        if ((state.iterations() & 63) == 0) d.sink.drain();
    }
    state.counters["platform_calls"] =
        benchmark::Counter(static_cast<double>(calls), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_FocusChange);

// The same turn with no agent listening: what the simulated desktop itself costs. The agent's
// share of a focus change is the difference between the two.
void BM_FocusChangeDesktopOnly(benchmark::State& state) {
    Desktop d(false);
    bool flip = false;
    for (auto _ : state) {
        d.desk->focus(flip ? d.one : d.two);
        d.desk->runUntilIdle();
        flip = !flip;
    }
}
BENCHMARK(BM_FocusChangeDesktopOnly);

// A text field focused and nothing happening: platform calls per second of virtual time, all
// polls together and the system-wide poll alone.
void BM_FocusIdlePolls(benchmark::State& state) {
    Desktop d(true);
    d.desk->focus(d.name);
    d.desk->runUntilIdle();
    d.desk->advance(1.0);
    size_t calls = 0;
    size_t systemWide = 0;
    double seconds = 0;
    for (auto _ : state) {
        d.desk->calls().reset();
        d.desk->advance(1.0);
        calls += d.desk->calls().total();
        systemWide += d.desk->calls().reads("AXFocusedUIElement");
        seconds += 1.0;
        d.sink.drain();
    }
    state.counters["calls_per_s"] = calls / seconds;
    state.counters["focused_element_reads_per_s"] = systemWide / seconds;
}
BENCHMARK(BM_FocusIdlePolls);

// The system-wide poll on its own, with a steady focus: platform calls per 0.1 s tick.
void BM_SystemWidePollAlone(benchmark::State& state) {
    Desktop d(false);
    ORVAXAppDelegate::resetClassStateForTesting();
    ORVAXSystemUITracker::initialize();
    d.desk->advance(1.0);
    size_t calls = 0;
    size_t ticks = 0;
    for (auto _ : state) {
        d.desk->calls().reset();
        d.desk->advance(1.0);
        calls += d.desk->calls().total();
        ticks += 10;
    }
    state.counters["calls_per_tick"] = static_cast<double>(calls) / static_cast<double>(ticks);
}
BENCHMARK(BM_SystemWidePollAlone);

}  // namespace
