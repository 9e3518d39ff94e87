#pragma once

// Misuse of the magnifier link is a programming error: it is logged and ends the process at once
// (in every build), never left to undefined behaviour.

namespace orv {

// Logs "*** Assertion failure in <source>: Invalid usage" and aborts.
[[noreturn]] void orvCommInvalidUsage(const char* source);

inline void orvCommAssert(bool condition, const char* source) {
    if (!condition) orvCommInvalidUsage(source);
}

}  // namespace orv
