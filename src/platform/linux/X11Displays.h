#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/Desktop.h"
#include "platform/MainLoop.h"
#include "platform/linux/WindowRelative.h"

typedef struct _XDisplay Display;

namespace orv::linuxdesk {

// Displays from the XRandR monitors of the X screen (the main display is the primary monitor),
// the pointer from Xlib. The layout is cached and re-read when XRandR reports a change.
class X11Displays final : public Displays {
  public:
    struct Monitor {
        DisplayID id = 0;
        Rect x11;  // X screen coordinates, top-left origin
        bool primary = false;
    };

    // Takes ownership of `display`; opens a second connection for the pointer, which any thread
    // may read.
    static std::shared_ptr<X11Displays> create(Display* display, MainLoop& loop);
    ~X11Displays() override;

    DisplayID mainDisplayID() override;
    Rect displayBounds(DisplayID display) override;
    int32_t getDisplaysWithPoint(Point point, DisplayID* display, uint32_t* count) override;
    std::vector<Rect> screenFrames() override;
    Point mouseLocation() override;

    // X screen coordinates of the main display's top-left corner.
    Point mainOrigin();
    std::vector<Rect> monitorRects();
    // Called whenever the layout was read anew.
    std::function<void()> onLayoutChanged;
    // Called when the top-level window that holds the keyboard focus moved or changed size (GTK
    // says nothing over AT-SPI when a window moves); once per batch of X events.
    std::function<void()> onFocusedWindowMoved;
    // A number that changes whenever a top-level window was mapped, unmapped, moved or resized,
    // or the layout changed, as far as the X server has told so far (events already received
    // are taken in; callbacks they call for run on a later turn). Main thread.
    uint64_t topLevelGeneration();
    // The child of the root window that holds `window`, or 0 (also when `window` is gone: any
    // window may be destroyed between two requests, and that must not end the process).
    unsigned long topLevelOf(unsigned long window);

    // The mapped windows of a process: its top-level client windows (by _NET_WM_PID) and the
    // popups (override-redirect) its X connection made. Kept until a top-level window changes.
    std::vector<XSurface> surfacesOf(pid_t pid);

  private:
    X11Displays(Display* display, Display* pointer, MainLoop& loop);
    void readLayout();
    // `deferCallbacks`: called from inside other work, the callbacks run on a later turn.
    void drainEvents(bool deferCallbacks);
    Monitor mainMonitor() const;  // lock held
    // The child of the root window that contains the X input focus, or 0.
    unsigned long focusedTopLevel();

    Display* dpy_;
    Display* pointerDpy_;
    MainLoop& loop_;
    FdWatchId watch_ = 0;
    int rrEventBase_ = -1;
    mutable std::mutex mutex_;
    std::vector<Monitor> monitors_;  // main first
    // Geometry of the root's children as ConfigureNotify last gave it.
    std::unordered_map<unsigned long, Rect> topLevels_;
    uint64_t topLevelGeneration_ = 0;
    struct KeptSurfaces {
        uint64_t generation;
        std::vector<XSurface> surfaces;
    };
    std::unordered_map<pid_t, KeptSurfaces> surfaces_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace orv::linuxdesk
