#include "platform/sim/SimText.h"

#include <algorithm>

namespace orv::sim {

namespace {

// Byte length of the UTF-8 sequence starting with b, and how many UTF-16 units it encodes.
// Malformed bytes count as one unit each so that any byte string lays out.
void sequence(std::string_view s, size_t i, size_t* bytes, int* units) {
    unsigned char b = static_cast<unsigned char>(s[i]);
    size_t n = b < 0x80 ? 1 : (b >> 5) == 0x6 ? 2 : (b >> 4) == 0xE ? 3 : (b >> 3) == 0x1E ? 4 : 0;
    if (n == 0 || i + n > s.size()) {
        *bytes = 1;
        *units = 1;
        return;
    }
    for (size_t k = 1; k < n; ++k)
        if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) {
            *bytes = 1;
            *units = 1;
            return;
        }
    *bytes = n;
    *units = n == 4 ? 2 : 1;
}

}  // namespace

TextLayout::TextLayout(std::string_view utf8) : text_(utf8) {
    lineStarts_.push_back(0);
    for (size_t i = 0; i < text_.size();) {
        size_t bytes;
        int units;
        sequence(text_, i, &bytes, &units);
        for (int u = 0; u < units; ++u) unitByte_.push_back(i);
        if (text_[i] == '\n') lineStarts_.push_back(static_cast<long>(unitByte_.size()));
        i += bytes;
    }
    unitByte_.push_back(text_.size());
}

long TextLayout::utf16Length(std::string_view utf8) {
    long n = 0;
    for (size_t i = 0; i < utf8.size();) {
        size_t bytes;
        int units;
        sequence(utf8, i, &bytes, &units);
        n += units;
        i += bytes;
    }
    return n;
}

bool TextLayout::isValid(Range r) const {
    return r.location >= 0 && r.length >= 0 && r.location <= length() &&
           r.length <= length() - r.location;
}

long TextLayout::lineForIndex(long index) const {
    if (index < 0 || index > length()) return -1;
    auto it = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), index);
    return static_cast<long>(it - lineStarts_.begin()) - 1;
}

std::optional<Range> TextLayout::rangeForLine(long line) const {
    if (line < 0 || line >= lineCount()) return std::nullopt;
    long start = lineStarts_[line];
    long end = line + 1 < lineCount() ? lineStarts_[line + 1] : length();
    return Range{start, end - start};
}

std::optional<std::string> TextLayout::substring(Range r) const {
    if (!isValid(r)) return std::nullopt;
    size_t from = unitByte_[r.location];
    size_t to = unitByte_[r.location + r.length];
    return text_.substr(from, to - from);
}

std::optional<Rect> TextLayout::boundsForRange(Range r, Point o, const TextMetrics& m) const {
    if (!isValid(r)) return std::nullopt;
    if (r.length == 0) {
        long line = lineForIndex(r.location);
        return Rect(o.x + column(r.location) * m.glyphWidth, o.y + line * m.lineHeight,
                    m.caretWidth, m.lineHeight);
    }
    long last = r.location + r.length - 1;
    long firstLine = lineForIndex(r.location), lastLine = lineForIndex(last);
    Rect all = Rect::zero();
    for (long line = firstLine; line <= lastLine; ++line) {
        long fromCol = line == firstLine ? column(r.location) : 0;
        long toCol = line == lastLine ? column(last) + 1 : rangeForLine(line)->length;
        Rect piece(o.x + fromCol * m.glyphWidth, o.y + line * m.lineHeight,
                   (toCol - fromCol) * m.glyphWidth, m.lineHeight);
        all = line == firstLine ? piece : all.unionWith(piece);
    }
    return all;
}

std::optional<std::string> TextLayout::replacing(Range r, std::string_view with) const {
    if (!isValid(r)) return std::nullopt;
    std::string out = text_.substr(0, unitByte_[r.location]);
    out += with;
    out += text_.substr(unitByte_[r.location + r.length]);
    return out;
}

}  // namespace orv::sim
