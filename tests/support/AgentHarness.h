#pragma once

// The agent on a simulated desktop, with a bare UDP peer standing in for the magnifier. Installs
// a fresh desktop and fresh class-level state, and takes both down again.

#include <memory>
#include <string>
#include <vector>

#include "Common/CommTestSupport.h"
#include "platform/sim/SimDesktop.h"
#include "support/LogCapture.h"

namespace orv::test {

struct FocusDatagram {
    std::string id;
    int x = 0, y = 0, width = 0, height = 0;
    int edgeX = 0, edgeY = 0, source = 0;
    bool operator==(const FocusDatagram& o) const {
        return x == o.x && y == o.y && width == o.width && height == o.height && edgeX == o.edgeX &&
               edgeY == o.edgeY && source == o.source;
    }
};
std::ostream& operator<<(std::ostream& os, const FocusDatagram& d);
FocusDatagram area(int x, int y, int w, int h, int edgeX, int edgeY, int source);

class AgentHarness {
  public:
    explicit AgentHarness(uint32_t verbosity = 1);
    ~AgentHarness();

    // Runs the start-up sequence and waits until the hub's socket is connected.
    void startAgent();
    // Only the link: makes the client hub and waits until its socket is connected.
    void connectLink();
    // Runs what is due now and gathers the datagrams that reached the magnifier meanwhile.
    void settle();
    // Moves virtual time, then settles.
    void advance(double seconds);
    // Focus areas received since the last take.
    std::vector<FocusDatagram> takeFocusAreas();
    // Every datagram received since the last take, as text.
    std::vector<std::string> takeDatagrams();

    std::shared_ptr<sim::SimDesktop> desk;
    RawPeer magnifier;
    LogCapture log;

  private:
    void drainSocket();
    std::vector<std::string> datagrams_;
};

}  // namespace orv::test
