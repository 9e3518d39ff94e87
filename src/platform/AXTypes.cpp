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

bool operator==(const AXValue& a, const AXValue& b) {
    if (a.v_.index() != b.v_.index()) return false;
    if (auto ea = a.get<AXUIElementRef>()) return axEqual(*ea, *b.get<AXUIElementRef>());
    return a.v_ == b.v_;
}

}  // namespace orv
