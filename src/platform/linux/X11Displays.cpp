#include "platform/linux/X11Displays.h"

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

#include <algorithm>

namespace orv::linuxdesk {

std::shared_ptr<X11Displays> X11Displays::create(Display* display, MainLoop& loop) {
    if (!display) return nullptr;
    Display* pointer = XOpenDisplay(DisplayString(display));
    auto d = std::shared_ptr<X11Displays>(new X11Displays(display, pointer, loop));
    return d;
}

X11Displays::X11Displays(Display* display, Display* pointer, MainLoop& loop)
    : dpy_(display), pointerDpy_(pointer), loop_(loop) {
    int errorBase = 0;
    if (XRRQueryExtension(dpy_, &rrEventBase_, &errorBase)) {
        XRRSelectInput(dpy_, DefaultRootWindow(dpy_), RRScreenChangeNotifyMask);
    } else {
        rrEventBase_ = -1;
    }
    // Top-level windows (window manager frames) moving and resizing.
    XSelectInput(dpy_, DefaultRootWindow(dpy_), SubstructureNotifyMask);
    readLayout();
    watch_ = loop_.watchFd(ConnectionNumber(dpy_), kFdReadable,
                           [this](int, short) { drainEvents(false); });
}

X11Displays::~X11Displays() {
    if (watch_) loop_.unwatchFd(watch_);
    if (pointerDpy_) XCloseDisplay(pointerDpy_);
    XCloseDisplay(dpy_);
}

uint64_t X11Displays::topLevelGeneration() {
    if (XEventsQueued(dpy_, QueuedAfterReading) > 0) drainEvents(true);
    return topLevelGeneration_;
}

void X11Displays::drainEvents(bool deferCallbacks) {
    bool changed = false;
    std::vector<unsigned long> reshaped;
    const Window root = DefaultRootWindow(dpy_);
    while (XPending(dpy_)) {
        XEvent ev;
        XNextEvent(dpy_, &ev);
        if (rrEventBase_ >= 0 && ev.type == rrEventBase_ + RRScreenChangeNotify) {
            XRRUpdateConfiguration(&ev);
            changed = true;
            ++topLevelGeneration_;
        } else if (ev.type == ConfigureNotify && ev.xconfigure.event == root) {
            const XConfigureEvent& c = ev.xconfigure;
            const Rect r(c.x, c.y, c.width, c.height);
            auto [it, added] = topLevels_.try_emplace(c.window, r);
            // Restacking sends the same geometry again.
            if (added || it->second != r) {
                reshaped.push_back(c.window);
                ++topLevelGeneration_;
            }
            it->second = r;
        } else if (ev.type == DestroyNotify && ev.xdestroywindow.event == root) {
            topLevels_.erase(ev.xdestroywindow.window);
            ++topLevelGeneration_;
        } else if ((ev.type == MapNotify || ev.type == UnmapNotify || ev.type == ReparentNotify ||
                    ev.type == GravityNotify) &&
                   ev.xany.window == root) {
            ++topLevelGeneration_;
        }
    }
    if (changed) readLayout();
    const bool moved = !reshaped.empty() && onFocusedWindowMoved && [&] {
        const unsigned long focused = focusedTopLevel();
        return focused && std::find(reshaped.begin(), reshaped.end(), focused) != reshaped.end();
    }();
    if (!changed && !moved) return;
    auto tell = [this, changed, moved] {
        if (changed && onLayoutChanged) onLayoutChanged();
        if (moved && onFocusedWindowMoved) onFocusedWindowMoved();
    };
    if (!deferCallbacks) return tell();
    std::weak_ptr<bool> alive = alive_;
    loop_.post([alive, tell] {
        if (alive.lock()) tell();
    });
}

unsigned long X11Displays::focusedTopLevel() {
    Window focus = 0;
    int revert = 0;
    XGetInputFocus(dpy_, &focus, &revert);
    return topLevelOf(focus);
}

namespace {
// Xlib's default handler ends the process.
int ignoreXError(Display*, XErrorEvent*) {
    return 0;
}
}  // namespace

unsigned long X11Displays::topLevelOf(unsigned long window) {
    const Window root = DefaultRootWindow(dpy_);
    if (window == None || window == PointerRoot || window == root) return 0;
    // Every request below waits for its reply, so its error has been handled when it returns.
    auto previous = XSetErrorHandler(ignoreXError);
    Window found = 0;
    for (int depth = 0; depth < 32; ++depth) {
        Window rootRet = 0, parent = 0, *children = nullptr;
        unsigned n = 0;
        if (!XQueryTree(dpy_, window, &rootRet, &parent, &children, &n)) break;
        if (children) XFree(children);
        if (parent == root) {
            found = window;
            break;
        }
        if (parent == 0) break;
        window = parent;
    }
    XSetErrorHandler(previous);
    return found;
}

void X11Displays::readLayout() {
    std::vector<Monitor> found;
    Window root = DefaultRootWindow(dpy_);
    if (rrEventBase_ >= 0) {
        int n = 0;
        if (XRRMonitorInfo* m = XRRGetMonitors(dpy_, root, True, &n)) {
            for (int i = 0; i < n; ++i) {
                Monitor mon;
                mon.id = static_cast<DisplayID>(m[i].name ? m[i].name : i + 1);
                mon.x11 = Rect(m[i].x, m[i].y, m[i].width, m[i].height);
                mon.primary = m[i].primary;
                found.push_back(mon);
            }
            XRRFreeMonitors(m);
        }
    }
    if (found.empty()) {
        // No RandR monitors: the whole screen is one display.
        Monitor mon;
        mon.id = 1;
        mon.x11 = Rect(0, 0, DisplayWidth(dpy_, DefaultScreen(dpy_)),
                       DisplayHeight(dpy_, DefaultScreen(dpy_)));
        mon.primary = true;
        found.push_back(mon);
    }
    // Main display first; without a primary monitor the first one is main.
    for (size_t i = 0; i < found.size(); ++i) {
        if (found[i].primary) {
            std::swap(found[0], found[i]);
            break;
        }
    }
    std::lock_guard lock(mutex_);
    monitors_ = std::move(found);
}

X11Displays::Monitor X11Displays::mainMonitor() const {
    return monitors_.empty() ? Monitor{} : monitors_.front();
}

Point X11Displays::mainOrigin() {
    std::lock_guard lock(mutex_);
    return mainMonitor().x11.origin;
}

std::vector<Rect> X11Displays::monitorRects() {
    std::lock_guard lock(mutex_);
    std::vector<Rect> out;
    for (const auto& m : monitors_) out.push_back(m.x11);
    return out;
}

Displays::DisplayID X11Displays::mainDisplayID() {
    std::lock_guard lock(mutex_);
    return mainMonitor().id;
}

Rect X11Displays::displayBounds(DisplayID display) {
    std::lock_guard lock(mutex_);
    const Point o = mainMonitor().x11.origin;
    for (const auto& m : monitors_)
        if (m.id == display)
            return Rect(m.x11.origin.x - o.x, m.x11.origin.y - o.y, m.x11.size.width,
                        m.x11.size.height);
    return Rect();
}

int32_t X11Displays::getDisplaysWithPoint(Point point, DisplayID* display, uint32_t* count) {
    std::lock_guard lock(mutex_);
    const Point o = mainMonitor().x11.origin;
    const Point p{point.x + o.x, point.y + o.y};
    *count = 0;
    for (const auto& m : monitors_) {
        if (m.x11.contains(p)) {
            if (display) *display = m.id;
            *count = 1;
            break;
        }
    }
    return 0;
}

std::vector<Rect> X11Displays::screenFrames() {
    std::lock_guard lock(mutex_);
    const Rect main = mainMonitor().x11;
    std::vector<Rect> frames;
    for (const auto& m : monitors_) {
        const double topFromMain = m.x11.origin.y - main.origin.y;
        frames.emplace_back(m.x11.origin.x - main.origin.x,
                            main.size.height - (topFromMain + m.x11.size.height), m.x11.size.width,
                            m.x11.size.height);
    }
    return frames;
}

Point X11Displays::mouseLocation() {
    int rx = 0, ry = 0;
    {
        std::lock_guard lock(mutex_);
        if (!pointerDpy_) return Point{};
        Window root = DefaultRootWindow(pointerDpy_), rootRet = 0, childRet = 0;
        int wx = 0, wy = 0;
        unsigned mask = 0;
        if (!XQueryPointer(pointerDpy_, root, &rootRet, &childRet, &rx, &ry, &wx, &wy, &mask))
            return Point{};
        const Rect main = mainMonitor().x11;
        return Point{rx - main.origin.x, main.size.height - (ry - main.origin.y)};
    }
}

}  // namespace orv::linuxdesk
