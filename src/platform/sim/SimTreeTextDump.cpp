// The text form written back from a desktop's tree, and single values in it.

#include <utility>
#include <vector>

#include "Common/Format.h"
#include "platform/sim/SimElement.h"
#include "platform/sim/SimTreeText.h"

namespace orv::sim {

namespace {

std::string quote(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += c;
        }
    }
    return out + "\"";
}

std::string formatDouble(double v) {
    std::string s = formatNumber(v);
    if (s.find_first_of(".eEn") == std::string::npos) s += ".0";
    return s;
}

std::string elementText(const AXUIElementRef& e) {
    auto r = SimElementRef::from(e);
    if (!r) return "none";
    if (auto n = r->node(); n && !n->label().empty()) return "@" + n->label();
    return "@node" + std::to_string(r->nodeId());
}

void dumpLine(const SimNode& n, size_t depth, std::string* out) {
    out->append(depth * 2, ' ');
    auto role = n.stored("AXRole");
    auto subrole = n.stored("AXSubrole");
    auto title = n.stored("AXTitle");
    bool roleIsText = role && role->is<std::string>() && !role->get<std::string>()->empty();
    bool subroleIsText =
        subrole && subrole->is<std::string>() && !subrole->get<std::string>()->empty();
    bool titleIsText = title && title->is<std::string>();
    *out += roleIsText ? *role->get<std::string>() : "-";
    if (subroleIsText) *out += "/" + *subrole->get<std::string>();
    if (titleIsText) *out += " " + quote(*title->get<std::string>());
    if (auto f = n.frame())
        *out += " [" + formatNumber(f->origin.x) + " " + formatNumber(f->origin.y) + " " +
                formatNumber(f->size.width) + " " + formatNumber(f->size.height) + "]";
    if (!n.label().empty()) *out += " #" + n.label();
    for (auto& [key, value] : n.storedAttributes()) {
        if ((key == "AXRole" && roleIsText) || (key == "AXSubrole" && subroleIsText) ||
            (key == "AXTitle" && titleIsText))
            continue;
        *out += " " + key + "=" + formatTreeValue(value);
    }
    *out += "\n";
}

// Depth first in child order, without recursion: a desktop's tree has no depth limit.
void dumpNode(const SimNode& top, std::string* out) {
    std::vector<std::pair<const SimNode*, size_t>> todo = {{&top, 0}};
    while (!todo.empty()) {
        auto [n, depth] = todo.back();
        todo.pop_back();
        dumpLine(*n, depth, out);
        const auto& children = n->children();
        for (auto c = children.rbegin(); c != children.rend(); ++c)
            todo.emplace_back(c->get(), depth + 1);
    }
}

}  // namespace

std::string dumpTree(const SimNodePtr& node) {
    std::string out;
    if (node) dumpNode(*node, &out);
    return out;
}

std::string formatTreeValue(const AXValue& value) {
    struct Visitor {
        std::string operator()(std::monostate) const { return "none"; }
        std::string operator()(bool b) const { return b ? "true" : "false"; }
        std::string operator()(int64_t i) const { return std::to_string(i); }
        std::string operator()(double d) const { return formatDouble(d); }
        std::string operator()(const std::string& s) const { return quote(s); }
        std::string operator()(const Point& p) const {
            return "point(" + formatNumber(p.x) + " " + formatNumber(p.y) + ")";
        }
        std::string operator()(const Size& s) const {
            return "size(" + formatNumber(s.width) + " " + formatNumber(s.height) + ")";
        }
        std::string operator()(const Rect& r) const {
            return "[" + formatNumber(r.origin.x) + " " + formatNumber(r.origin.y) + " " +
                   formatNumber(r.size.width) + " " + formatNumber(r.size.height) + "]";
        }
        std::string operator()(const Range& r) const {
            return "range(" + std::to_string(r.location) + " " + std::to_string(r.length) + ")";
        }
        std::string operator()(const AXUIElementRef& e) const { return elementText(e); }
        std::string operator()(const AXArray& a) const {
            std::string out = "(";
            for (size_t i = 0; i < a.size(); ++i) out += (i ? " " : "") + formatTreeValue(a[i]);
            return out + ")";
        }
        std::string operator()(const AXURL& u) const { return "url(" + quote(u.url) + ")"; }
        // Opaque web positions have no text form.
        std::string operator()(const AXTextMarker&) const { return "none"; }
        std::string operator()(const AXTextMarkerRange&) const { return "none"; }
    };
    return std::visit(Visitor{}, value.storage());
}

}  // namespace orv::sim
