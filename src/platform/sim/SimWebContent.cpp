#include "platform/sim/SimWebContent.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "platform/sim/SimDesktop.h"

namespace orv::sim {

namespace {

constexpr std::string_view kMarkerPrefix = "web:";

bool parseMarker(const AXTextMarker& marker, uint64_t* id, long* offset) {
    const std::string& b = marker.bytes;
    if (!b.starts_with(kMarkerPrefix)) return false;
    const char* p = b.data() + kMarkerPrefix.size();
    const char* end = b.data() + b.size();
    auto [afterId, idErr] = std::from_chars(p, end, *id);
    if (idErr != std::errc() || afterId == end || *afterId != ':') return false;
    auto [afterOffset, offErr] = std::from_chars(afterId + 1, end, *offset);
    return offErr == std::errc() && afterOffset == end;
}

const TextMetrics& metricsOf(const SimNode& node, const TextMetrics& defaults) {
    return node.textMetrics() ? *node.textMetrics() : defaults;
}

// The piece of one leaf between two offsets in it, or nullopt when it has no frame.
std::optional<Rect> pieceBounds(const WebContent::Item& item, long from, long to,
                                const TextMetrics& defaults) {
    const SimNode& leaf = *item.leaf;
    if (!leaf.frame()) return std::nullopt;
    const Rect frame = *leaf.frame();
    if (!item.text) {
        if (from < to) return frame;
        const TextMetrics& m = metricsOf(leaf, defaults);
        const double x = from == 0 ? frame.origin.x : frame.origin.x + frame.size.width;
        return Rect(x, frame.origin.y, m.caretWidth, frame.size.height);
    }
    const TextMetrics& m = metricsOf(leaf, defaults);
    const Point origin{frame.origin.x + m.insetX, frame.origin.y + m.insetY};
    return leaf.layout().boundsForRange(Range{from, to - from}, origin, m);
}

}  // namespace

SimNodePtr webAreaOf(SimNodePtr node) {
    for (; node && node->kind() == SimNode::Kind::Element; node = node->parent())
        if (node->role() == "AXWebArea") return node;
    return nullptr;
}

WebContent::WebContent(const SimNodePtr& webArea) {
    if (webArea)
        for (const auto& child : webArea->children()) collect(child);
}

void WebContent::collect(const SimNodePtr& node) {
    if (!node->children().empty()) {
        for (const auto& child : node->children()) collect(child);
        return;
    }
    Item item;
    item.leaf = node;
    item.start = length_;
    item.text = node->role() == "AXStaticText";
    item.length = item.text ? node->layout().length() : 1;
    length_ += item.length;
    items_.push_back(std::move(item));
}

AXTextMarker WebContent::marker(const SimNode& leaf, long offset) {
    return AXTextMarker{std::string(kMarkerPrefix) + std::to_string(leaf.id()) + ":" +
                        std::to_string(offset)};
}

const WebContent::Item* WebContent::itemAt(long index) const {
    for (const auto& item : items_)
        if (index >= item.start && index <= item.start + item.length) return &item;
    return nullptr;
}

std::optional<AXTextMarker> WebContent::markerAt(long index) const {
    const Item* item = itemAt(index);
    if (!item) return std::nullopt;
    return marker(*item->leaf, index - item->start);
}

const WebContent::Item* WebContent::itemOf(const AXTextMarker& m, long* offset) const {
    uint64_t id = 0;
    if (!parseMarker(m, &id, offset)) return nullptr;
    for (const auto& item : items_)
        if (item.leaf->id() == id)
            return *offset >= 0 && *offset <= item.length && item.leaf->isAlive() ? &item : nullptr;
    return nullptr;
}

std::optional<long> WebContent::indexOf(const AXTextMarker& m) const {
    long offset = 0;
    const Item* item = itemOf(m, &offset);
    if (!item) return std::nullopt;
    return item->start + offset;
}

SimNodePtr WebContent::elementOf(const AXTextMarker& m) const {
    long offset = 0;
    const Item* item = itemOf(m, &offset);
    return item ? item->leaf : nullptr;
}

Rect WebContent::caretBounds(const AXTextMarker& m, const TextMetrics& defaults) const {
    long offset = 0;
    const Item* item = itemOf(m, &offset);
    if (!item) return Rect();
    return pieceBounds(*item, offset, offset, defaults).value_or(Rect());
}

Rect WebContent::bounds(long from, long to, const TextMetrics& defaults) const {
    if (from == to) {
        const auto m = markerAt(from);
        return m ? caretBounds(*m, defaults) : Rect();
    }
    std::optional<Rect> all;
    for (const auto& item : items_) {
        const long a = std::max(from, item.start);
        const long b = std::min(to, item.start + item.length);
        if (a >= b) continue;
        auto piece = pieceBounds(item, a - item.start, b - item.start, defaults);
        if (!piece) continue;
        all = all ? all->unionWith(*piece) : *piece;
    }
    return all.value_or(Rect());
}

std::optional<AXError> webContentAttribute(const SimNodePtr& node, const std::string& attribute,
                                           AXValue* out) {
    if (attribute != "AXSelectedTextMarkerRange") return std::nullopt;
    const SimNodePtr area = webAreaOf(node);
    if (!area) return std::nullopt;
    // Every element of the page answers the page's one selection.
    const auto selection = area->stored(attribute);
    if (!selection || selection->isNone()) return kAXErrorNoValue;
    *out = *selection;
    return kAXErrorSuccess;
}

std::optional<AXError> webContentParameterized(SimDesktop& desktop, const SimNodePtr& node,
                                               const std::string& attribute,
                                               const AXValue& parameter, AXValue* out) {
    const bool known = attribute == "AXIndexForTextMarker" ||
                       attribute == "AXUIElementForTextMarker" ||
                       attribute == "AXTextMarkerRangeForUnorderedTextMarkers" ||
                       attribute == "AXBoundsForTextMarkerRange";
    if (!known) return std::nullopt;
    const SimNodePtr area = webAreaOf(node);
    if (!area) return std::nullopt;
    const WebContent content(area);

    if (attribute == "AXIndexForTextMarker" || attribute == "AXUIElementForTextMarker") {
        const auto* marker = parameter.get<AXTextMarker>();
        if (!marker) return kAXErrorIllegalArgument;
        if (attribute == "AXUIElementForTextMarker") {
            SimNodePtr leaf = content.elementOf(*marker);
            if (!leaf) return kAXErrorNoValue;
            *out = AXValue(desktop.ref(leaf));
            return kAXErrorSuccess;
        }
        const auto index = content.indexOf(*marker);
        if (!index) return kAXErrorNoValue;
        *out = AXValue(static_cast<int64_t>(*index));
        return kAXErrorSuccess;
    }
    if (attribute == "AXTextMarkerRangeForUnorderedTextMarkers") {
        const auto* pair = parameter.get<AXArray>();
        if (!pair || pair->size() != 2) return kAXErrorIllegalArgument;
        const auto* a = (*pair)[0].get<AXTextMarker>();
        const auto* b = (*pair)[1].get<AXTextMarker>();
        if (!a || !b) return kAXErrorIllegalArgument;
        const auto ia = content.indexOf(*a), ib = content.indexOf(*b);
        if (!ia || !ib) return kAXErrorNoValue;
        *out = AXValue(*ia <= *ib ? makeTextMarkerRange(*a, *b) : makeTextMarkerRange(*b, *a));
        return kAXErrorSuccess;
    }
    // AXBoundsForTextMarkerRange
    const auto* range = parameter.get<AXTextMarkerRange>();
    if (!range) return kAXErrorIllegalArgument;
    const auto start = textMarkerRangeStart(*range), end = textMarkerRangeEnd(*range);
    if (!start || !end) return kAXErrorIllegalArgument;
    const auto from = content.indexOf(*start), to = content.indexOf(*end);
    if (!from || !to) return kAXErrorNoValue;
    // A caret stands where its own marker says: the end of one leaf and the start of the next
    // are one index but two places.
    const TextMetrics& metrics = desktop.textMetrics();
    *out =
        AXValue(*from == *to ? content.caretBounds(*start, metrics)
                             : content.bounds(std::min(*from, *to), std::max(*from, *to), metrics));
    return kAXErrorSuccess;
}

}  // namespace orv::sim
