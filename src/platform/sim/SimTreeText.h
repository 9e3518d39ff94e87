#pragma once

// A small text form for element trees, one line per element:
//
//   AXWindow/AXStandardWindow "Document" [0 22 800 600] #doc AXMain=true
//     AXTextField "Name" [20 60 200 22] AXValue="Ada" AXSelectedTextRange=range(3 0)
//
// Two spaces of indentation per level; role, optional "/subrole" ("-" for no role); optional
// quoted title; optional frame [x y w h] in top-left-origin space; optional #label; then
// attributes as key=value. Values: true, false, none, integers, decimals (1.0), "strings" (escapes
// \" \\ \n \t), point(x y), size(w h), range(location length), rect(x y w h) or [x y w h],
// url("..."), @label (another element) and (v1 v2 ...) arrays. Lines starting with "//" and blank
// lines are ignored.
//
// Texts may come from files anyone wrote: nesting is bounded (kTreeMaxDepth), and what a message
// quotes from the text is escaped and cut to one short line.

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/AXTypes.h"

namespace orv::sim {

class SimNode;
using SimNodePtr = std::shared_ptr<SimNode>;

// How far below its application an element may lie (a window is 1), and how deep arrays may
// nest in one value. Far beyond real trees; what lies past them is refused rather than read or
// built by recursion. A tree text is indented at most kTreeMaxDepth levels, so that the dump of
// an application (its own line, then its tree) loads back.
inline constexpr int kTreeMaxDepth = 100;
inline constexpr int kTreeValueMaxNesting = 100;

// A value as written: either a plain value or a reference to a labelled element (or an array
// holding such references).
struct TreeValue {
    AXValue value;
    std::string reference;         // "@name" without the "@"; empty for a plain value
    std::vector<TreeValue> items;  // for arrays
    bool isArray = false;
};

// Nested entries are owned by value; ~TreeEntry recurses, which the bound on indentation keeps
// shallow.
struct TreeEntry {
    int line = 0;
    std::string role;
    std::string subrole;
    std::optional<std::string> title;
    std::optional<Rect> frame;
    std::string label;
    std::vector<std::pair<std::string, TreeValue>> attributes;
    std::vector<TreeEntry> children;
};

// Outcome of a parse or a load; line 0 means the error is not tied to a line.
struct SimTreeResult {
    std::vector<TreeEntry> roots;   // parse
    std::vector<SimNodePtr> nodes;  // load: the elements made at the top level
    int line = 0;
    std::string error;

    bool ok() const { return error.empty(); }
    // "" when ok, else "line 3: unterminated string".
    std::string message() const;
};

SimTreeResult parseTreeText(std::string_view text);

// Builds parsed elements as children of parent. References are resolved against labels of the
// new elements and of the existing subtree of scope; nothing is built when one is unknown, or
// when an element would lie more than kTreeMaxDepth levels below its application.
SimTreeResult buildTree(const SimNodePtr& parent, const std::vector<TreeEntry>& entries,
                        const SimNodePtr& scope);

// Parses and builds under parent. When parent is an application element and the text's only
// top line has the role AXApplication, that line describes parent itself.
SimTreeResult loadTreeText(const SimNodePtr& parent, std::string_view text);

// Reads one value written as above from the start of text, for other text forms that embed
// such values. *used is how many characters it took; false with *error set when there is none.
bool parseTreeValue(std::string_view text, TreeValue* out, size_t* used, std::string* error);

// The node and its subtree in the same form, stored attributes only, sorted by name.
std::string dumpTree(const SimNodePtr& node);
std::string formatTreeValue(const AXValue& value);

}  // namespace orv::sim
