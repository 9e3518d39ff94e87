#include "platform/AXTypes.h"

#include "Common/Format.h"

namespace orv {

std::string AXValue::description() const {
    struct Visitor {
        std::string operator()(std::monostate) const { return "(null)"; }
        std::string operator()(bool b) const { return b ? "1" : "0"; }
        std::string operator()(int64_t i) const { return std::to_string(i); }
        std::string operator()(double d) const { return formatNumber(d); }
        std::string operator()(const std::string& s) const { return s; }
        std::string operator()(const Point& p) const { return toString(p); }
        std::string operator()(const Size& s) const { return toString(s); }
        std::string operator()(const Rect& r) const { return r.toString(); }
        std::string operator()(const Range& r) const { return toString(r); }
        std::string operator()(const AXUIElementRef& e) const {
            return e ? e->debugDescription() : "(null)";
        }
        std::string operator()(const AXArray& a) const {
            std::string out = "(";
            for (size_t i = 0; i < a.size(); ++i) {
                if (i) out += ", ";
                out += a[i].description();
            }
            return out + ")";
        }
        std::string operator()(const AXURL& u) const { return u.url; }
        std::string operator()(const AXTextMarker& m) const {
            return "<AXTextMarker " + std::to_string(m.bytes.size()) + " bytes>";
        }
        std::string operator()(const AXTextMarkerRange& m) const {
            return "<AXTextMarkerRange " + std::to_string(m.bytes.size()) + " bytes>";
        }
    };
    return std::visit(Visitor{}, v_);
}

AXTextMarkerRange makeTextMarkerRange(const AXTextMarker& start, const AXTextMarker& end) {
    return AXTextMarkerRange{std::to_string(start.bytes.size()) + ":" + start.bytes + end.bytes};
}

namespace {

// Length of the start marker and where its bytes begin.
bool splitTextMarkerRange(const std::string& bytes, size_t* startLength, size_t* startAt) {
    const size_t colon = bytes.find(':');
    // Eighteen digits cannot overflow; no range this form wrote comes near them.
    if (colon == std::string::npos || colon == 0 || colon > 18) return false;
    uint64_t n = 0;
    for (size_t i = 0; i < colon; ++i) {
        const char c = bytes[i];
        if (c < '0' || c > '9') return false;
        n = n * 10 + static_cast<uint64_t>(c - '0');
    }
    if (n > bytes.size() - colon - 1) return false;
    *startLength = static_cast<size_t>(n);
    *startAt = colon + 1;
    return true;
}

}  // namespace

std::optional<AXTextMarker> textMarkerRangeStart(const AXTextMarkerRange& range) {
    size_t length = 0, at = 0;
    if (!splitTextMarkerRange(range.bytes, &length, &at)) return std::nullopt;
    return AXTextMarker{range.bytes.substr(at, length)};
}

std::optional<AXTextMarker> textMarkerRangeEnd(const AXTextMarkerRange& range) {
    size_t length = 0, at = 0;
    if (!splitTextMarkerRange(range.bytes, &length, &at)) return std::nullopt;
    return AXTextMarker{range.bytes.substr(at + length)};
}

bool operator==(const AXValue& a, const AXValue& b) {
    if (a.v_.index() != b.v_.index()) return false;
    if (auto ea = a.get<AXUIElementRef>()) return axEqual(*ea, *b.get<AXUIElementRef>());
    return a.v_ == b.v_;
}

}  // namespace orv
