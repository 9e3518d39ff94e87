#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

#include "Common/ORVCommPkt.h"
#include "Common/ORVCommRequests.h"

namespace orv {
namespace {

std::string wire(const ORVCommPkt& p) {
    auto bytes = p.request();
    return std::string(bytes.begin(), bytes.end());
}

ORVCommPktRef roundTrip(const ORVCommPktRef& sent) {
    sent->encode();
    const std::string text = wire(*sent);
    const ORVCommFields fields = orvCommSplitFields(text);
    auto received =
        ORVCommKinds::forCode(orvCommIntValue(fields[1]))->newFrom({}, sent->request(), fields[0]);
    received->decodePayload(fields);
    return received;
}

TEST(CommPkt, SignatureIsEightDigitCounterThatGrowsPastEightDigits) {
    ORVCommPkt::resetSignatureCounter(7);
    EXPECT_EQ(ORVCommPkt::signature(), "ORVCommReq00000007");
    EXPECT_EQ(ORVCommPkt::signature(), "ORVCommReq00000008");
    ORVCommPkt::resetSignatureCounter(123456789);
    EXPECT_EQ(ORVCommPkt::signature(), "ORVCommReq123456789");
}

TEST(CommPkt, PlainRequestIsIdentifierAndCode) {
    ORVCommPkt::resetSignatureCounter(3);
    auto p = ORVCommKeepAlive::create();
    EXPECT_EQ(p->opCode(), 4120017);
    EXPECT_FALSE(p->hasRequest());
    p->encode();
    EXPECT_EQ(wire(*p), "ORVCommReq00000003:4120017");
    EXPECT_EQ(p->requestId(), "ORVCommReq00000003");
    // Every encode takes a fresh identifier.
    p->encode();
    EXPECT_EQ(wire(*p), "ORVCommReq00000004:4120017");
}

TEST(CommPkt, FocusAreaRoundsHalvesAwayFromZero) {
    ORVCommPkt::resetSignatureCounter(42);
    auto p =
        ORVCommFocusArea::create(ORVOrientedRect::initWithRect(Rect(100, 200, 300, 20), 0, 0, 1));
    p->encode();
    EXPECT_EQ(wire(*p), "ORVCommReq00000042:4120012:100:200:300:20:0:0:1");

    p->area = ORVOrientedRect::initWithRect(Rect(10.5, -10.5, 2.49, -0.5), 2, 1, 8);
    p->encode();
    EXPECT_EQ(wire(*p), "ORVCommReq00000043:4120012:11:-11:2:-1:2:1:8");

    p->area.reset();
    p->encode();
    EXPECT_EQ(wire(*p), "ORVCommReq00000044:4120012:0:0:0:0:0:0:0");
}

TEST(CommPkt, FocusAreaCoordinatesOutsideTheWireRangeAreClamped) {
    EXPECT_EQ(ORVCommFocusArea::wireCoordinate(std::nan("")), 0);
    EXPECT_EQ(ORVCommFocusArea::wireCoordinate(1e20), INT32_MAX);
    EXPECT_EQ(ORVCommFocusArea::wireCoordinate(-std::numeric_limits<double>::infinity()),
              INT32_MIN);
    EXPECT_EQ(ORVCommFocusArea::wireCoordinate(-2147483648.4), INT32_MIN);
}

TEST(CommPkt, PayloadFormats) {
    ORVCommPkt::resetSignatureCounter(1);
    auto mag = ORVCommSetMagnification::create(2.46);
    mag->encode();
    EXPECT_EQ(wire(*mag), "ORVCommReq00000001:4120003:2.5");

    auto lens = ORVCommLiveLensResize::create(Rect(1.5, -2, 300.125, 0.0000004));
    lens->encode();
    EXPECT_EQ(wire(*lens), "ORVCommReq00000002:4120028:1.500000:-2.000000:300.125000:0.000000");

    auto fin = ORVCommFinalizeLensResize::create(true);
    fin->encode();
    EXPECT_EQ(wire(*fin), "ORVCommReq00000003:4120029:1");

    auto alert = ORVCommShowAlert::create(std::string("h\xC3\xA9llo"));
    alert->encode();
    EXPECT_EQ(wire(*alert), "ORVCommReq00000004:4120033:aMOpbGxv");
    alert->alertText.reset();
    alert->encode();
    EXPECT_EQ(wire(*alert), "ORVCommReq00000005:4120033:");

    auto changed = ORVCommStatusChanged::create("speechEnabled", "1", "0");
    changed->encode();
    EXPECT_EQ(wire(*changed), "ORVCommReq00000006:4120021:speechEnabled:1:0");

    auto set = ORVCommSetStatus::create({{"echoRate", "200"}, {"echoVoice", "v1"}});
    set->encode();
    EXPECT_EQ(wire(*set), "ORVCommReq00000007:4120025:echoRate:200:echoVoice:v1");
}

TEST(CommPkt, PayloadsDecodeToWhatWasSent) {
    auto area = std::dynamic_pointer_cast<ORVCommFocusArea>(roundTrip(
        ORVCommFocusArea::create(ORVOrientedRect::initWithRect(Rect(-5, 6, 7, 8), 2, 1, 5))));
    ASSERT_TRUE(area && area->area);
    EXPECT_TRUE(area->area->isEqual(ORVOrientedRect::initWithRect(Rect(-5, 6, 7, 8), 2, 1, 5)));

    auto alert = std::dynamic_pointer_cast<ORVCommShowAlert>(
        roundTrip(ORVCommShowAlert::create(std::string("Saved: 3 files"))));
    EXPECT_EQ(alert->alertText, std::optional<std::string>("Saved: 3 files"));

    auto set = std::dynamic_pointer_cast<ORVCommSetStatus>(
        roundTrip(ORVCommSetStatus::create({{"a", "1"}, {"b", "2"}})));
    EXPECT_EQ(set->values, (ORVCommDictionary{{"a", "1"}, {"b", "2"}}));

    auto lens = std::dynamic_pointer_cast<ORVCommLiveLensResize>(
        roundTrip(ORVCommLiveLensResize::create(Rect(1.25, 2, 3, 4))));
    EXPECT_EQ(lens->lensRect, Rect(1.25, 2, 3, 4));

    // Too few fields read as zero rather than past the end.
    auto shortArea = ORVCommFocusArea::create();
    shortArea->decodePayload({"id", "4120012", "9"});
    EXPECT_EQ(shortArea->area->rect(), Rect(9, 0, 0, 0));
    auto badAlert = ORVCommShowAlert::create();
    badAlert->decodePayload({"id", "4120033", "not base64!"});
    EXPECT_FALSE(badAlert->alertText);
}

TEST(CommPkt, ReplyDictionaryPairsFieldsAfterTheIdentifier) {
    using D = ORVCommDictionary;
    EXPECT_EQ(ORVCommPkt::dictionaryFromReplyComponents({"+id", "status", "OK", "dangling"}),
              (D{{"status", "OK"}}));
    EXPECT_TRUE(ORVCommPkt::dictionaryFromReplyComponents({"+id"}).empty());
    EXPECT_TRUE(ORVCommPkt::dictionaryFromReplyComponents({"+id", ""}).empty());
    // A repeated key keeps its first place and takes the last value.
    D d = ORVCommPkt::dictionaryFromReplyComponents({"+id", "a", "1", "b", "2", "a", "3"});
    EXPECT_EQ(ORVCommPkt::stringFromReplyDictionary(d), "a:3:b:2");
    EXPECT_EQ(ORVCommPkt::stringFromReplyDictionary(D()), "");
}

// Descriptions go into log messages; what the other side sent must not forge lines or flood them.
TEST(CommPkt, DescriptionsOfReceivedTextAreOneBoundedLine) {
    const std::string forged = "\n(error) forged" + std::string(20000, 'A');
    const std::string text = "x" + forged + ":4120017";
    auto packet = ORVCommKinds::forCode(4120017)->newFrom(
        {}, ORVCommBytes(text.begin(), text.end()), orvCommSplitFields(text)[0]);
    const std::string described = packet->description();
    EXPECT_EQ(described.rfind("<ORVCommKeepAlive: 0x", 0), 0u) << described;
    EXPECT_NE(described.find("requestId:x\\n(error) forged"), std::string::npos) << described;
    EXPECT_LT(described.size(), 300u);

    ORVCommFields reply = {"+id", "status\x1b[2J", "OK" + forged};
    for (int i = 0; i < 1000; ++i) reply.insert(reply.end(), {"k" + std::to_string(i), "v"});
    const std::string dict = ORVCommPkt::dictionaryFromReplyComponents(reply).description();
    EXPECT_EQ(dict.rfind("{status\\x1b[2J = OK\\n(error) forged", 0), 0u) << dict;
    EXPECT_EQ(dict.find_first_of("\n\x1b"), std::string::npos);
    EXPECT_LT(dict.size(), 1400u);
    EXPECT_NE(dict.find("more entries)}"), std::string::npos);
    // Plain replies read as before.
    EXPECT_EQ((ORVCommDictionary{{"status", "OK"}, {"a", "1"}}).description(),
              "{status = OK; a = 1}");
}

TEST(CommPkt, RequestCodeTable) {
    EXPECT_EQ(ORVCommDisableFullscreen::create()->opCode(), 4120006);
    EXPECT_EQ(ORVCommKinds::forCode(4120006)->name, std::string("ORVCommEnableFullscreen"));
    for (int32_t code : {4120007, 4120009, 4120030, 4119999, 4120042})
        EXPECT_EQ(ORVCommKinds::forCode(code), nullptr) << code;

    std::set<int32_t> codes;
    for (const auto& k : ORVCommKinds::all()) {
        auto p = k.create();
        EXPECT_EQ(p->opCode(), k.code);
        EXPECT_EQ(p->className(), std::string(k.name));
        if (k.code != 4120006) {
            EXPECT_TRUE(codes.insert(k.code).second) << k.name;
        }
        // Every kind accepts a received request.
        p->processRequest({"id", std::to_string(k.code)});
    }
    EXPECT_EQ(ORVCommKinds::all().size(), 32u);
    EXPECT_EQ(ORVCommKinds::forName("focusarea"), ORVCommKinds::forCode(4120012));
    EXPECT_EQ(ORVCommKinds::forName("ORVCommShowAlert"), ORVCommKinds::forCode(4120033));
    EXPECT_EQ(ORVCommKinds::forName("Comm"), nullptr);
}

TEST(CommPkt, TextHelpers) {
    EXPECT_EQ(orvCommIntValue("  -42abc"), -42);
    EXPECT_EQ(orvCommIntValue("x1"), 0);
    EXPECT_EQ(orvCommIntValue("99999999999"), INT32_MAX);
    EXPECT_EQ(orvCommIntValue("-99999999999"), INT32_MIN);
    EXPECT_EQ(orvCommDoubleValue(" +2.5x"), 2.5);
    EXPECT_EQ(orvCommDoubleValue("abc"), 0.0);

    EXPECT_EQ(orvCommSplitFields("").size(), 1u);
    EXPECT_EQ(orvCommSplitFields("a::b:").size(), 4u);

    for (const std::string& s :
         {std::string(), std::string("f"), std::string("fo"), std::string("foo"),
          std::string("foob"), std::string("\xff\x00\x01", 3)}) {
        EXPECT_EQ(orvBase64Decode(orvBase64Encode(s)), std::optional<std::string>(s));
    }
    EXPECT_FALSE(orvBase64Decode("abc"));
    EXPECT_FALSE(orvBase64Decode("ab=c"));
    EXPECT_FALSE(orvBase64Decode("a*cd"));

    auto valid = [](std::string s) {
        return orvCommIsValidUtf8(reinterpret_cast<const uint8_t*>(s.data()), s.size());
    };
    EXPECT_TRUE(valid("plain \xC3\xA9 \xF0\x9F\x98\x80"));
    EXPECT_FALSE(valid("\xC0\xAF"));      // overlong
    EXPECT_FALSE(valid("\xED\xA0\x80"));  // surrogate
    EXPECT_FALSE(valid("\xE2\x82"));      // cut short
}

struct BarePkt : ORVCommPkt {};

TEST(CommPktDeathTest, BaseKindIsInvalidUsage) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(BarePkt().requestCode(), "Invalid usage");
    EXPECT_DEATH(BarePkt().processRequest({}), "Invalid usage");
    // A packet must be held by reference to travel.
    EXPECT_DEATH(ORVCommKeepAlive().dispatch(), "Invalid usage");
}

}  // namespace
}  // namespace orv
