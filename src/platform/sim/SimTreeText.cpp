#include "platform/sim/SimTreeText.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>

#include "Common/Format.h"
#include "platform/sim/SimElement.h"

namespace orv::sim {

std::string SimTreeResult::message() const {
    if (ok()) return {};
    return line > 0 ? "line " + std::to_string(line) + ": " + error : error;
}

namespace {

constexpr double kLongMin = static_cast<double>(std::numeric_limits<long>::min());

bool isNameChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.';
}

// Text of the input inside a message: escaped and cut, so an error stays one short line.
std::string shown(std::string_view s) {
    return "'" + outsideText(s) + "'";
}

// Reads one line after its indentation.
class LineReader {
  public:
    explicit LineReader(std::string_view s) : s_(s) {}

    bool parse(TreeEntry* entry, std::string* error) {
        err_ = error;
        std::string head = word();
        if (head.empty()) return fail("expected a role");
        if (head.find('=') != std::string::npos)
            return fail("expected a role before the attributes, found " + shown(head));
        auto slash = head.find('/');
        entry->role = head.substr(0, slash);
        if (entry->role == "-") entry->role.clear();
        if (slash != std::string::npos) {
            entry->subrole = head.substr(slash + 1);
            if (entry->subrole.empty()) return fail("empty subrole after '/'");
        }
        bool attributesStarted = false;
        for (;;) {
            skipSpaces();
            if (eof()) return true;
            char c = peek();
            if (c == '"') {
                if (entry->title || attributesStarted || entry->frame)
                    return fail("the title must come right after the role");
                std::string title;
                if (!readString(&title)) return false;
                entry->title = title;
            } else if (c == '[') {
                if (entry->frame) return fail("more than one frame");
                if (attributesStarted) return fail("the frame must come before the attributes");
                Rect r;
                if (!readRectBody(&r)) return false;
                entry->frame = r;
            } else if (c == '#') {
                ++i_;
                if (!entry->label.empty()) return fail("more than one label");
                entry->label = name();
                if (entry->label.empty()) return fail("expected a label name after '#'");
            } else {
                attributesStarted = true;
                size_t start = i_;
                std::string key = name();
                if (key.empty() || eof() || peek() != '=') {
                    i_ = start;
                    return fail("expected attribute as key=value, found " + shown(rest()));
                }
                ++i_;
                TreeValue v;
                if (!readValue(&v, 0)) return false;
                entry->attributes.emplace_back(key, std::move(v));
            }
        }
    }

    // One value from the start of the text; *used is how far it read.
    bool valueOnly(TreeValue* v, size_t* used, std::string* error) {
        err_ = error;
        if (eof()) return fail("expected a value");
        if (!readValue(v, 0)) return false;
        *used = i_;
        return true;
    }

  private:
    bool fail(const std::string& m) {
        if (err_ && err_->empty()) *err_ = m;
        return false;
    }
    bool eof() const { return i_ >= s_.size(); }
    char peek() const { return s_[i_]; }
    void skipSpaces() {
        while (!eof() && (peek() == ' ' || peek() == '\t')) ++i_;
    }
    std::string rest() const {
        std::string r(s_.substr(i_, 20));
        auto sp = r.find(' ');
        return sp == std::string::npos ? r : r.substr(0, sp);
    }
    std::string word() {
        size_t start = i_;
        while (!eof() && peek() != ' ' && peek() != '\t') ++i_;
        return std::string(s_.substr(start, i_ - start));
    }
    std::string name() {
        size_t start = i_;
        while (!eof() && isNameChar(peek())) ++i_;
        return std::string(s_.substr(start, i_ - start));
    }

    bool readString(std::string* out) {
        ++i_;  // opening quote
        out->clear();
        while (!eof()) {
            char c = s_[i_++];
            if (c == '"') return true;
            if (c != '\\') {
                *out += c;
                continue;
            }
            if (eof()) break;
            char e = s_[i_++];
            switch (e) {
                case '"':
                    *out += '"';
                    break;
                case '\\':
                    *out += '\\';
                    break;
                case 'n':
                    *out += '\n';
                    break;
                case 't':
                    *out += '\t';
                    break;
                default:
                    return fail("unknown escape \\" + outsideText(std::string_view(&e, 1)) +
                                " in string");
            }
        }
        return fail("unterminated string");
    }

    bool readNumber(double* out, bool* integral, long long* whole = nullptr) {
        skipSpaces();
        size_t start = i_;
        while (!eof() && (std::isdigit(static_cast<unsigned char>(peek())) || peek() == '-' ||
                          peek() == '+' || peek() == '.' || peek() == 'e' || peek() == 'E'))
            ++i_;
        std::string text(s_.substr(start, i_ - start));
        if (text.empty()) return fail("expected a number, found " + shown(rest()));
        char* end = nullptr;
        *out = std::strtod(text.c_str(), &end);
        if (*end != '\0' || !std::isfinite(*out)) return fail("bad number " + shown(text));
        bool isWhole = text.find_first_of(".eE") == std::string::npos;
        if (integral) *integral = isWhole;
        if (whole && isWhole) {
            errno = 0;
            *whole = std::strtoll(text.c_str(), &end, 10);
            if (*end != '\0' || errno == ERANGE) return fail("bad number " + shown(text));
        }
        return true;
    }

    // n numbers separated by blanks or commas, then the closing character.
    bool readNumbers(size_t n, char close, std::vector<double>* out, const char* what) {
        for (size_t k = 0; k < n; ++k) {
            skipSpaces();
            if (k && !eof() && peek() == ',') ++i_;
            double v;
            if (!readNumber(&v, nullptr)) return fail(std::string("expected ") + what);
            out->push_back(v);
        }
        skipSpaces();
        if (eof() || peek() != close)
            return fail(std::string("expected '") + close + "' to close " + what);
        ++i_;
        return true;
    }

    bool readRectBody(Rect* r) {
        ++i_;  // [
        std::vector<double> v;
        if (!readNumbers(4, ']', &v, "frame [x y w h]")) return false;
        *r = Rect(v[0], v[1], v[2], v[3]);
        return true;
    }

    // depth: arrays around this value.
    bool readValue(TreeValue* v, int depth) {
        if (eof() || peek() == ' ') return fail("missing value after '='");
        char c = peek();
        if (c == '"') {
            std::string s;
            if (!readString(&s)) return false;
            v->value = s;
            return true;
        }
        if (c == '[') {
            Rect r;
            if (!readRectBody(&r)) return false;
            v->value = r;
            return true;
        }
        if (c == '@') {
            ++i_;
            v->reference = name();
            if (v->reference.empty()) return fail("expected a label after '@'");
            return true;
        }
        if (c == '(') {
            if (depth >= kTreeValueMaxNesting)
                return fail("arrays nested more than " + std::to_string(kTreeValueMaxNesting) +
                            " deep");
            ++i_;
            v->isArray = true;
            for (;;) {
                skipSpaces();
                if (eof()) return fail("unterminated array, expected ')'");
                if (peek() == ')') {
                    ++i_;
                    return true;
                }
                TreeValue item;
                if (!readValue(&item, depth + 1)) return false;
                v->items.push_back(std::move(item));
            }
        }
        if (std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '+' || c == '.') {
            double d;
            bool integral;
            long long whole = 0;
            if (!readNumber(&d, &integral, &whole)) return false;
            if (integral)
                v->value = whole;
            else
                v->value = d;
            return true;
        }
        std::string word = name();
        if (word == "true") return (v->value = true), true;
        if (word == "false") return (v->value = false), true;
        if (word == "none") return (v->value = AXValue()), true;
        if (eof() || peek() != '(') return fail("cannot read value " + shown(word + rest()));
        ++i_;
        std::vector<double> n;
        if (word == "point") {
            if (!readNumbers(2, ')', &n, "point(x y)")) return false;
            v->value = Point{n[0], n[1]};
        } else if (word == "size") {
            if (!readNumbers(2, ')', &n, "size(w h)")) return false;
            v->value = Size{n[0], n[1]};
        } else if (word == "range") {
            if (!readNumbers(2, ')', &n, "range(location length)")) return false;
            // Converting a double past long's range is undefined; within it, it truncates.
            for (double x : n)
                if (!(x >= kLongMin && x < -kLongMin))
                    return fail("range(location length) out of range");
            v->value = Range{static_cast<long>(n[0]), static_cast<long>(n[1])};
        } else if (word == "rect") {
            if (!readNumbers(4, ')', &n, "rect(x y w h)")) return false;
            v->value = Rect(n[0], n[1], n[2], n[3]);
        } else if (word == "url") {
            skipSpaces();
            std::string u;
            if (eof() || peek() != '"' || !readString(&u)) return fail("expected url(\"...\")");
            skipSpaces();
            if (eof() || peek() != ')') return fail("expected ')' to close url(...)");
            ++i_;
            v->value = AXURL{u};
        } else {
            return fail("unknown value kind " + shown(word + "("));
        }
        return true;
    }

    std::string_view s_;
    size_t i_ = 0;
    std::string* err_ = nullptr;
};

struct FlatLine {
    int depth;
    TreeEntry entry;
};

// Builds the hierarchy from lines in order, without recursion; depths were checked while
// reading. open[k] is the latest entry at depth k whose children may still follow.
void nest(std::vector<FlatLine>& flat, std::vector<TreeEntry>* out) {
    std::vector<TreeEntry> open;
    auto close = [&] {
        TreeEntry done = std::move(open.back());
        open.pop_back();
        (open.empty() ? *out : open.back().children).push_back(std::move(done));
    };
    for (auto& line : flat) {
        while (open.size() > static_cast<size_t>(line.depth)) close();
        open.push_back(std::move(line.entry));
    }
    while (!open.empty()) close();
}

void collectLabels(const std::vector<TreeEntry>& entries, std::vector<const TreeEntry*>* out) {
    for (auto& s : entries) {
        if (!s.label.empty()) out->push_back(&s);
        collectLabels(s.children, out);
    }
}

bool checkReferences(const TreeValue& v, const std::function<bool(const std::string&)>& known,
                     std::string* missing) {
    if (!v.reference.empty() && !known(v.reference)) {
        *missing = v.reference;
        return false;
    }
    for (auto& item : v.items)
        if (!checkReferences(item, known, missing)) return false;
    return true;
}

AXValue resolveValue(const TreeValue& v,
                     const std::function<SimNodePtr(const std::string&)>& find) {
    if (!v.reference.empty()) return AXValue(SimElementRef::forNode(find(v.reference)));
    if (v.isArray) {
        AXArray items;
        for (auto& item : v.items) items.push_back(resolveValue(item, find));
        return AXValue(std::move(items));
    }
    return v.value;
}

using LabelMap = std::map<std::string, SimNodePtr, std::less<>>;

// The labelled nodes of a subtree, in one walk without recursion; the first in depth-first
// order wins, as with SimNode::find. One walk instead of a search per label keeps a long text
// from costing its length squared.
LabelMap labelsUnder(const SimNodePtr& top) {
    LabelMap out;
    std::vector<SimNodePtr> todo;
    if (top) todo.push_back(top);
    while (!todo.empty()) {
        SimNodePtr n = std::move(todo.back());
        todo.pop_back();
        if (!n->label().empty()) out.emplace(n->label(), n);
        const auto& children = n->children();
        todo.insert(todo.end(), children.rbegin(), children.rend());
    }
    return out;
}

// The scope's labels, walked for once and only when a label or a reference needs them: adding
// unlabelled elements to a large tree stays cheap.
struct ScopeLabels {
    SimNodePtr scope;
    std::optional<LabelMap> map;

    const LabelMap& get() {
        if (!map) map = labelsUnder(scope);
        return *map;
    }
};

struct Builder {
    ScopeLabels& existing;
    std::map<std::string, SimNodePtr> made;
    std::vector<std::pair<SimNodePtr, const TreeEntry*>> pending;

    SimNodePtr find(const std::string& label) {
        auto it = made.find(label);
        if (it != made.end()) return it->second;
        auto old = existing.get().find(label);
        return old == existing.get().end() ? nullptr : old->second;
    }

    // Head fields now; attributes after every node exists, so references may point forward.
    void apply(const SimNodePtr& node, const TreeEntry& entry, bool isTarget) {
        if (!isTarget) {
            if (entry.role.empty()) node->unset("AXRole");
            if (!entry.subrole.empty()) node->set("AXSubrole", entry.subrole);
        }
        if (entry.title) node->set("AXTitle", *entry.title);
        if (entry.frame) node->setFrame(*entry.frame);
        if (!entry.label.empty()) {
            node->setLabel(entry.label);
            made[entry.label] = node;
        }
        pending.emplace_back(node, &entry);
        for (auto& child : entry.children) apply(node->addChild(child.role), child, false);
    }

    void finish() {
        auto lookup = [this](const std::string& l) { return find(l); };
        for (auto& [node, entry] : pending)
            for (auto& [key, value] : entry->attributes)
                node->set(key, resolveValue(value, lookup));
    }
};

SimTreeResult build(const SimNodePtr& parent, const std::vector<TreeEntry>& entries,
                    const SimNodePtr& scope, const TreeEntry* targetEntry) {
    SimTreeResult result;
    // Check everything first so that a bad text builds nothing.
    std::vector<const TreeEntry*> labelled;
    if (targetEntry && !targetEntry->label.empty()) labelled.push_back(targetEntry);
    collectLabels(entries, &labelled);
    ScopeLabels existing{scope, std::nullopt};
    std::map<std::string, const TreeEntry*> labels;
    for (auto* s : labelled) {
        if (labels.count(s->label) || existing.get().count(s->label)) {
            result.line = s->line;
            result.error = "label " + shown(s->label) + " is used twice";
            return result;
        }
        labels[s->label] = s;
    }
    auto known = [&](const std::string& l) { return labels.count(l) || existing.get().count(l); };
    // level: how far below its application the entry's element lies.
    std::function<bool(const TreeEntry&, int)> check = [&](const TreeEntry& s, int level) {
        if (level > kTreeMaxDepth) {
            result.line = s.line;
            result.error = "the element would lie " + std::to_string(level) +
                           " levels below its application, past the most of " +
                           std::to_string(kTreeMaxDepth);
            return false;
        }
        for (auto& [key, value] : s.attributes) {
            std::string missing;
            if (!checkReferences(value, known, &missing)) {
                result.line = s.line;
                result.error = "unknown element @" + outsideText(missing);
                return false;
            }
        }
        for (auto& c : s.children)
            if (!check(c, level + 1)) return false;
        return true;
    };
    const int base = parent->depth();
    if (targetEntry && !check(*targetEntry, base)) return result;
    for (auto& s : entries)
        if (!check(s, base + 1)) return result;

    Builder b{existing, {}, {}};
    if (targetEntry) {
        b.apply(parent, *targetEntry, true);
    } else {
        for (auto& s : entries) {
            auto node = parent->addChild(s.role);
            b.apply(node, s, false);
            result.nodes.push_back(node);
        }
    }
    b.finish();
    return result;
}

}  // namespace

SimTreeResult parseTreeText(std::string_view text) {
    SimTreeResult result;
    std::vector<FlatLine> flat;
    int lineNo = 0;
    int previousDepth = -1;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(start, end - start);
        start = end + 1;
        ++lineNo;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        size_t indent = 0;
        while (indent < line.size() && (line[indent] == ' ' || line[indent] == '\t')) {
            if (line[indent] == '\t') {
                result.line = lineNo;
                result.error = "tab in indentation; indent with two spaces per level";
                return result;
            }
            ++indent;
        }
        std::string_view body = line.substr(indent);
        while (!body.empty() && (body.back() == ' ' || body.back() == '\t')) body.remove_suffix(1);
        if (body.empty() || body.substr(0, 2) == "//") {
            if (end == text.size()) break;
            continue;
        }
        auto fail = [&](const std::string& m) {
            result.line = lineNo;
            result.error = m;
            result.roots.clear();
            return result;
        };
        if (indent % 2)
            return fail("indentation of " + std::to_string(indent) +
                        " spaces is not a multiple of two");
        int depth = static_cast<int>(indent / 2);
        if (depth > previousDepth + 1)
            return fail(previousDepth < 0 ? "the first element must not be indented"
                                          : "indented by more than one level below the line above");
        if (depth > kTreeMaxDepth)
            return fail("indented more than " + std::to_string(kTreeMaxDepth) + " levels");
        FlatLine fl{depth, {}};
        fl.entry.line = lineNo;
        std::string error;
        if (!LineReader(body).parse(&fl.entry, &error)) return fail(error);
        flat.push_back(std::move(fl));
        previousDepth = depth;
        if (end == text.size()) break;
    }
    nest(flat, &result.roots);
    return result;
}

SimTreeResult buildTree(const SimNodePtr& parent, const std::vector<TreeEntry>& entries,
                        const SimNodePtr& scope) {
    return build(parent, entries, scope, nullptr);
}

SimTreeResult loadTreeText(const SimNodePtr& parent, std::string_view text) {
    SimTreeResult parsed = parseTreeText(text);
    if (!parsed.ok()) return parsed;
    // Labels are looked up in the whole application.
    SimNodePtr scope = parent;
    while (scope->parent()) scope = scope->parent();
    if (parent->kind() == SimNode::Kind::Application && parsed.roots.size() == 1 &&
        parsed.roots[0].role == "AXApplication") {
        const TreeEntry& top = parsed.roots[0];
        if (!top.subrole.empty()) parent->set("AXSubrole", top.subrole);
        return build(parent, top.children, scope, &top);
    }
    return build(parent, parsed.roots, scope, nullptr);
}

bool parseTreeValue(std::string_view text, TreeValue* out, size_t* used, std::string* error) {
    size_t ignored = 0;
    return LineReader(text).valueOnly(out, used ? used : &ignored, error);
}

}  // namespace orv::sim
