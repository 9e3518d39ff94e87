// Phrase tables are files users and translators edit by hand: any bytes must parse without harm,
// and any phrase text, well-formed or not, must be safe to check and to fill.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Common/Format.h"
#include "speech/OrvLocalization.h"
#include "speech/PhraseKeys.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const orv::PhraseTable table = orv::parsePhraseTable(text);
    for (const auto& [key, phrase] : table.entries) {
        std::string error;
        (void)orv::phraseConversions(phrase, &error);
        (void)orv::formatArgs(phrase, {orv::FormatArg(std::string("Save")),
                                       orv::FormatArg(static_cast<unsigned long>(3))});
    }
    return 0;
}
