#include "platform/Platform.h"

#include <cstdio>
#include <cstdlib>

namespace orv {

namespace {
std::shared_ptr<Platform>& slot() {
    static std::shared_ptr<Platform> p;
    return p;
}
}  // namespace

Platform& platform() {
    auto& p = slot();
    if (!p) {
        std::fputs("ocuvane: no platform installed\n", stderr);
        std::abort();
    }
    return *p;
}

void installPlatform(std::shared_ptr<Platform> p) {
    slot() = std::move(p);
}

std::shared_ptr<Platform> installedPlatform() {
    return slot();
}

}  // namespace orv
