#pragma once

// Internal to the scenario reader and player (SimScenario*.cpp): reading one line of a scenario,
// and doing one action of its timeline.

#include <cctype>
#include <cmath>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Format.h"
#include "platform/sim/SimScenario.h"

namespace orv::sim::scenario_parts {

inline bool isNameChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.';
}

inline bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

inline std::string_view trim(std::string_view s) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
    return s;
}

inline bool isCommentOrBlank(std::string_view line) {
    std::string_view body = trim(line);
    return body.empty() || body.substr(0, 2) == "//";
}

// Text of the file inside a message: escaped and cut, so that an error is one short line
// whatever the file holds.
inline std::string quoted(std::string_view s) {
    return "\"" + outsideText(s) + "\"";
}

// A file's name in a message: escaped, and cut only past any real path's length.
inline std::string shownPath(std::string_view path) {
    return outsideText(path, 4096);
}

// Longest action text an event shows; the rest is cut with a note.
inline constexpr size_t kShownActionBytes = 300;

// Sums of decimal steps (after 0.1 three times) are not exactly the decimal written with at.
inline constexpr double kTimeSlack = 1e-9;

// Times in messages, without the noise of those sums.
inline std::string timeText(double t) {
    return formatNumber(std::round(t * 1e6) / 1e6);
}

inline std::string seconds(double t) {
    return timeText(t) + " s";
}

inline std::string_view withoutHash(std::string_view label) {
    if (!label.empty() && label.front() == '#') label.remove_prefix(1);
    return label;
}

inline bool isNumber(const TreeValue& v) {
    return !v.isArray && v.reference.empty() && (v.value.is<int64_t>() || v.value.is<double>());
}

inline double numberOf(const TreeValue& v) {
    if (auto i = v.value.get<int64_t>()) return static_cast<double>(*i);
    return *v.value.get<double>();
}

// Reads one command line left to right; every reader names what it expected when it fails.
class Cursor {
  public:
    explicit Cursor(std::string_view s) : s_(s) {}

    bool atEnd() {
        skip();
        return i_ >= s_.size();
    }
    std::string_view rest() {
        skip();
        return s_.substr(i_);
    }
    std::string peekWord() {
        skip();
        size_t end = i_;
        while (end < s_.size() && !isBlank(s_[end])) ++end;
        return std::string(s_.substr(i_, end - i_));
    }
    std::string word() {
        std::string w = peekWord();
        i_ += w.size();
        return w;
    }

    bool label(std::string* out, std::string* error) {
        std::string token = peekWord();
        skip();
        size_t start = i_;
        if (i_ < s_.size() && s_[i_] == '#') ++i_;
        size_t nameStart = i_;
        while (i_ < s_.size() && isNameChar(s_[i_])) ++i_;
        if (start == nameStart || i_ == nameStart || (i_ < s_.size() && !isBlank(s_[i_]))) {
            i_ = start;
            *error = token.empty() ? "expected an element label like #name"
                                   : "expected an element label like #name, found " + quoted(token);
            return false;
        }
        *out = std::string(s_.substr(nameStart, i_ - nameStart));
        return true;
    }

    // A value in the tree form's syntax, standing alone up to the next blank. Starts right at the
    // cursor when `here`, after blanks otherwise.
    bool value(TreeValue* out, std::string* error, bool here = false) {
        if (!here) skip();
        size_t used = 0;
        std::string why;
        if (!parseTreeValue(s_.substr(i_), out, &used, &why)) {
            *error = why;
            return false;
        }
        i_ += used;
        if (i_ < s_.size() && !isBlank(s_[i_])) {
            *error = "unexpected " + quoted(peekWordAt(i_)) + " after the value";
            return false;
        }
        return true;
    }

    bool number(double* out, const std::string& what, std::string* error) {
        std::string token = peekWord();
        TreeValue v;
        std::string why;
        if (token.empty() || !value(&v, &why) || !isNumber(v)) {
            *error = token.empty() ? "expected " + what
                                   : "expected " + what + ", found " + quoted(token);
            return false;
        }
        *out = numberOf(v);
        return true;
    }

    bool string(std::string* out, const std::string& what, std::string* error) {
        std::string token = peekWord();
        TreeValue v;
        if (!value(&v, error)) {
            if (token.empty()) *error = "expected " + what;
            return false;
        }
        auto s = v.value.get<std::string>();
        if (!s || v.isArray || !v.reference.empty()) {
            *error = "expected " + what + ", found " + quoted(token);
            return false;
        }
        *out = *s;
        return true;
    }

    // key=value for a user default: the value a "string" with the tree form's escapes, or a bare
    // word as written.
    bool setting(std::string* key, std::string* out, std::string* error) {
        if (!keyAndEquals(key, "a default as KEY=VALUE", error)) return false;
        if (s_[i_] != '"') {
            *out = peekWordAt(i_);
            i_ += out->size();
            return true;
        }
        TreeValue v;
        if (!value(&v, error, true)) return false;
        *out = *v.value.get<std::string>();
        return true;
    }

    // key=value, the value as in the tree form.
    bool attribute(std::string* key, TreeValue* v, std::string* error) {
        if (!keyAndEquals(key, "attribute as key=value", error)) return false;
        return value(v, error, true);
    }

    // "key=" with a value after it; `expected` names what was looked for when there is none.
    bool keyAndEquals(std::string* key, const char* expected, std::string* error) {
        skip();
        size_t start = i_;
        while (i_ < s_.size() && isNameChar(s_[i_])) ++i_;
        if (i_ == start || i_ >= s_.size() || s_[i_] != '=') {
            i_ = start;
            *error = std::string("expected ") + expected + ", found " + quoted(peekWord());
            return false;
        }
        *key = std::string(s_.substr(start, i_ - start));
        ++i_;
        if (i_ >= s_.size() || isBlank(s_[i_])) {
            *error = "missing value after " + quoted(*key + "=");
            return false;
        }
        return true;
    }

  private:
    void skip() {
        while (i_ < s_.size() && isBlank(s_[i_])) ++i_;
    }
    std::string peekWordAt(size_t at) const {
        size_t end = at;
        while (end < s_.size() && !isBlank(s_[end])) ++end;
        return std::string(s_.substr(at, end - at));
    }

    std::string_view s_;
    size_t i_ = 0;
};

void collectReferences(const TreeValue& v, std::vector<std::string>* out);

// What the target of an action must be.
enum class Need { None, Any, Element, Application, Text };

struct ActionInfo {
    Scenario::Step::Kind kind;
    Need target;
    // Also a setup line, in place before the agent starts.
    bool inSetup = false;
};
// The timed action a keyword names; null for anything else.
const ActionInfo* actionInfo(std::string_view keyword);

// "a AXButton", or "without a role", for messages.
std::string roleText(const SimNode& node);

// Reads what follows an action's target (SimScenarioRead.cpp), everything but launch's and add's;
// "" or why the line is refused.
std::string readActionArguments(Cursor& c, Scenario::Step* s);
// The actions of SimScenarioText.cpp. Checks one against the desktop it meets in the dry run, the
// target already found with the kind its ActionInfo needs; "" or why it cannot be done there.
std::string checkTextStep(const Scenario::Step& s, const SimNodePtr& target);
// The pop-up list a combo box shows: its scroll area, or null.
SimNodePtr openListOf(const SimNodePtr& comboBox);

struct Outcome {
    std::string note;  // empty when the action was done
    int line = 0;      // the line to blame for a tree that did not load
};

Outcome treeFailure(const Scenario::Block& block, const SimTreeResult& r, int headerLine);

// Does one action on the desktop. The parser plays every action on a private desktop first, so
// a note here means something else changed the desktop under the scenario.
Outcome playStep(SimDesktop& desk, const Scenario& sc, const Scenario::Step& s);
Outcome playTextStep(SimDesktop& desk, const Scenario& sc, const Scenario::Step& s,
                     const SimNodePtr& target);

}  // namespace orv::sim::scenario_parts
