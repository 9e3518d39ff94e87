#include "Common/TextValues.h"

#include <algorithm>
#include <charconv>
#include <limits>
namespace orv {

namespace {
size_t skipBlanks(std::string_view t, size_t i = 0) {
    while (i < t.size() && (t[i] == ' ' || t[i] == '\t' || t[i] == '\n' || t[i] == '\r'))
        ++i;
    return i;
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
}  // namespace

bool textBoolValue(std::string_view t) {
    size_t i = skipBlanks(t);
    if (i < t.size() && (t[i] == 'Y' || t[i] == 'y' || t[i] == 'T' || t[i] == 't')) return true;
    if (i < t.size() && (t[i] == '+' || t[i] == '-')) ++i;
    while (i < t.size() && t[i] == '0') ++i;
    return i < t.size() && t[i] >= '1' && t[i] <= '9';
}

int32_t textIntValue(std::string_view t) {
    size_t i = skipBlanks(t);
    bool negative = false;
    if (i < t.size() && (t[i] == '+' || t[i] == '-')) negative = t[i++] == '-';
    int64_t v = 0;
    constexpr int64_t kCap = int64_t(std::numeric_limits<int32_t>::max()) + 1;
    for (; i < t.size() && isDigit(t[i]); ++i) v = std::min(kCap, v * 10 + (t[i] - '0'));
    if (negative) return static_cast<int32_t>(std::max(-v, int64_t(std::numeric_limits<int32_t>::min())));
    return static_cast<int32_t>(std::min(v, int64_t(std::numeric_limits<int32_t>::max())));
}

float textFloatValue(std::string_view t) {
    size_t i = skipBlanks(t);
    size_t end = i;
    if (end < t.size() && (t[end] == '+' || t[end] == '-')) ++end;
    bool digits = false;
    while (end < t.size() && isDigit(t[end])) ++end, digits = true;
    if (end < t.size() && t[end] == '.') {
        ++end;
        while (end < t.size() && isDigit(t[end])) ++end, digits = true;
    }
    if (!digits) return 0;
    // An exponent counts only when digits follow it.
    if (end < t.size() && (t[end] == 'e' || t[end] == 'E')) {
        size_t e = end + 1;
        if (e < t.size() && (t[e] == '+' || t[e] == '-')) ++e;
        if (e < t.size() && isDigit(t[e])) {
            while (e < t.size() && isDigit(t[e])) ++e;
            end = e;
        }
    }
    // from_chars: bounded, and the decimal point does not follow the user's locale.
    size_t start = i;
    if (t[start] == '+') ++start;
    double v = 0;
    const auto r = std::from_chars(t.data() + start, t.data() + end, v);
    if (r.ec != std::errc()) return 0;
    // Beyond a float: the nearest end of its range, as a float's reader gives.
    constexpr double kMax = std::numeric_limits<float>::max();
    return static_cast<float>(std::clamp(v, -kMax, kMax));
}

}  // namespace orv
