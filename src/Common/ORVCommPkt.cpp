#include "Common/ORVCommPkt.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>

#include "Common/Format.h"
#include "Common/ORVCommAssert.h"
#include "Common/ORVCommunicationHub.h"
#include "Common/OrvLogger.h"

namespace orv {

namespace {

constexpr const char* kSourceName = "Common/ORVCommPkt";

// Process-wide; atomic only so that two threads encoding at once stay defined behaviour.
std::atomic<unsigned long> gSignatureCounter{0};

}  // namespace

// ---- ORVCommDictionary ------------------------------------------------------------------------

ORVCommDictionary::ORVCommDictionary(std::initializer_list<Entry> entries) {
    for (const auto& e : entries) set(e.first, e.second);
}

void ORVCommDictionary::set(std::string key, std::string value) {
    for (auto& e : entries_) {
        if (e.first == key) {
            e.second = std::move(value);
            return;
        }
    }
    entries_.emplace_back(std::move(key), std::move(value));
}

const std::string* ORVCommDictionary::find(std::string_view key) const {
    for (const auto& e : entries_)
        if (e.first == key) return &e.second;
    return nullptr;
}

void ORVCommDictionary::remove(std::string_view key) {
    std::erase_if(entries_, [&](const Entry& e) { return e.first == key; });
}

std::string ORVCommDictionary::description() const {
    // Keys and values come from the other side of the link and this text goes into messages:
    // each is escaped and cut, and a reply of thousands of pairs shows only its first ones.
    constexpr size_t kMaxDescriptionBytes = 1024;
    std::string out = "{";
    for (size_t i = 0; i < entries_.size(); ++i) {
        if (out.size() > kMaxDescriptionBytes) {
            out += format("; ... (%@ more entries)", entries_.size() - i);
            break;
        }
        if (i > 0) out += "; ";
        out += outsideText(entries_[i].first);
        out += " = ";
        out += outsideText(entries_[i].second);
    }
    out += "}";
    return out;
}

// ---- class-level values -----------------------------------------------------------------------

std::string ORVCommPkt::signature() {
    const unsigned long n = gSignatureCounter.fetch_add(1, std::memory_order_relaxed);
    // "ORVCommReq%08lu", without the formatter: this is on every focus-area send.
    char digits[24];
    auto res = std::to_chars(digits, digits + sizeof digits, n);
    const size_t len = static_cast<size_t>(res.ptr - digits);
    std::string out = "ORVCommReq";
    if (len < 8) out.append(8 - len, '0');
    out.append(digits, len);
    return out;
}

void ORVCommPkt::resetSignatureCounter(unsigned long next) {
    gSignatureCounter.store(next, std::memory_order_relaxed);
}

ORVCommDictionary ORVCommPkt::dictionaryFromReplyComponents(const ORVCommFields& fields) {
    ORVCommDictionary d;
    d.reserve(fields.size() / 2);
    // Field 1 is "+<id>"; pairs start at field 2, and a key without a value is dropped.
    for (size_t i = 1; i + 1 < fields.size(); i += 2) d.set(fields[i], fields[i + 1]);
    return d;
}

std::string ORVCommPkt::stringFromReplyDictionary(const ORVCommDictionary& dictionary) {
    std::string out;
    bool first = true;
    for (const auto& [k, v] : dictionary) {
        if (!first) out += ':';
        first = false;
        out += k;
        out += ':';
        out += v;
    }
    return out;
}

int32_t ORVCommPkt::requestCode() const {
    orvCommInvalidUsage(kSourceName);
}

// ---- fields -----------------------------------------------------------------------------------

ORVCommBytes ORVCommPkt::request() const {
    std::lock_guard lock(mutex_);
    return request_;
}

void ORVCommPkt::setRequest(ORVCommBytes request) {
    std::lock_guard lock(mutex_);
    request_ = std::move(request);
}

bool ORVCommPkt::hasRequest() const {
    std::lock_guard lock(mutex_);
    return !request_.empty();
}

int32_t ORVCommPkt::opCode() const {
    std::lock_guard lock(mutex_);
    return opCode_;
}

std::string ORVCommPkt::requestId() const {
    std::lock_guard lock(mutex_);
    return requestId_;
}

void ORVCommPkt::setRequestId(std::string requestId) {
    std::lock_guard lock(mutex_);
    requestId_ = std::move(requestId);
}

SocketAddress ORVCommPkt::remoteAddress() const {
    std::lock_guard lock(mutex_);
    return remoteAddress_;
}

void ORVCommPkt::setRemoteAddress(SocketAddress address) {
    std::lock_guard lock(mutex_);
    remoteAddress_ = std::move(address);
}

std::shared_ptr<ORVCommunicationHub> ORVCommPkt::receivingHub() const {
    std::lock_guard lock(mutex_);
    return receivingHub_.lock();
}

void ORVCommPkt::setReceivingHub(std::weak_ptr<ORVCommunicationHub> hub) {
    std::lock_guard lock(mutex_);
    receivingHub_ = std::move(hub);
}

void ORVCommPkt::setReplyHandler(ReplyHandler handler) {
    std::lock_guard lock(mutex_);
    replyHandler_ = std::move(handler);
}

void ORVCommPkt::setTimeoutHandler(TimeoutHandler handler) {
    std::lock_guard lock(mutex_);
    timeoutHandler_ = std::move(handler);
}

ORVCommPkt::ReplyHandler ORVCommPkt::replyHandler() const {
    std::lock_guard lock(mutex_);
    return replyHandler_;
}

std::string ORVCommPkt::description() const {
    // A received packet's identifier is whatever the sender put there.
    return format("<%s: %p requestId:%@ opCode:%i>", className(), static_cast<const void*>(this),
                  outsideText(requestId()), opCode());
}

// ---- encoding ---------------------------------------------------------------------------------

void ORVCommPkt::storeEncoded(std::string requestId, const char* bytes, size_t length) {
    std::lock_guard lock(mutex_);
    requestId_ = std::move(requestId);
    request_.assign(reinterpret_cast<const uint8_t*>(bytes),
                    reinterpret_cast<const uint8_t*>(bytes) + length);
}

void ORVCommPkt::encode() {
    const int32_t code = requestCode();
    std::string id = signature();
    std::string text = id;
    text += ':';
    text += std::to_string(code);
    storeEncoded(std::move(id), text.data(), text.size());
}

void ORVCommPkt::encodeWithPayload(std::string_view payload) {
    const int32_t code = requestCode();
    std::string id = signature();
    std::string text;
    text.reserve(id.size() + 12 + payload.size());
    text += id;
    text += ':';
    text += std::to_string(code);
    text += ':';
    text += payload;
    storeEncoded(std::move(id), text.data(), text.size());
}

// ---- behaviour --------------------------------------------------------------------------------

void ORVCommPkt::dispatch() {
    auto self = weak_from_this().lock();
    orvCommAssert(self != nullptr, kSourceName);  // packets travel by shared reference
    if (auto hub = ORVCommunicationHub::sharedInstance()) hub->dispatch(self);
}

void ORVCommPkt::dispatchReply(const ORVCommDictionary& dictionary) {
    auto self = weak_from_this().lock();
    orvCommAssert(self != nullptr, kSourceName);
    auto hub = receivingHub();
    if (!hub) hub = ORVCommunicationHub::sharedInstance();
    if (hub) hub->dispatch(self, stringFromReplyDictionary(dictionary));
}

void ORVCommPkt::dispatchTimeout() {
    TimeoutHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = timeoutHandler_;
    }
    if (handler) handler(*this);
}

void ORVCommPkt::processRequest(const ORVCommFields&) {
    orvCommInvalidUsage(kSourceName);
}

void ORVCommPkt::processReply(const ORVCommDictionary& dictionary) {
    if (auto handler = replyHandler()) {
        handler(*this, dictionary);
        return;
    }
    OrvLogger::addInfoMessageWithFormat("Received unhandled reply for %@", className());
}

void ORVCommPkt::decodePayload(const ORVCommFields&) {}

// ---- text helpers -----------------------------------------------------------------------------

namespace {
bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}
}  // namespace

int32_t orvCommIntValue(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && isBlank(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    int64_t v = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        v = v * 10 + (text[i] - '0');
        if (v > static_cast<int64_t>(INT32_MAX) + 1) {
            v = static_cast<int64_t>(INT32_MAX) + 1;
            // Keep reading digits only to stay saturated.
        }
    }
    if (negative) return v > static_cast<int64_t>(INT32_MAX) ? INT32_MIN : static_cast<int32_t>(-v);
    return v > INT32_MAX ? INT32_MAX : static_cast<int32_t>(v);
}

double orvCommDoubleValue(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && isBlank(text[i])) ++i;
    if (i < text.size() && text[i] == '+') ++i;
    double v = 0;
    auto res = std::from_chars(text.data() + i, text.data() + text.size(), v);
    if (res.ec == std::errc::result_out_of_range) {
        // from_chars leaves the value alone on overflow; read the sign of what was there.
        const bool negative = i < text.size() && text[i] == '-';
        return negative ? -HUGE_VAL : HUGE_VAL;
    }
    return res.ec == std::errc() ? v : 0.0;
}

std::string orvCommFixed(double value, int decimals) {
    char buf[400];  // the largest double has 309 integer digits
    auto res = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed, decimals);
    if (res.ec != std::errc())
        return format(std::string("%0.") + std::to_string(decimals) + "f", value);
    return std::string(buf, res.ptr);
}

namespace {
constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}
}  // namespace

std::string orvBase64Encode(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const uint32_t v = (uint32_t(uint8_t(bytes[i])) << 16) |
                           (uint32_t(uint8_t(bytes[i + 1])) << 8) | uint32_t(uint8_t(bytes[i + 2]));
        out += kBase64[(v >> 18) & 63];
        out += kBase64[(v >> 12) & 63];
        out += kBase64[(v >> 6) & 63];
        out += kBase64[v & 63];
    }
    const size_t rest = bytes.size() - i;
    if (rest == 1) {
        const uint32_t v = uint32_t(uint8_t(bytes[i])) << 16;
        out += kBase64[(v >> 18) & 63];
        out += kBase64[(v >> 12) & 63];
        out += "==";
    } else if (rest == 2) {
        const uint32_t v =
            (uint32_t(uint8_t(bytes[i])) << 16) | (uint32_t(uint8_t(bytes[i + 1])) << 8);
        out += kBase64[(v >> 18) & 63];
        out += kBase64[(v >> 12) & 63];
        out += kBase64[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

std::optional<std::string> orvBase64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::string out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int v[4];
        int pad = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = text[i + k];
            if (c == '=' && last && k >= 2) {
                v[k] = 0;
                ++pad;
                continue;
            }
            if (pad) return std::nullopt;  // data after padding
            v[k] = base64Value(c);
            if (v[k] < 0) return std::nullopt;
        }
        const uint32_t n = (uint32_t(v[0]) << 18) | (uint32_t(v[1]) << 12) | (uint32_t(v[2]) << 6) |
                           uint32_t(v[3]);
        out += char((n >> 16) & 0xff);
        if (pad < 2) out += char((n >> 8) & 0xff);
        if (pad < 1) out += char(n & 0xff);
    }
    return out;
}

bool orvCommIsValidUtf8(const uint8_t* s, size_t n) {
    size_t i = 0;
    while (i < n) {
        const uint8_t c = s[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t len;
        uint32_t cp;
        if ((c & 0xe0) == 0xc0) {
            len = 2;
            cp = c & 0x1f;
        } else if ((c & 0xf0) == 0xe0) {
            len = 3;
            cp = c & 0x0f;
        } else if ((c & 0xf8) == 0xf0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > n) return false;
        for (size_t k = 1; k < len; ++k) {
            if ((s[i + k] & 0xc0) != 0x80) return false;
            cp = (cp << 6) | (s[i + k] & 0x3f);
        }
        // No overlong forms, no surrogates, nothing past the last code point.
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) ||
            (cp >= 0xd800 && cp <= 0xdfff) || cp > 0x10ffff)
            return false;
        i += len;
    }
    return true;
}

ORVCommFields orvCommSplitFields(std::string_view text) {
    ORVCommFields fields;
    size_t start = 0;
    for (;;) {
        const size_t colon = text.find(':', start);
        if (colon == std::string_view::npos) {
            fields.emplace_back(text.substr(start));
            return fields;
        }
        fields.emplace_back(text.substr(start, colon - start));
        start = colon + 1;
    }
}

}  // namespace orv
