#include "Common/ORVCommRequests.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

namespace orv {

ORVCommAgentHooks& ORVCommAgentHooks::shared() {
    static ORVCommAgentHooks hooks;
    return hooks;
}

namespace {

const std::string& fieldOrEmpty(const ORVCommFields& fields, size_t i) {
    static const std::string empty;
    return i < fields.size() ? fields[i] : empty;
}

char* appendInt(char* p, char* end, int32_t v) {
    *p++ = ':';
    return std::to_chars(p, end, v).ptr;
}

}  // namespace

// ---- shutdown ---------------------------------------------------------------------------------

void ORVCommShutdown::processRequest(const ORVCommFields&) {
    if (auto& hook = ORVCommAgentHooks::shared().shutdown) hook();
}

// ---- set magnification ------------------------------------------------------------------------

std::shared_ptr<ORVCommSetMagnification> ORVCommSetMagnification::create(double magnification) {
    auto p = create();
    p->magnification = magnification;
    return p;
}

void ORVCommSetMagnification::encode() {
    encodeWithPayload(orvCommFixed(magnification, 1));
}

void ORVCommSetMagnification::decodePayload(const ORVCommFields& fields) {
    magnification = orvCommDoubleValue(fieldOrEmpty(fields, 2));
}

// ---- focus area -------------------------------------------------------------------------------

std::shared_ptr<ORVCommFocusArea> ORVCommFocusArea::create(ORVOrientedRectRef area) {
    auto p = create();
    p->area = std::move(area);
    return p;
}

int32_t ORVCommFocusArea::wireCoordinate(double v) {
    if (std::isnan(v)) return 0;
    const double r = roundHalfAwayFromZero(v);
    if (r >= 2147483647.0) return INT32_MAX;
    if (r <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(r);
}

void ORVCommFocusArea::encode() {
    int32_t values[7] = {};
    if (area) {
        const Rect& r = area->rect();
        values[0] = wireCoordinate(r.origin.x);
        values[1] = wireCoordinate(r.origin.y);
        values[2] = wireCoordinate(r.size.width);
        values[3] = wireCoordinate(r.size.height);
        // The codes are unsigned but travel as "%i", so a huge code shows as negative.
        values[4] = static_cast<int32_t>(area->edgeX());
        values[5] = static_cast<int32_t>(area->edgeY());
        values[6] = static_cast<int32_t>(area->source());
    }
    // Written straight into one buffer: this runs on every focus move.
    std::string id = signature();
    char buf[32 + 8 * 12];
    char* const end = buf + sizeof buf;
    char* p = buf;
    std::memcpy(p, id.data(), id.size());
    p += id.size();
    p = appendInt(p, end, kRequestCode);
    for (int32_t v : values) p = appendInt(p, end, v);
    storeEncoded(std::move(id), buf, static_cast<size_t>(p - buf));
}

void ORVCommFocusArea::decodePayload(const ORVCommFields& fields) {
    auto field = [&](size_t i) { return orvCommIntValue(fieldOrEmpty(fields, i)); };
    area = ORVOrientedRect::initWithRect(
        Rect(field(2), field(3), field(4), field(5)), static_cast<uint32_t>(field(6)),
        static_cast<uint32_t>(field(7)), static_cast<uint32_t>(field(8)));
}

// ---- status -----------------------------------------------------------------------------------

void ORVCommStatusSubscription::processReply(const ORVCommDictionary& dictionary) {
    const std::string* status = dictionary.find("status");
    if (status && *status == "OK") {
        if (auto& hook = ORVCommAgentHooks::shared().statusSubscriptionConfirmed) hook(true);
    }
    if (auto handler = replyHandler()) handler(*this, dictionary);
}

void ORVCommStatusInquiry::processReply(const ORVCommDictionary& dictionary) {
    if (auto& hook = ORVCommAgentHooks::shared().statusReceived) hook(dictionary);
    if (auto handler = replyHandler()) handler(*this, dictionary);
}

std::shared_ptr<ORVCommStatusChanged> ORVCommStatusChanged::create(std::string key,
                                                                   std::string oldValue,
                                                                   std::string currentValue) {
    auto p = create();
    p->key = std::move(key);
    p->oldValue = std::move(oldValue);
    p->currentValue = std::move(currentValue);
    return p;
}

void ORVCommStatusChanged::encode() {
    std::string payload;
    payload.reserve(key.size() + oldValue.size() + currentValue.size() + 2);
    payload += key;
    payload += ':';
    payload += oldValue;
    payload += ':';
    payload += currentValue;
    encodeWithPayload(payload);
}

void ORVCommStatusChanged::decodePayload(const ORVCommFields& fields) {
    key = fieldOrEmpty(fields, 2);
    oldValue = fieldOrEmpty(fields, 3);
    currentValue = fieldOrEmpty(fields, 4);
}

void ORVCommStatusChanged::processRequest(const ORVCommFields& fields) {
    if (fields.size() < 5) return;
    if (auto& hook = ORVCommAgentHooks::shared().statusChanged)
        hook(fields[2], fields[3], fields[4]);
}

std::shared_ptr<ORVCommSetStatus> ORVCommSetStatus::create(ORVCommDictionary values) {
    auto p = create();
    p->values = std::move(values);
    return p;
}

void ORVCommSetStatus::encode() {
    encodeWithPayload(stringFromReplyDictionary(values));
}

void ORVCommSetStatus::decodePayload(const ORVCommFields& fields) {
    // Same pairing as a reply, one field further on (identifier and code come first).
    values = ORVCommDictionary();
    for (size_t i = 2; i + 1 < fields.size(); i += 2) values.set(fields[i], fields[i + 1]);
}

// ---- lens resize ------------------------------------------------------------------------------

std::shared_ptr<ORVCommLiveLensResize> ORVCommLiveLensResize::create(const Rect& lensRect) {
    auto p = create();
    p->lensRect = lensRect;
    return p;
}

void ORVCommLiveLensResize::encode() {
    encodeWithPayload(
        orvCommFixed(lensRect.origin.x, 6) + ":" + orvCommFixed(lensRect.origin.y, 6) + ":" +
        orvCommFixed(lensRect.size.width, 6) + ":" + orvCommFixed(lensRect.size.height, 6));
}

void ORVCommLiveLensResize::decodePayload(const ORVCommFields& fields) {
    auto field = [&](size_t i) { return orvCommDoubleValue(fieldOrEmpty(fields, i)); };
    lensRect = Rect(field(2), field(3), field(4), field(5));
}

std::shared_ptr<ORVCommFinalizeLensResize> ORVCommFinalizeLensResize::create(bool applyChanges) {
    auto p = create();
    p->applyChanges = applyChanges;
    return p;
}

void ORVCommFinalizeLensResize::encode() {
    encodeWithPayload(applyChanges ? "1" : "0");
}

void ORVCommFinalizeLensResize::decodePayload(const ORVCommFields& fields) {
    applyChanges = orvCommIntValue(fieldOrEmpty(fields, 2)) != 0;
}

// ---- alert ------------------------------------------------------------------------------------

std::shared_ptr<ORVCommShowAlert> ORVCommShowAlert::create(std::optional<std::string> alertText) {
    auto p = create();
    p->alertText = std::move(alertText);
    return p;
}

void ORVCommShowAlert::encode() {
    encodeWithPayload(alertText ? orvBase64Encode(*alertText) : std::string());
}

void ORVCommShowAlert::decodePayload(const ORVCommFields& fields) {
    const std::string& text = fieldOrEmpty(fields, 2);
    alertText = text.empty() ? std::nullopt : orvBase64Decode(text);
}

// ---- the table --------------------------------------------------------------------------------

namespace {

template <typename T>
ORVCommPktRef createAs() {
    return T::create();
}

template <typename T>
ORVCommPktRef newFromAs(SocketAddress address, ORVCommBytes request, std::string reqid) {
    return T::newFrom(std::move(address), std::move(request), std::move(reqid));
}

template <typename T>
ORVCommKindInfo info() {
    return ORVCommKindInfo{T::kClassName, T::kRequestCode, &createAs<T>, &newFromAs<T>};
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = char(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = char(y - 'A' + 'a');
        if (x != y) return false;
    }
    return true;
}

}  // namespace

const std::vector<ORVCommKindInfo>& ORVCommKinds::all() {
    static const std::vector<ORVCommKindInfo> table = {
        info<ORVCommEnableMagnifier>(),
        info<ORVCommDisableMagnifier>(),
        info<ORVCommToggleMagnifier>(),
        info<ORVCommSetMagnification>(),
        info<ORVCommIncreaseMagnification>(),
        info<ORVCommDecreaseMagnification>(),
        info<ORVCommEnableFullscreen>(),
        info<ORVCommDisableFullscreen>(),
        info<ORVCommToggleFullscreen>(),
        info<ORVCommShutdown>(),
        info<ORVCommFocusArea>(),
        info<ORVCommToggleColorScheme>(),
        info<ORVCommKeepAlive>(),
        info<ORVCommOpenPreferences>(),
        info<ORVCommEnableFontSmoothingToggle>(),
        info<ORVCommStatusSubscription>(),
        info<ORVCommStatusChanged>(),
        info<ORVCommOpenLensResizer>(),
        info<ORVCommStatusInquiry>(),
        info<ORVCommSetStatus>(),
        info<ORVCommStartLensResize>(),
        info<ORVCommLiveLensResize>(),
        info<ORVCommFinalizeLensResize>(),
        info<ORVCommShowAlert>(),
        info<ORVCommToggleSpeech>(),
        info<ORVCommOpenReaderWindow>(),
        info<ORVCommReadFromBrowser>(),
        info<ORVCommReadFromClipboard>(),
        info<ORVCommReadFromSelection>(),
        info<ORVCommReadFromWindow>(),
        info<ORVCommReadFromCamera>(),
        info<ORVCommReadFromFile>(),
    };
    return table;
}

const ORVCommKindInfo* ORVCommKinds::forCode(int32_t code) {
    // Direct index over the code range; the first kind listed for a code wins.
    static const auto byCode = [] {
        std::array<const ORVCommKindInfo*, kLastCode - kFirstCode + 1> t{};
        for (const auto& k : all()) {
            auto& slot = t[static_cast<size_t>(k.code - kFirstCode)];
            if (!slot) slot = &k;
        }
        return t;
    }();
    if (code < kFirstCode || code > kLastCode) return nullptr;
    return byCode[static_cast<size_t>(code - kFirstCode)];
}

const ORVCommKindInfo* ORVCommKinds::forName(std::string_view name) {
    constexpr std::string_view prefix = "ORVComm";
    for (const auto& k : all()) {
        std::string_view full = k.name;
        if (equalsIgnoringCase(full, name) || equalsIgnoringCase(full.substr(prefix.size()), name))
            return &k;
    }
    return nullptr;
}

}  // namespace orv
