#pragma once

// Trackers that follow the text cursor instead of the whole element: the common text base, the
// plain-text tracker of text fields and areas, and the combo box, whose open list takes over.

#include <cstdint>

#include "accessibility/trackers/ORVAXElementTracker.h"

namespace orv {

// Every selection or value change of the element is reported as a focus change. Subscriptions
// hold the tracker weakly: the element owns them and must not keep its tracker alive.
class ORVAXTextElementTracker : public ORVAXElementTracker {
  public:
    ~ORVAXTextElementTracker() override;
    bool initFor(const ORVAXElementRef& element, const ORVAXElementRef& app) override;
    const char* className() const override { return "ORVAXTextElementTracker"; }

    void onChanged();

  private:
    ORVAXSubscription selectedTextChangedSubscription_;
    ORVAXSubscription valueChangedSubscription_;
};

// Text fields and text areas: the cursor's character index is inferred from how the selection
// changed, and its rectangle found with fallbacks for applications that report character bounds
// badly and for a cursor after the last character.
class ORVAXPlainTextElementTracker : public ORVAXTextElementTracker {
  public:
    bool initFor(const ORVAXElementRef& element, const ORVAXElementRef& app) override;
    const char* className() const override { return "ORVAXPlainTextElementTracker"; }

    // The selection, or (0, 0) when there is none.
    Range getSelectedTextRangeOrZero();
    // The character index of the cursor, or -1 when the element has no selection.
    int64_t getCursorPositionForTextElement();
    // A 1-wide rectangle at the cursor, or the zero rectangle when it cannot be found.
    Rect getTextCursorBounds();
    // Whether the cursor's offset from its element's origin differs from the last one seen by
    // any plain-text tracker; remembers the new offset.
    bool isTextCursorVirtualLocationNew(const Rect& cursor);
    // The cursor, or a mark near the element's top-left inner corner; source 1 when the cursor
    // moved within its element, else 8.
    ORVOrientedRectRef focus() override;

    const Range& prevTextRange() const { return prevTextRange_; }
    int64_t prevCursorPosition() const { return prevCursorPosition_; }

    // The shared last offset back to (0, 0).
    static void resetClassStateForTesting();

  private:
    Range prevTextRange_;
    int64_t prevCursorPosition_ = 0;
    // 1 for a text area, 0 for a text field. Nothing reads it yet.
    int32_t noTextEdgeY_ = 0;
};

// While the combo box's pop-up list is open, focus follows the list's selected entry once per
// list change, then the cursor again.
class ORVAXComboBoxElementTracker : public ORVAXPlainTextElementTracker {
  public:
    ~ORVAXComboBoxElementTracker() override;
    bool initFor(const ORVAXElementRef& element, const ORVAXElementRef& app) override;
    const char* className() const override { return "ORVAXComboBoxElementTracker"; }

    // An element appeared in the application: its first child, if any, is taken as the list.
    void onCreated(const ORVAXEventRef& event);
    ORVOrientedRectRef focus() override;
    void ceaseObservation() override;

    const ORVAXElementRef& list() const { return list_; }
    bool focusChangedDueToList() const { return focusChangedDueToList_; }

  private:
    void dropSubscriptions();

    ORVAXSubscription createdSubscription_;
    ORVAXSubscription elementDestroyedSubscription_;
    bool focusChangedDueToList_ = false;
    ORVAXElementRef list_;
    ORVAXSubscription selectedChildrenChangedSubscription_;
};

}  // namespace orv
