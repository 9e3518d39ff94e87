// Web pages: text markers and the page's caret.
//
// A page (a document object and the hypertext tree under it) has no character ranges of its own
// that reach into its objects, so its positions are text markers: an object of the page and an
// offset in its own text. A marker's bytes are "atspi", the object's bus name and path, and the
// offset, one per line; the object is kept by this backend while markers may name it. An offset
// at an embedded object's character is taken down into that object (links and every other
// hypertext child alike) until it stands in text.
//
// The page's caret is the one its application last reported moving inside it (the offset comes
// with the event); before any, the page's own caret offset taken down the same way.

#include <atspi/atspi.h>

#include <algorithm>
#include <string_view>

#include "platform/linux/AtspiAccessibility.h"
#include "platform/linux/AtspiCalls.h"
#include "platform/linux/LinuxRoles.h"

namespace orv::linuxdesk {

using namespace detail;

namespace {

constexpr std::string_view kMarkerTag = "atspi\n";
constexpr int kWebDepth = 64;
constexpr gunichar kEmbeddedObject = 0xFFFC;
// Objects looked at to number one marker; a longer page answers no index.
constexpr int kIndexBudget = 600;
// Objects kept for markers before the oldest are let go.
constexpr size_t kMarkerObjectsKept = 4096;

bool isDocumentRole(AtspiRole r) {
    return r == ATSPI_ROLE_DOCUMENT_WEB || r == ATSPI_ROLE_DOCUMENT_FRAME ||
           r == ATSPI_ROLE_HTML_CONTAINER;
}

std::string keyOf(const AtspiElement& el) {
    return el.busName() + "\n" + el.path();
}

struct Pos {
    AtspiElementRef object;
    int offset = 0;
};

AtspiAccessible* parentOf(AtspiAccessible* acc) {
    return atspi_accessible_get_parent(acc, nullptr);
}

// The nearest document at or above `acc` (a new reference), or null.
AtspiAccessible* documentOf(AtspiAccessible* acc) {
    AtspiAccessible* cur = acc ? static_cast<AtspiAccessible*>(g_object_ref(acc)) : nullptr;
    for (int depth = 0; cur && depth < kWebDepth; ++depth) {
        if (isDocumentRole(atspi_accessible_get_role(cur, nullptr))) return cur;
        AtspiAccessible* parent = parentOf(cur);
        g_object_unref(cur);
        cur = parent;
    }
    if (cur) g_object_unref(cur);
    return nullptr;
}

// The hypertext child whose embedded character stands at `offset` of `acc`, or null.
AtspiAccessible* embeddedAt(AtspiAccessible* acc, AtspiText* text, int offset) {
    if (atspi_text_get_character_at_offset(text, offset, nullptr) != kEmbeddedObject)
        return nullptr;
    GRef<AtspiHypertext> hyper(atspi_accessible_get_hypertext_iface(acc));
    if (!hyper) return nullptr;
    const int index = atspi_hypertext_get_link_index(hyper.p, offset, nullptr);
    if (index < 0) return nullptr;
    GRef<AtspiHyperlink> link(atspi_hypertext_get_link(hyper.p, index, nullptr));
    return link ? atspi_hyperlink_get_object(link.p, 0, nullptr) : nullptr;
}

Pos deepest(Pos p) {
    for (int depth = 0; p.object && depth < kWebDepth; ++depth) {
        GRef<AtspiText> text(atspi_accessible_get_text_iface(p.object->accessible()));
        if (!text) break;
        const int count = atspi_text_get_character_count(text.p, nullptr);
        if (p.offset < 0 || p.offset >= count) break;
        AtspiAccessible* child = embeddedAt(p.object->accessible(), text.p, p.offset);
        if (!child) break;
        int offset = 0;
        if (GRef<AtspiText> inner(atspi_accessible_get_text_iface(child)); inner)
            offset = std::max(0, atspi_text_get_caret_offset(inner.p, nullptr));
        p = Pos{AtspiElement::adopt(child), offset};
    }
    return p;
}

// Offsets from the document down to the position, for ordering positions of one page.
std::vector<int> treePath(const Pos& p) {
    std::vector<int> path{p.offset};
    AtspiAccessible* cur = static_cast<AtspiAccessible*>(g_object_ref(p.object->accessible()));
    for (int depth = 0; cur && depth < kWebDepth; ++depth) {
        if (isDocumentRole(atspi_accessible_get_role(cur, nullptr))) break;
        AtspiHyperlink* link = atspi_accessible_get_hyperlink(cur);
        path.push_back(link ? atspi_hyperlink_get_start_index(link, nullptr) : 0);
        if (link) g_object_unref(link);
        AtspiAccessible* parent = parentOf(cur);
        g_object_unref(cur);
        cur = parent;
    }
    if (cur) g_object_unref(cur);
    std::reverse(path.begin(), path.end());
    return path;
}

// Characters of the text under `acc` in reading order, embedded objects counted by what they
// hold; -1 once the budget is spent.
long flatLength(AtspiAccessible* acc, int* budget) {
    if (--*budget < 0) return -1;
    GRef<AtspiText> text(atspi_accessible_get_text_iface(acc));
    long n = text ? std::max(0, atspi_text_get_character_count(text.p, nullptr)) : 1;
    GRef<AtspiHypertext> hyper(atspi_accessible_get_hypertext_iface(acc));
    const int links = hyper ? atspi_hypertext_get_n_links(hyper.p, nullptr) : 0;
    for (int i = 0; i < links; ++i) {
        GRef<AtspiHyperlink> link(atspi_hypertext_get_link(hyper.p, i, nullptr));
        GRef<AtspiAccessible> child(link ? atspi_hyperlink_get_object(link.p, 0, nullptr)
                                         : nullptr);
        if (!child) continue;
        const long inner = flatLength(child.p, budget);
        if (inner < 0) return -1;
        n += inner - 1;
    }
    return n;
}

// Characters before `offset` of `acc`, in the same count.
long flatBefore(AtspiAccessible* acc, int offset, int* budget) {
    long n = offset;
    GRef<AtspiHypertext> hyper(atspi_accessible_get_hypertext_iface(acc));
    const int links = hyper ? atspi_hypertext_get_n_links(hyper.p, nullptr) : 0;
    for (int i = 0; i < links; ++i) {
        if (--*budget < 0) return -1;
        GRef<AtspiHyperlink> link(atspi_hypertext_get_link(hyper.p, i, nullptr));
        if (!link || atspi_hyperlink_get_start_index(link.p, nullptr) >= offset) continue;
        GRef<AtspiAccessible> child(atspi_hyperlink_get_object(link.p, 0, nullptr));
        if (!child) continue;
        const long inner = flatLength(child.p, budget);
        if (inner < 0) return -1;
        n += inner - 1;
    }
    return n;
}

// The position's character index in its document's reading order, or -1.
long flatIndex(const Pos& p) {
    int budget = kIndexBudget;
    long total = flatBefore(p.object->accessible(), p.offset, &budget);
    AtspiAccessible* cur = static_cast<AtspiAccessible*>(g_object_ref(p.object->accessible()));
    for (int depth = 0; cur && total >= 0 && depth < kWebDepth; ++depth) {
        if (isDocumentRole(atspi_accessible_get_role(cur, nullptr))) break;
        AtspiHyperlink* link = atspi_accessible_get_hyperlink(cur);
        const int start = link ? atspi_hyperlink_get_start_index(link, nullptr) : -1;
        if (link) g_object_unref(link);
        AtspiAccessible* parent = parentOf(cur);
        g_object_unref(cur);
        cur = parent;
        if (!cur || start < 0) {
            total = -1;
            break;
        }
        const long before = flatBefore(cur, start, &budget);
        total = before < 0 ? -1 : total + before;
    }
    if (cur) g_object_unref(cur);
    return total;
}

}  // namespace

namespace {

AXTextMarker markerFor(std::unordered_map<std::string, AtspiElementRef>& kept, const Pos& p) {
    std::string key = keyOf(*p.object);
    if (kept.size() >= kMarkerObjectsKept && !kept.count(key)) kept.clear();
    kept[key] = p.object;
    return AXTextMarker{std::string(kMarkerTag) + key + "\n" + std::to_string(p.offset)};
}

std::optional<Pos> posOf(const std::unordered_map<std::string, AtspiElementRef>& kept,
                         const AXTextMarker* marker) {
    if (!marker || marker->bytes.compare(0, kMarkerTag.size(), kMarkerTag) != 0)
        return std::nullopt;
    const size_t cut = marker->bytes.rfind('\n');
    if (cut == std::string::npos || cut < kMarkerTag.size()) return std::nullopt;
    const std::string key = marker->bytes.substr(kMarkerTag.size(), cut - kMarkerTag.size());
    const std::string digits = marker->bytes.substr(cut + 1);
    if (digits.empty() || digits.size() > 9 ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    auto it = kept.find(key);
    if (it == kept.end() || appGone(it->second->accessible())) return std::nullopt;
    return Pos{it->second, std::stoi(digits)};
}

}  // namespace

std::optional<AXError> AtspiAccessibility::readWeb(const AtspiElement& el,
                                                   const std::string& attribute, AXValue* out) {
    const bool selection = attribute == "AXSelectedTextMarkerRange";
    if (!selection && attribute != "AXURL") return std::nullopt;
    AtspiAccessible* acc = el.accessible();
    if (!acc || appGone(acc)) return kAXErrorInvalidUIElement;
    CallClock clock;
    GRef<AtspiAccessible> doc(documentOf(acc));
    if (!doc)
        return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete
                                              : kAXErrorAttributeUnsupported;
    if (!selection) {
        if (doc.p != acc && pathOf(doc.p) != el.path()) return kAXErrorAttributeUnsupported;
        GRef<AtspiDocument> document(atspi_accessible_get_document_iface(acc));
        if (!document) return kAXErrorNoValue;
        GStr url{atspi_document_get_document_attribute_value(
            document.p, const_cast<gchar*>("DocURL"), nullptr)};
        if (!url.s || !*url.s) return kAXErrorNoValue;
        *out = AXValue(AXURL{url.str()});
        return kAXErrorSuccess;
    }
    const AtspiElementRef docElement = AtspiElement::make(doc.p);
    Pos p;
    const AtspiDesktop::TextCaret* caret = desktop_->lastCaret(el.busName());
    if (caret && caret->object && caret->offset >= 0 &&
        desktop_->isWithin(caret->object->accessible(), *docElement)) {
        p = Pos{caret->object, caret->offset};
    } else {
        GRef<AtspiText> text(atspi_accessible_get_text_iface(doc.p));
        const int offset = text ? atspi_text_get_caret_offset(text.p, nullptr) : -1;
        if (offset < 0)
            return desktop_->looksTimedOut(clock) ? kAXErrorCannotComplete : kAXErrorNoValue;
        p = Pos{docElement, offset};
    }
    p = deepest(p);
    int start = p.offset, end = p.offset;
    if (GRef<AtspiText> text(atspi_accessible_get_text_iface(p.object->accessible())); text) {
        if (atspi_text_get_n_selections(text.p, nullptr) > 0) {
            if (AtspiRange* r = atspi_text_get_selection(text.p, 0, nullptr)) {
                const int a = std::min(r->start_offset, r->end_offset);
                const int b = std::max(r->start_offset, r->end_offset);
                // The caret is one end of a selection that holds it.
                if (a != b && (p.offset == a || p.offset == b)) start = a, end = b;
                g_free(r);
            }
        }
    }
    *out = AXValue(makeTextMarkerRange(markerFor(markerObjects_, Pos{p.object, start}),
                                       markerFor(markerObjects_, Pos{p.object, end})));
    return kAXErrorSuccess;
}

std::optional<AXError> AtspiAccessibility::readWebParameterized(const AtspiElement& el,
                                                                const std::string& attribute,
                                                                const AXValue& parameter,
                                                                AXValue* out) {
    (void)el;
    if (attribute == "AXUIElementForTextMarker") {
        const auto p = posOf(markerObjects_, parameter.get<AXTextMarker>());
        if (!p) return kAXErrorIllegalArgument;
        AtspiAccessible* acc = p->object->accessible();
        GRef<AtspiText> text(atspi_accessible_get_text_iface(acc));
        // Text a page object holds itself reads as static text; a field's is the field's.
        if (text && !isTextRole(atspi_accessible_get_role(acc, nullptr)))
            *out = AXValue(AXUIElementRef(AtspiElement::textRunOf(acc)));
        else
            *out = AXValue(AXUIElementRef(p->object));
        return kAXErrorSuccess;
    }
    if (attribute == "AXIndexForTextMarker") {
        const auto p = posOf(markerObjects_, parameter.get<AXTextMarker>());
        if (!p) return kAXErrorIllegalArgument;
        const long index = flatIndex(*p);
        if (index < 0) return kAXErrorNoValue;
        *out = AXValue(index);
        return kAXErrorSuccess;
    }
    if (attribute == "AXTextMarkerRangeForUnorderedTextMarkers") {
        const AXArray* pair = parameter.get<AXArray>();
        if (!pair || pair->size() != 2) return kAXErrorIllegalArgument;
        const AXTextMarker* a = (*pair)[0].get<AXTextMarker>();
        const AXTextMarker* b = (*pair)[1].get<AXTextMarker>();
        const auto pa = posOf(markerObjects_, a), pb = posOf(markerObjects_, b);
        if (!pa || !pb) return kAXErrorIllegalArgument;
        const bool swap = !pa->object->equals(*pb->object) ? treePath(*pb) < treePath(*pa)
                                                           : pb->offset < pa->offset;
        *out = AXValue(swap ? makeTextMarkerRange(*b, *a) : makeTextMarkerRange(*a, *b));
        return kAXErrorSuccess;
    }
    if (attribute != "AXBoundsForTextMarkerRange") return std::nullopt;
    const AXTextMarkerRange* range = parameter.get<AXTextMarkerRange>();
    if (!range) return kAXErrorIllegalArgument;
    const auto s = textMarkerRangeStart(*range), e = textMarkerRangeEnd(*range);
    const auto ps = s ? posOf(markerObjects_, &*s) : std::nullopt;
    const auto pe = e ? posOf(markerObjects_, &*e) : std::nullopt;
    if (!ps || !pe) return kAXErrorIllegalArgument;
    AtspiAccessible* acc = ps->object->accessible();
    GRef<AtspiText> text(atspi_accessible_get_text_iface(acc));
    if (!text) return kAXErrorNoValue;
    Rect r;
    if (ps->object->equals(*pe->object) && ps->offset == pe->offset) {
        // A caret: one pixel wide at its character, or just right of the one before it.
        const int count = atspi_text_get_character_count(text.p, nullptr);
        if (ps->offset < count) textExtents(acc, text.p, ps->offset, ps->offset + 1, &r);
        if (!r.isZero()) {
            r.size.width = 1.0;
        } else if (ps->offset > 0) {
            textExtents(acc, text.p, ps->offset - 1, ps->offset, &r);
            if (!r.isZero()) r = Rect(r.origin.x + r.size.width, r.origin.y, 1.0, r.size.height);
        } else if (extents(acc, &r) == kAXErrorSuccess && r.size.height > 0) {
            r.size.width = 1.0;  // an empty text: at its start
        } else {
            r = Rect();
        }
    } else if (ps->object->equals(*pe->object)) {
        textExtents(acc, text.p, std::min(ps->offset, pe->offset), std::max(ps->offset, pe->offset),
                    &r);
    } else {
        // Across objects: the rest of the first object's text and the start of the last's.
        const int count = atspi_text_get_character_count(text.p, nullptr);
        textExtents(acc, text.p, ps->offset, std::max(ps->offset, count), &r);
        if (GRef<AtspiText> last(atspi_accessible_get_text_iface(pe->object->accessible())); last) {
            Rect tail;
            textExtents(pe->object->accessible(), last.p, 0, pe->offset, &tail);
            r = r.isZero() ? tail : (tail.isZero() ? r : r.unionWith(tail));
        }
    }
    *out = AXValue(r);
    return kAXErrorSuccess;
}

AXError AtspiAccessibility::readTextRun(const AtspiElement& el, const std::string& attribute,
                                        AXValue* out) {
    AtspiAccessible* acc = el.accessible();
    if (!acc || appGone(acc)) return kAXErrorInvalidUIElement;
    if (attribute == "AXRole") {
        *out = AXValue("AXStaticText");
        return kAXErrorSuccess;
    }
    const AtspiElementRef holder = AtspiElement::make(acc);
    if (attribute == "AXParent") {
        *out = AXValue(AXUIElementRef(holder));
        return kAXErrorSuccess;
    }
    if (attribute == "AXPosition" || attribute == "AXSize" || attribute == "AXFrame" ||
        attribute == "AXValue" || attribute == "AXTopLevelUIElement" || attribute == "AXWindow")
        return readObject(*holder, attribute, out);
    return kAXErrorAttributeUnsupported;
}

}  // namespace orv::linuxdesk
