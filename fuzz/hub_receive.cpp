// Fuzzes what the hub does with received datagrams: the length check, UTF-8, field split, reply
// matching against requests that await a reply (some already timed out), and routing of requests
// to their kinds with the status hooks wired. The input is up to eight datagrams separated by
// 0xFE bytes (never part of UTF-8); the first byte of each picks how much virtual time passes
// before it arrives.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "Common/ORVCommRequests.h"
#include "Common/ORVCommunicationHub.h"
#include "Common/OrvLogger.h"
#include "platform/Platform.h"
#include "platform/VirtualMainLoop.h"

namespace {

using namespace orv;

class NullSink : public LogSink {
  public:
    void writeLine(const std::string&) override {}
};

class FuzzApp : public ApplicationHost {
  public:
    std::vector<std::string> arguments() override { return {}; }
    OSVersion operatingSystemVersion() override { return {}; }
    std::string executablePath() override { return {}; }
    void terminate() override {}
    void hide() override {}
};

struct World {
    std::shared_ptr<VirtualMainLoop> loop = std::make_shared<VirtualMainLoop>();
    std::shared_ptr<ORVCommunicationHub> hub;
    SocketAddress from;
    int sink = -1;
    size_t seen = 0;

    World() {
        setSystemLogSink(std::make_shared<NullSink>());
        OrvLogger::setVerbosity(3);  // build every log line, write none
        auto p = std::make_shared<Platform>();
        p->loop = loop;
        p->app = std::make_shared<FuzzApp>();
        installPlatform(p);

        // The magnifier: a bound socket that never reads, so sends always succeed.
        sink = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (sink < 0 || ::bind(sink, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            ::getsockname(sink, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            std::abort();
        from.assign(reinterpret_cast<uint8_t*>(&a), reinterpret_cast<uint8_t*>(&a) + len);

        ORVCommunicationHub::Options o;
        o.serverPort = ntohs(a.sin_port);
        hub = ORVCommunicationHub::make(ORVCommunicationHub::Role::Client, o);
        if (!loop->runUntil([&] { return hub->connected(); }, 10.0)) std::abort();

        auto& hooks = ORVCommAgentHooks::shared();
        hooks.statusSubscriptionConfirmed = [this](bool ok) { seen += ok; };
        hooks.statusReceived = [this](const ORVCommDictionary& d) { seen += d.size(); };
        hooks.statusChanged = [this](const std::string& k, const std::string& o,
                                     const std::string& n) {
            seen += k.size() + o.size() + n.size();
        };
        hooks.shutdown = [this] { ++seen; };
        hub->setRequestObserver([this](const ORVCommPktRef& p, const ORVCommFields& f) {
            seen += f.size() + p->description().size();
        });
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static World world;
    if (size == 0) return 0;

    // Requests with predictable identifiers ORVCommReq00000001..4, the last two sharing one.
    ORVCommPkt::resetSignatureCounter(1);
    ORVCommPktRef sent[] = {ORVCommStatusSubscription::create(), ORVCommStatusInquiry::create(),
                            ORVCommFocusArea::create(), ORVCommKeepAlive::create()};
    for (auto& p : sent) {
        p->setReplyHandler([](ORVCommPkt&, const ORVCommDictionary& d) { (void)d.description(); });
        p->encode();
    }
    sent[3]->setRequestId(sent[2]->requestId());
    for (auto& p : sent) world.hub->dispatch(p);

    const uint8_t* p = data;
    const uint8_t* const end = data + size;
    for (int n = 0; n < 8 && p < end; ++n) {
        const uint8_t* stop = n == 7 ? end : std::find(p, end, uint8_t(0xFE));
        if (stop > p) {
            // 0..1.5 s in quarter seconds: a few datagrams in, the requests start timing out.
            world.loop->advance((*p % 7) * 0.25);
            world.hub->receiveDatagram(std::vector<uint8_t>(p + 1, stop), world.from);
        }
        p = stop == end ? end : stop + 1;
    }
    world.loop->advance(6.0);
    if (world.hub->awaitingReplyCount() != 0) std::abort();
    // A round trip through the socket's queue: every send has finished and posted its event,
    // which the loop then delivers, so nothing of this input is left in flight (else the leak
    // check after every input would scan the heap each time).
    (void)world.hub->localPort();
    world.loop->runUntilIdle();
    return 0;
}
