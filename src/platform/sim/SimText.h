#pragma once

// Deterministic layout of a simulated text element: every UTF-16 unit (the unit the
// accessibility interface counts characters in) takes one fixed cell, lines break after "\n".

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Geometry.h"

namespace orv::sim {

struct TextMetrics {
    double glyphWidth = 8;
    double lineHeight = 16;
    // Distance of the first cell from the element frame's top-left corner.
    double insetX = 2;
    double insetY = 2;
    // Width of the rectangle answered for a zero-length range.
    double caretWidth = 1;
    friend bool operator==(const TextMetrics&, const TextMetrics&) = default;
};

class TextLayout {
  public:
    explicit TextLayout(std::string_view utf8);

    long length() const { return static_cast<long>(unitByte_.size()) - 1; }
    long lineCount() const { return static_cast<long>(lineStarts_.size()); }
    bool isValid(Range r) const;

    // Line holding the index; the end of the text belongs to the last line. -1 when out of range.
    long lineForIndex(long index) const;
    // The line's characters including its closing "\n".
    std::optional<Range> rangeForLine(long line) const;
    std::optional<std::string> substring(Range r) const;
    // Top-left-origin rectangle of a range, given where the first cell starts. A zero-length range
    // is a caret; a range over several lines gives the union of its pieces.
    std::optional<Rect> boundsForRange(Range r, Point textOrigin, const TextMetrics& m) const;
    // The text with a range replaced.
    std::optional<std::string> replacing(Range r, std::string_view with) const;

    static long utf16Length(std::string_view utf8);

  private:
    long column(long index) const { return index - lineStarts_[lineForIndex(index)]; }

    std::string text_;
    std::vector<size_t> unitByte_;  // byte offset of each unit, then the end of the text
    std::vector<long> lineStarts_;
};

}  // namespace orv::sim
