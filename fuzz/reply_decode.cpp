// Fuzzes the decoding of reply and request text: field split, reply pairing and its inverse,
// every kind's payload reading, Base64 and number reading.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "Common/ORVCommPkt.h"
#include "Common/ORVCommRequests.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace orv;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const ORVCommFields fields = orvCommSplitFields(text);

    // Pairing is stable: writing a decoded reply out and reading it back gives the same pairs.
    const ORVCommDictionary reply = ORVCommPkt::dictionaryFromReplyComponents(fields);
    const std::string again = "+id:" + ORVCommPkt::stringFromReplyDictionary(reply);
    if (!reply.empty() &&
        ORVCommPkt::dictionaryFromReplyComponents(orvCommSplitFields(again)) != reply)
        std::abort();

    for (const auto& kind : ORVCommKinds::all()) {
        ORVCommPktRef p = kind.create();
        p->decodePayload(fields);
        p->processRequest(fields);
        p->encode();  // whatever was read can be written out again
        if (!p->hasRequest()) std::abort();
    }

    if (fields.size() > 1) (void)orvCommIntValue(fields[1]);
    (void)orvCommDoubleValue(text);
    if (auto decoded = orvBase64Decode(text)) {
        if (orvBase64Decode(orvBase64Encode(*decoded)) != decoded) std::abort();
    }
    (void)orvCommIsValidUtf8(data, size);
    return 0;
}
