#include "Common/ORVAXCommController.h"

#include "Common/ORVCommRequests.h"
#include "Common/TextValues.h"
#include "speech/ORVAXEchoController.h"

namespace orv {

namespace {
ORVAXCommController::FocusAreaObserver& observer() {
    static ORVAXCommController::FocusAreaObserver o;
    return o;
}
}  // namespace

void ORVAXCommController::focusArea(const ORVOrientedRectRef& area) {
    ORVCommFocusArea::create(area)->dispatch();
    if (auto& o = observer()) o(area);
}

void ORVAXCommController::setFocusAreaObserver(FocusAreaObserver o) {
    observer() = std::move(o);
}

void ORVAXCommController::updateUsingDictionary(const std::map<std::string, std::string>& settings) {
    auto text = [&](const char* key) -> const std::string* {
        auto it = settings.find(key);
        return it == settings.end() ? nullptr : &it->second;
    };
    // The order matters: voice, rate and volume are in place before echo is switched on, and
    // speech comes on last, once everything it will use is set.
    if (auto v = text("echoVoice")) ORVAXEchoController::setEchoVoice(*v);
    if (auto v = text("echoRate")) ORVAXEchoController::setEchoRate(textFloatValue(*v));
    if (auto v = text("echoVolume")) ORVAXEchoController::setEchoVolume(textFloatValue(*v));
    if (auto v = text("focusEchoEnabled")) ORVAXEchoController::enableFocusEcho(textBoolValue(*v));
    if (auto v = text("focusEchoStyle"))
        ORVAXEchoController::enableFocusEchoContext(textIntValue(*v) == 2);
    if (auto v = text("mouseEchoEnabled")) ORVAXEchoController::enableMouseEcho(textBoolValue(*v));
    if (auto v = text("mouseEchoCondition"))
        ORVAXEchoController::setMouseEchoCondition(static_cast<uint32_t>(textIntValue(*v)));
    if (auto v = text("magnificationEnabled"))
        ORVAXEchoController::setMagnificationEnabled(textBoolValue(*v));
    if (auto v = text("speechEnabled")) ORVAXEchoController::setSpeechEnabled(textBoolValue(*v));
    if (auto v = text("keyMods")) ORVAXEchoController::modKeysUpdated(textIntValue(*v));
}

}  // namespace orv
