#pragma once

// Settings arrive from the magnifier as text and are read the way the platform's strings read
// themselves as numbers and truth values, so a sloppy value never fails: it reads as 0 or false.

#include <cstdint>
#include <string_view>

namespace orv {

// True when, after leading blanks, the text begins with Y, y, T, t or a digit 1 to 9 (a leading
// sign and leading zeros skipped).
bool textBoolValue(std::string_view text);
// The leading decimal digits after blanks and an optional sign, clamped to 32 bits; else 0.
int32_t textIntValue(std::string_view text);
// The leading decimal number (digits, point, exponent) after blanks and a sign; else 0.
float textFloatValue(std::string_view text);

}  // namespace orv
