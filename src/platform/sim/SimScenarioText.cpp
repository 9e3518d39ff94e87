// The scenario actions on text cursors, web content and pop-up lists, the faults a test injects,
// and the changes an application makes without telling anyone.

#include <algorithm>

#include "platform/sim/SimScenarioParts.h"
#include "platform/sim/SimWebContent.h"

namespace orv::sim::scenario_parts {

namespace {

using Step = Scenario::Step;
using Kind = Scenario::Step::Kind;

std::string shown(const SimNode& node) {
    return quoted("#" + node.label());
}

// Offsets inside a leaf of a page go up to its length; the one past it names nothing.
std::string checkCaretIn(const Step& s, const SimNodePtr& leaf) {
    SimNodePtr page = webAreaOf(leaf);
    if (!page || page == leaf)
        return "caret-in needs an element inside a web area; " + shown(*leaf) + " is not in one";
    if (!leaf->children().empty())
        return "caret-in needs a leaf of the page; " + shown(*leaf) + " has children";
    const WebContent content(page);
    for (const auto& item : content.items())
        if (item.leaf == leaf && s.a > static_cast<double>(item.length))
            return "offset " + timeText(s.a) + " is past the end of " + shown(*leaf) +
                   ", which holds " + std::to_string(item.length);
    return {};
}

// What a real application's silent move does: the contents travel along, nobody is told.
void moveQuietly(const SimNodePtr& element, Point origin) {
    const Point from = element->frame() ? element->frame()->origin : origin;
    const double dx = origin.x - from.x, dy = origin.y - from.y;
    if (!element->frame()) element->setFrame(Rect(origin, Size{}));
    std::vector<SimNodePtr> todo = {element};
    while (!todo.empty()) {
        SimNodePtr node = std::move(todo.back());
        todo.pop_back();
        if (auto f = node->frame())
            node->setFrame(Rect(f->origin.x + dx, f->origin.y + dy, f->size.width, f->size.height));
        todo.insert(todo.end(), node->children().begin(), node->children().end());
    }
}

}  // namespace

SimNodePtr openListOf(const SimNodePtr& comboBox) {
    if (!comboBox) return nullptr;
    const auto& children = comboBox->children();
    // The last one, as the desktop closes it.
    for (auto it = children.rbegin(); it != children.rend(); ++it)
        if ((*it)->role() == "AXScrollArea") return *it;
    return nullptr;
}

std::string checkTextStep(const Step& s, const SimNodePtr& target) {
    const SimNode& node = *target;
    switch (s.kind) {
        case Kind::SelectWeb:
        case Kind::CaretWeb:
            if (webAreaOf(target) != target)
                return s.action + " needs a web area; " + shown(node) + " is " + roleText(node);
            if (WebContent(target).items().empty())
                return s.action + " needs a page with content; " + shown(node) + " has no leaves";
            return {};
        case Kind::CaretIn:
            return checkCaretIn(s, target);
        case Kind::OpenList:
        case Kind::CloseList:
            if (node.role() != "AXComboBox")
                return s.action + " needs a combo box; " + shown(node) + " is " + roleText(node);
            if (s.kind == Kind::OpenList && openListOf(target))
                return shown(node) + " shows a list already; close-list first";
            if (s.kind == Kind::CloseList && !openListOf(target))
                return shown(node) + " shows no list to close";
            return {};
        case Kind::Pick:
            if (node.role() != "AXList")
                return "pick needs a list; " + shown(node) + " is " + roleText(node);
            if (node.children().empty()) return shown(node) + " has no entries to pick";
            if (s.a >= static_cast<double>(node.children().size()))
                return "pick " + timeText(s.a) + " is past the last entry of " + shown(node) +
                       ", " + std::to_string(node.children().size() - 1) +
                       " (entries count from 0)";
            return {};
        default:
            return {};
    }
}

Outcome playTextStep(SimDesktop& desk, const Scenario& sc, const Step& s,
                     const SimNodePtr& target) {
    const auto count = static_cast<long>(s.a);
    switch (s.kind) {
        case Kind::Delete:
            desk.deleteBackward(target);
            break;
        case Kind::SelectWeb:
            desk.selectWebText(target, count, static_cast<long>(s.b));
            break;
        case Kind::CaretWeb:
            desk.moveWebCaret(target, count);
            break;
        case Kind::CaretIn:
            desk.moveWebCaretInto(target, count);
            break;
        case Kind::OpenList: {
            if (openListOf(target)) return {"skipped: a list is open already"};
            SimNodePtr list = desk.openComboBoxList(target, s.strings, count);
            if (!list) return {"skipped: no list opened"};
            if (!s.name.empty()) {
                list->setLabel(s.name);
                sc.remember(list);
            }
            break;
        }
        case Kind::Pick:
            desk.selectListEntry(target, count);
            break;
        case Kind::CloseList:
            desk.closeComboBoxList(target);
            break;
        case Kind::Fail:
            target->failRead(s.word, static_cast<AXError>(count), static_cast<int>(s.b));
            break;
        case Kind::Raise:
            target->raiseOnRead(s.word, s.strings.front(), static_cast<int>(s.b));
            break;
        case Kind::FirstCharBounds:
            target->reportFirstCharacterBounds();
            break;
        case Kind::ZeroBoundsAtEnd:
            target->reportZeroBoundsAtEnd();
            break;
        case Kind::QuietFocus:
            desk.focusSilently(target);
            break;
        case Kind::QuietMove:
            moveQuietly(target, Point{s.a, s.b});
            break;
        case Kind::QuietSelect: {
            const long length = target->layout().length();
            const long at = std::min(count, length);
            target->setSelection(Range{at, std::min(static_cast<long>(s.b), length - at)});
            break;
        }
        case Kind::QuietText:
            target->setText(s.word);
            break;
        default:
            break;
    }
    return {};
}

}  // namespace orv::sim::scenario_parts
