#include "speech/ORVAXSpeechDirective.h"

#include "Common/Format.h"

namespace orv {

namespace {

// Bytes of the UTF-8 sequence that starts with `lead` and its UTF-16 units; a stray byte counts
// as one character, as a lenient decoder would show it.
void unitAt(unsigned char lead, size_t* bytes, size_t* units) {
    if (lead >= 0xf0 && lead <= 0xf4) {
        *bytes = 4;
        *units = 2;
    } else if (lead >= 0xe0 && lead < 0xf0) {
        *bytes = 3;
        *units = 1;
    } else if (lead >= 0xc2 && lead < 0xe0) {
        *bytes = 2;
        *units = 1;
    } else {
        *bytes = 1;
        *units = 1;
    }
}

}  // namespace

size_t textLength(std::string_view utf8) {
    size_t n = 0;
    for (size_t i = 0; i < utf8.size();) {
        size_t bytes, units;
        unitAt(static_cast<unsigned char>(utf8[i]), &bytes, &units);
        i += bytes;
        n += units;
    }
    return n;
}

std::string_view textPrefix(std::string_view utf8, size_t units) {
    size_t i = 0, n = 0;
    while (i < utf8.size()) {
        size_t bytes, u;
        unitAt(static_cast<unsigned char>(utf8[i]), &bytes, &u);
        if (n + u > units || i + bytes > utf8.size()) break;
        i += bytes;
        n += u;
    }
    return utf8.substr(0, i);
}

std::string ORVAXSpeechDirective::description() const {
    FormatArg simplified;
    if (simplifiedDescription) {
        const std::string& s = *simplifiedDescription;
        simplified = textLength(s) >= 31 ? std::string(textPrefix(s, 30)) + "..." : s;
    }
    return formatArgs("<%@: %p simplified:[%@] source:%ld>",
                      {FormatArg("ORVAXSpeechDirective"), FormatArg(static_cast<const void*>(this)),
                       simplified, FormatArg(source)});
}

}  // namespace orv
