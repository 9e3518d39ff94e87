// The desktop's actions on web content and on pop-up lists, with the notifications a real
// desktop posts for them.

#include <algorithm>

#include "platform/sim/SimDesktop.h"
#include "platform/sim/SimWebContent.h"

namespace orv::sim {

namespace {

constexpr double kListEntryHeight = 20;

void postSelectionChange(SimDesktop& desk, const SimNodePtr& webArea) {
    desk.post(webArea, "AXSelectedTextChanged");
    // A focused element inside the page (an editable group, a link) hears it too.
    SimApp* app = webArea->app();
    SimNodePtr focused = app ? app->focusedElement() : nullptr;
    if (focused && focused != webArea && webAreaOf(focused) == webArea)
        desk.post(focused, "AXSelectedTextChanged");
}

}  // namespace

void SimDesktop::selectWebText(const SimNodePtr& webArea, long from, long to) {
    if (!webArea || !webArea->isAlive() || webAreaOf(webArea) != webArea) return;
    const WebContent content(webArea);
    if (content.items().empty()) return;
    from = std::clamp(from, 0L, content.length());
    to = std::clamp(to, 0L, content.length());
    if (from > to) std::swap(from, to);
    webArea->set("AXSelectedTextMarkerRange",
                 makeTextMarkerRange(*content.markerAt(from), *content.markerAt(to)));
    postSelectionChange(*this, webArea);
}

void SimDesktop::moveWebCaretInto(const SimNodePtr& leaf, long offset) {
    if (!leaf || !leaf->isAlive()) return;
    SimNodePtr webArea = webAreaOf(leaf);
    if (!webArea || webArea == leaf) return;
    const AXTextMarker caret = WebContent::marker(*leaf, offset);
    if (!WebContent(webArea).indexOf(caret)) return;
    webArea->set("AXSelectedTextMarkerRange", makeTextMarkerRange(caret, caret));
    postSelectionChange(*this, webArea);
}

SimNodePtr SimDesktop::openComboBoxList(const SimNodePtr& comboBox,
                                        const std::vector<std::string>& entries, long selected) {
    if (!comboBox || !comboBox->isAlive() || comboBox->kind() != SimNode::Kind::Element)
        return nullptr;
    const Rect box = comboBox->frame().value_or(Rect());
    const double top = box.origin.y + box.size.height;
    const Rect area(box.origin.x, top, box.size.width,
                    kListEntryHeight * static_cast<double>(entries.size()));
    SimNodePtr scrollArea = comboBox->addChild("AXScrollArea", area);
    SimNodePtr list = scrollArea->addChild("AXList", area);
    std::vector<SimNodePtr> chosen;
    for (size_t i = 0; i < entries.size(); ++i) {
        SimNodePtr entry =
            list->addChild("AXStaticText", entries[i],
                           Rect(box.origin.x, top + kListEntryHeight * static_cast<double>(i),
                                box.size.width, kListEntryHeight));
        entry->set("AXValue", entries[i]);
        if (static_cast<long>(i) == selected) chosen.push_back(entry);
    }
    list->set("AXSelectedChildren", chosen);
    post(scrollArea, "AXCreated");
    return list;
}

void SimDesktop::selectListEntry(const SimNodePtr& list, long index) {
    if (!list || !list->isAlive()) return;
    std::vector<SimNodePtr> chosen;
    if (index >= 0 && static_cast<size_t>(index) < list->children().size())
        chosen.push_back(list->children()[static_cast<size_t>(index)]);
    list->set("AXSelectedChildren", chosen);
    post(list, "AXSelectedChildrenChanged");
}

void SimDesktop::closeComboBoxList(const SimNodePtr& comboBox) {
    if (!comboBox) return;
    // A copy: destroying takes the child out of the list being searched.
    const std::vector<SimNodePtr> children = comboBox->children();
    for (auto it = children.rbegin(); it != children.rend(); ++it)
        if ((*it)->role() == "AXScrollArea") {
            destroy(*it);
            return;
        }
}

}  // namespace orv::sim
