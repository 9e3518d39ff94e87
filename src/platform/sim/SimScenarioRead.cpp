// Reading what follows the target of an action on a scenario line: numbers, strings, entries,
// attributes and errors. Launch and add, which take trees, are the parser's own.

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "platform/sim/SimScenarioParts.h"

namespace orv::sim::scenario_parts {

namespace {

using Step = Scenario::Step;
using Kind = Scenario::Step::Kind;

// Indexes, offsets and counts stay far below this; past it a number is a mistake.
constexpr double kLargestCount = std::numeric_limits<int32_t>::max();

std::string endOfLine(Cursor& c) {
    return c.atEnd() ? std::string()
                     : "unexpected " + quoted(c.peekWord()) + " at the end of the line";
}

// A whole number of 0 or more: an index, an offset, a length.
std::string readCount(Cursor& c, const std::string& what, double* out) {
    std::string token = c.peekWord();
    std::string why;
    if (!c.number(out, what, &why)) return why;
    if (*out < 0 || *out != std::floor(*out))
        return what + " is a whole number of 0 or more, not " + quoted(token);
    if (*out > kLargestCount) return what + " " + quoted(token) + " is out of range";
    return {};
}

// How many reads a fault lasts: for ever when left out.
std::string readTimes(Cursor& c, double* out) {
    *out = -1;
    if (c.atEnd()) return {};
    if (std::string why = readCount(c, "a number of reads", out); !why.empty()) return why;
    if (*out == 0) return "a fault lasts at least 1 read; leave the number out for every read";
    return endOfLine(c);
}

std::string readAttributeName(Cursor& c, const std::string& action, std::string* out) {
    *out = c.word();
    if (*out == "*" || (!out->empty() && std::all_of(out->begin(), out->end(), isNameChar)))
        return {};
    return action + " needs an attribute name, like AXValue, or * for every attribute" +
           (out->empty() ? std::string() : ", not " + quoted(*out));
}

const std::map<std::string, AXError, std::less<>>& errorNames() {
    static const std::map<std::string, AXError, std::less<>> kNames = {
        {"kAXErrorFailure", kAXErrorFailure},
        {"kAXErrorIllegalArgument", kAXErrorIllegalArgument},
        {"kAXErrorInvalidUIElement", kAXErrorInvalidUIElement},
        {"kAXErrorInvalidUIElementObserver", kAXErrorInvalidUIElementObserver},
        {"kAXErrorCannotComplete", kAXErrorCannotComplete},
        {"kAXErrorAttributeUnsupported", kAXErrorAttributeUnsupported},
        {"kAXErrorActionUnsupported", kAXErrorActionUnsupported},
        {"kAXErrorNotificationUnsupported", kAXErrorNotificationUnsupported},
        {"kAXErrorNotImplemented", kAXErrorNotImplemented},
        {"kAXErrorNotificationAlreadyRegistered", kAXErrorNotificationAlreadyRegistered},
        {"kAXErrorNotificationNotRegistered", kAXErrorNotificationNotRegistered},
        {"kAXErrorAPIDisabled", kAXErrorAPIDisabled},
        {"kAXErrorNoValue", kAXErrorNoValue},
        {"kAXErrorParameterizedAttributeUnsupported", kAXErrorParameterizedAttributeUnsupported},
        {"kAXErrorNotEnoughPrecision", kAXErrorNotEnoughPrecision},
    };
    return kNames;
}

// A name of the interface's errors, or any other error number, which applications answer too.
std::string readError(Cursor& c, double* out) {
    const std::string token = c.peekWord();
    const std::string hint = "; write a name like kAXErrorCannotComplete or a number";
    if (token.empty()) return "expected an error" + hint;
    if (auto it = errorNames().find(token); it != errorNames().end()) {
        c.word();
        *out = it->second;
        return {};
    }
    TreeValue v;
    std::string ignored;
    if (!c.value(&v, &ignored) || !v.value.is<int64_t>() || v.isArray)
        return "unknown error " + quoted(token) + hint;
    const int64_t n = *v.value.get<int64_t>();
    if (n == kAXErrorSuccess) return "an injected error is not 0, which is success";
    if (n < std::numeric_limits<int32_t>::min() || n > std::numeric_limits<int32_t>::max())
        return "error " + quoted(token) + " is out of range";
    *out = static_cast<double>(n);
    return {};
}

// A string that must be quoted, where a bare word would be read as another kind of value.
std::string readQuoted(Cursor& c, const std::string& what, std::string* out) {
    const std::string token = c.peekWord();
    if (token.empty()) return "expected " + what;
    if (!token.starts_with("\"")) return "expected " + what + ", found " + quoted(token);
    std::string why;
    return c.string(out, what, &why) ? std::string() : why;
}

// open-list #box [#list] "entry" ... [selected N]
std::string readOpenList(Cursor& c, Step* s) {
    std::string why;
    if (c.peekWord().starts_with("#") && !c.label(&s->name, &why)) return why;
    while (!c.atEnd() && c.peekWord() != "selected") {
        std::string entry;
        if (std::string bad = readQuoted(c, "a list entry in quotes", &entry); !bad.empty())
            return bad;
        s->strings.push_back(std::move(entry));
    }
    if (s->strings.empty()) return "open-list needs at least one entry in quotes";
    s->a = -1;
    if (c.atEnd()) return {};
    c.word();
    if (std::string bad = readCount(c, "the selected entry", &s->a); !bad.empty()) return bad;
    if (s->a >= static_cast<double>(s->strings.size()))
        return "selected " + timeText(s->a) + " is past the last entry, " +
               std::to_string(s->strings.size() - 1) + " (entries count from 0)";
    return endOfLine(c);
}

std::string readSet(Cursor& c, Step* s) {
    if (c.atEnd()) return "set needs at least one key=value";
    static const std::map<std::string, std::string> kRouted = {
        {"AXPosition", "move #name X Y"},
        {"AXSize", "resize #name W H"},
        {"AXFocused", "focus #name"},
    };
    std::string why;
    while (!c.atEnd()) {
        std::string key;
        TreeValue v;
        if (!c.attribute(&key, &v, &why)) return why;
        if (auto r = kRouted.find(key); r != kRouted.end())
            return "set cannot change " + key + "; use " + r->second;
        s->attributes.emplace_back(key, std::move(v));
    }
    return {};
}

// A size, or a text range.
std::string readPair(Cursor& c, Step* s) {
    const bool isSize = s->kind == Kind::Resize;
    std::string why;
    if (!c.number(&s->a, isSize ? "a width" : "a location", &why) ||
        !c.number(&s->b, isSize ? "a height" : "a length", &why))
        return why;
    if (std::string rest = endOfLine(c); !rest.empty()) return rest;
    if (s->a < 0 || s->b < 0)
        return isSize ? "a size is not negative" : "a text range is not negative";
    if (!isSize && (s->a != std::floor(s->a) || s->b != std::floor(s->b)))
        return "a text range counts whole characters";
    // Past long's range the conversion to a text range is undefined.
    constexpr double kLongEnd = -static_cast<double>(std::numeric_limits<long>::min());
    if (!isSize && (s->a >= kLongEnd || s->b >= kLongEnd)) return "a text range is out of range";
    return {};
}

}  // namespace

std::string readActionArguments(Cursor& c, Step* s) {
    std::string why;
    switch (s->kind) {
        case Kind::Focus:
        case Kind::Unfocus:
        case Kind::Front:
        case Kind::Quit:
        case Kind::Destroy:
        case Kind::Delete:
        case Kind::CloseList:
        case Kind::FirstCharBounds:
        case Kind::ZeroBoundsAtEnd:
        case Kind::QuietFocus:
            return endOfLine(c);
        case Kind::Set:
            return readSet(c, s);
        case Kind::Post:
            s->word = c.word();
            if (s->word.empty() || !std::all_of(s->word.begin(), s->word.end(), isNameChar))
                return "post needs a notification name, like AXTitleChanged";
            return endOfLine(c);
        case Kind::Move:
        case Kind::Pointer:
        case Kind::QuietMove:
            if (!c.number(&s->a, "x", &why) || !c.number(&s->b, "y", &why)) return why;
            return endOfLine(c);
        case Kind::Resize:
        case Kind::Select:
        case Kind::QuietSelect:
            return readPair(c, s);
        case Kind::Type:
        case Kind::QuietText:
            if (!c.string(
                    &s->word,
                    s->kind == Kind::Type ? "the text to type in quotes" : "the text in quotes",
                    &why))
                return why;
            return endOfLine(c);
        case Kind::SelectWeb:
            if (!(why = readCount(c, "an index", &s->a)).empty() ||
                !(why = readCount(c, "an index", &s->b)).empty())
                return why;
            return endOfLine(c);
        case Kind::CaretWeb:
        case Kind::CaretIn:
        case Kind::Pick: {
            const char* what = s->kind == Kind::CaretWeb  ? "an index"
                               : s->kind == Kind::CaretIn ? "an offset"
                                                          : "an entry number";
            if (!(why = readCount(c, what, &s->a)).empty()) return why;
            return endOfLine(c);
        }
        case Kind::OpenList:
            return readOpenList(c, s);
        case Kind::Fail:
            if (!(why = readAttributeName(c, "fail", &s->word)).empty() ||
                !(why = readError(c, &s->a)).empty())
                return why;
            return readTimes(c, &s->b);
        case Kind::Raise: {
            if (!(why = readAttributeName(c, "raise", &s->word)).empty()) return why;
            std::string reason;
            if (!(why = readQuoted(c, "the reason in quotes", &reason)).empty()) return why;
            s->strings = {reason};
            return readTimes(c, &s->b);
        }
        case Kind::Launch:
        case Kind::Add:
            break;  // the parser reads their application and trees
    }
    return {};
}

}  // namespace orv::sim::scenario_parts
