// The magnifier link's hot paths: every focus move encodes a focus area, and the status reply
// carries about ten pairs.

#include <benchmark/benchmark.h>

#include "Common/ORVCommPkt.h"
#include "Common/ORVCommRequests.h"

namespace {

using namespace orv;

void BM_EncodeFocusArea(benchmark::State& state) {
    auto packet = ORVCommFocusArea::create(
        ORVOrientedRect::initWithRect(Rect(1280.5, -431.25, 312.75, 18.5), 2, 0, 1));
    for (auto _ : state) {
        packet->encode();
        benchmark::DoNotOptimize(packet.get());
    }
}
BENCHMARK(BM_EncodeFocusArea);

std::vector<uint8_t> tenPairReply() {
    const std::string text =
        "+ORVCommReq00000002:echoVoice:com.example.voice.Anna:echoRate:200:echoVolume:0.75:"
        "focusEchoEnabled:1:focusEchoStyle:2:mouseEchoEnabled:0:mouseEchoCondition:1:"
        "magnificationEnabled:1:speechEnabled:1:keyMods:3";
    return {text.begin(), text.end()};
}

// What the hub does with a reply datagram before matching it: check, split, pair.
void BM_DecodeReplyOfTenPairs(benchmark::State& state) {
    const std::vector<uint8_t> datagram = tenPairReply();
    for (auto _ : state) {
        bool valid = orvCommIsValidUtf8(datagram.data(), datagram.size());
        ORVCommFields fields = orvCommSplitFields(
            std::string_view(reinterpret_cast<const char*>(datagram.data()), datagram.size()));
        ORVCommDictionary reply = ORVCommPkt::dictionaryFromReplyComponents(fields);
        benchmark::DoNotOptimize(valid);
        benchmark::DoNotOptimize(reply);
    }
}
BENCHMARK(BM_DecodeReplyOfTenPairs);

// The magnifier's side: a received focus area from bytes to typed packet.
void BM_DecodeFocusAreaRequest(benchmark::State& state) {
    const std::string text = "ORVCommReq00000042:4120012:1281:-431:313:19:2:0:1";
    const std::vector<uint8_t> datagram(text.begin(), text.end());
    for (auto _ : state) {
        ORVCommFields fields = orvCommSplitFields(text);
        ORVCommPktRef packet =
            ORVCommKinds::forCode(orvCommIntValue(fields[1]))->newFrom({}, datagram, fields[0]);
        packet->decodePayload(fields);
        benchmark::DoNotOptimize(packet);
    }
}
BENCHMARK(BM_DecodeFocusAreaRequest);

}  // namespace
