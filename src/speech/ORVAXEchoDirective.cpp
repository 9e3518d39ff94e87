#include "speech/ORVAXEchoDirective.h"

#include "Common/Format.h"

namespace orv {

std::string ORVAXEchoDirective::description() const {
    const long source =
        sourceSpeechDirective ? static_cast<long>(sourceSpeechDirective->source) : -1;
    return format("<ORVAXEchoDirective: %p segments:%lu delay:%g source:%ld>",
                  static_cast<const void*>(this), static_cast<unsigned long>(text.size()),
                  static_cast<double>(initialDelay), source);
}

}  // namespace orv
