#pragma once

// Web content on the simulated desktop. A web area's text is the run of its leaves in document
// order: an "AXStaticText" leaf gives the characters of its AXValue, laid out in its frame like a
// text element; any other leaf (an image, a control) stands in the text as one unit. Positions are
// opaque text markers naming a leaf and an offset in it; equal bytes are the same marker.

#include <optional>
#include <string>
#include <vector>

#include "platform/AXTypes.h"
#include "platform/sim/SimElement.h"
#include "platform/sim/SimText.h"

namespace orv::sim {

class SimDesktop;

// The nearest "AXWebArea" at or above the node; null outside web content.
SimNodePtr webAreaOf(SimNodePtr node);

class WebContent {
  public:
    struct Item {
        SimNodePtr leaf;
        long start = 0;
        long length = 0;
        bool text = false;
    };

    explicit WebContent(const SimNodePtr& webArea);

    const std::vector<Item>& items() const { return items_; }
    long length() const { return length_; }

    // "web:<node id>:<offset>".
    static AXTextMarker marker(const SimNode& leaf, long offset);
    // The marker of a document index: in the first leaf whose span, both ends included, holds
    // it. nullopt outside the text or for a web area without leaves.
    std::optional<AXTextMarker> markerAt(long index) const;
    // The document index of a marker; nullopt when it names no leaf of this web area or an
    // offset outside the leaf.
    std::optional<long> indexOf(const AXTextMarker& marker) const;
    // The leaf a marker names.
    SimNodePtr elementOf(const AXTextMarker& marker) const;
    // Top-left-origin bounds of the text between two indexes (from <= to): a caret when they are
    // equal, else the union of the pieces. Zero where the leaves have no frame.
    Rect bounds(long from, long to, const TextMetrics& defaultMetrics) const;
    // The caret at a marker, in the leaf the marker names.
    Rect caretBounds(const AXTextMarker& marker, const TextMetrics& defaultMetrics) const;

  private:
    const Item* itemAt(long index) const;
    const Item* itemOf(const AXTextMarker& marker, long* offset) const;
    void collect(const SimNodePtr& node);

    std::vector<Item> items_;
    long length_ = 0;
};

// The attributes of web content that the desktop derives for an element inside a web area:
// AXSelectedTextMarkerRange (the web area's stored one) and the marker parameterised
// attributes. nullopt for anything else.
std::optional<AXError> webContentAttribute(const SimNodePtr& node, const std::string& attribute,
                                           AXValue* out);
std::optional<AXError> webContentParameterized(SimDesktop& desktop, const SimNodePtr& node,
                                               const std::string& attribute,
                                               const AXValue& parameter, AXValue* out);

}  // namespace orv::sim
