#include "Common/ORVCommAssert.h"

#include <cstdio>
#include <cstdlib>

#include "Common/Format.h"
#include "Common/OrvLogger.h"

namespace orv {

void orvCommInvalidUsage(const char* source) {
    const std::string line = format("*** Assertion failure in %s: Invalid usage", source);
    systemLog(line);
    std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace orv
