// Fuzzes the tree text reader: reading, building under a fresh application, and the text form
// written back. What loads must dump to a text that loads again into the same dump, and a
// refused text must be told in one short line and build nothing. The input is also read as one
// value, as other text forms embed them.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/sim/SimDesktop.h"
#include "platform/sim/SimTreeText.h"

namespace {

bool oneShortLine(const std::string& message) {
    return message.find('\n') == std::string::npos && message.size() <= 512;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace orv::sim;
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    TreeValue value;
    size_t used = 0;
    std::string why;
    if (parseTreeValue(text, &value, &used, &why)) {
        if (used > text.size()) std::abort();
        (void)formatTreeValue(value.value);
    } else if (!oneShortLine(why)) {
        std::abort();
    }

    SimTreeResult parsed = parseTreeText(text);
    if (!parsed.ok()) {
        if (!oneShortLine(parsed.message())) std::abort();
        return 0;
    }

    auto desk = SimDesktop::create();
    SimApp& app = desk->addApplication(100, "com.example.fuzz", "Fuzz");
    SimTreeResult loaded = app.load(std::string(text));
    if (!loaded.ok()) {
        if (!oneShortLine(loaded.message()) || !app.root()->children().empty()) std::abort();
        return 0;
    }
    const std::string dump = app.dump();
    // A role is written as it was read, and a line's last "\r" is taken for a CRLF ending: a
    // role or subrole that ends in one cannot come back the same.
    if (dump.find('\r') != std::string::npos) return 0;
    SimApp& again = desk->addApplication(200, "com.example.fuzz", "Fuzz");
    SimTreeResult reloaded = again.load(dump);
    if (!reloaded.ok() || again.dump() != dump) std::abort();
    return 0;
}
