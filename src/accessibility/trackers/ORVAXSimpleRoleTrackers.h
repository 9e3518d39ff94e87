#pragma once

// Trackers that differ from the base only in which bounds they report and with which edges and
// source.

#include "accessibility/trackers/ORVAXElementTracker.h"

namespace orv {

// Check boxes and radio buttons: visible bounds, left edge.
class ORVAXOptionElementTracker : public ORVAXElementTracker {
  public:
    const char* className() const override { return "ORVAXOptionElementTracker"; }
    ORVOrientedRectRef focus() override;
};

// Full bounds, never the visible part: an open menu may hang off the screen edge.
class ORVAXMenuItemTracker : public ORVAXElementTracker {
  public:
    const char* className() const override { return "ORVAXMenuItemTracker"; }
    ORVOrientedRectRef focus() override;
};

class ORVAXMenuTracker : public ORVAXElementTracker {
  public:
    const char* className() const override { return "ORVAXMenuTracker"; }
    ORVOrientedRectRef focus() override;
};

class ORVAXNotificationCenterAlertTracker : public ORVAXElementTracker {
  public:
    const char* className() const override { return "ORVAXNotificationCenterAlertTracker"; }
    ORVOrientedRectRef focus() override;
};

class ORVAXNotificationCenterBannerTracker : public ORVAXElementTracker {
  public:
    const char* className() const override { return "ORVAXNotificationCenterBannerTracker"; }
    ORVOrientedRectRef focus() override;
};

// Windows: horizontal centre, top edge.
class ORVAXWindowTracker : public ORVAXElementTracker {
  public:
    const char* className() const override { return "ORVAXWindowTracker"; }
    ORVOrientedRectRef focus() override;
};

// Sheets: the default button's bounds, else the sheet's.
class ORVAXSheetTracker : public ORVAXElementTracker {
  public:
    const char* className() const override { return "ORVAXSheetTracker"; }
    ORVOrientedRectRef focus() override;
};

}  // namespace orv
