#include "speech/PhraseKeys.h"

#include <map>

namespace orv {

const std::vector<PhraseKeyInfo>& echoPhraseKeys() {
    using namespace phrase_kinds;
#define ORV_PHRASE_INFO(name, key, ...) PhraseKeyInfo{key, {__VA_ARGS__}},
    static const std::vector<PhraseKeyInfo> keys{ORV_ECHO_PHRASES(ORV_PHRASE_INFO)};
#undef ORV_PHRASE_INFO
    return keys;
}

std::string punctuationKey(char c) {
    return std::string("Echo Char: ") + c;
}

bool isNamedPunctuation(char c) {
    return c != '\0' && kPunctuationCharacters.find(c) != std::string_view::npos;
}

std::optional<std::vector<PhraseArg>> phraseConversions(std::string_view text, std::string* error) {
    auto fail = [error](std::string why) -> std::optional<std::vector<PhraseArg>> {
        if (error) *error = std::move(why);
        return std::nullopt;
    };
    std::vector<PhraseArg> sequential;
    std::map<size_t, PhraseArg> positional;
    size_t i = 0;
    while (i < text.size()) {
        if (text[i] != '%') {
            ++i;
            continue;
        }
        const size_t start = i++;
        if (i < text.size() && text[i] == '%') {
            ++i;
            continue;
        }
        size_t index = 0;
        {
            size_t j = i;
            size_t n = 0;
            while (j < text.size() && text[j] >= '0' && text[j] <= '9' && n < 100)
                n = n * 10 + size_t(text[j++] - '0');
            if (j > i && j < text.size() && text[j] == '$' && n > 0) {
                index = n;
                i = j + 1;
            }
        }
        size_t lengthModifiers = 0;
        while (i < text.size() && (text[i] == 'l' || text[i] == 'z')) {
            ++i;
            ++lengthModifiers;
        }
        if (i >= text.size())
            return fail("conversion at " + std::to_string(start) + " is not finished");
        PhraseArg kind;
        if (text[i] == '@' && lengthModifiers == 0)
            kind = PhraseArg::String;
        else if (text[i] == 'u' && lengthModifiers <= 2)
            kind = PhraseArg::Unsigned;
        else
            return fail("unsupported conversion \"" +
                        std::string(text.substr(start, i + 1 - start)) + "\"");
        ++i;
        if (index == 0) {
            sequential.push_back(kind);
            continue;
        }
        auto [it, inserted] = positional.emplace(index, kind);
        if (!inserted && it->second != kind)
            return fail("argument " + std::to_string(index) + " is used as two kinds");
    }
    if (positional.empty()) return sequential;
    if (!sequential.empty()) return fail("positional and sequential conversions are mixed");
    std::vector<PhraseArg> args;
    for (const auto& [index, kind] : positional) {
        if (index != args.size() + 1)
            return fail("argument " + std::to_string(args.size() + 1) + " is never used");
        args.push_back(kind);
    }
    return args;
}

}  // namespace orv
