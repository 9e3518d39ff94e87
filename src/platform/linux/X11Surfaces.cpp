// The windows a process shows, as the X server knows them, for toolkits that answer extents
// relative to their own windows.

#include "platform/linux/X11Displays.h"

#include <algorithm>
#include <string>
#include <vector>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
// For the connection's resource-id mask; its min and max macros go at once.
#include <X11/Xlibint.h>
#undef min
#undef max

namespace orv::linuxdesk {

namespace {

int ignoreError(Display*, XErrorEvent*) {
    return 0;
}

// A property of 32-bit items (Xlib hands them back as longs).
std::vector<unsigned long> cardinals(Display* dpy, Window w, Atom property, Atom type) {
    std::vector<unsigned long> out;
    Atom actual = 0;
    int format = 0;
    unsigned long n = 0, after = 0;
    unsigned char* data = nullptr;
    if (XGetWindowProperty(dpy, w, property, 0, 4096, False, type, &actual, &format, &n, &after,
                           &data) == Success &&
        data && format == 32) {
        const auto* items = reinterpret_cast<const unsigned long*>(data);
        out.assign(items, items + n);
    }
    if (data) XFree(data);
    return out;
}

std::string textProperty(Display* dpy, Window w, Atom property, Atom type) {
    Atom actual = 0;
    int format = 0;
    unsigned long n = 0, after = 0;
    unsigned char* data = nullptr;
    std::string out;
    if (XGetWindowProperty(dpy, w, property, 0, 1024, False, type, &actual, &format, &n, &after,
                           &data) == Success &&
        data && format == 8)
        out.assign(reinterpret_cast<const char*>(data), n);
    if (data) XFree(data);
    return out;
}

bool screenRect(Display* dpy, Window w, Window root, Rect* out, bool* viewable,
                bool* overrideRedirect) {
    XWindowAttributes a;
    if (!XGetWindowAttributes(dpy, w, &a)) return false;
    int x = 0, y = 0;
    Window child = 0;
    if (!XTranslateCoordinates(dpy, w, root, 0, 0, &x, &y, &child)) return false;
    *out = Rect(x, y, a.width, a.height);
    *viewable = a.map_state == IsViewable;
    *overrideRedirect = a.override_redirect;
    return true;
}

}  // namespace

std::vector<XSurface> X11Displays::surfacesOf(pid_t pid) {
    const uint64_t generation = topLevelGeneration();
    if (auto it = surfaces_.find(pid); it != surfaces_.end() && it->second.generation == generation)
        return it->second.surfaces;
    if (surfaces_.size() > 64) surfaces_.clear();

    std::vector<XSurface> found;
    const Window root = DefaultRootWindow(dpy_);
    // Windows may be destroyed between two requests; each request below waits for its reply.
    auto previous = XSetErrorHandler(ignoreError);
    const Atom clientList = XInternAtom(dpy_, "_NET_CLIENT_LIST", False);
    const Atom wmPid = XInternAtom(dpy_, "_NET_WM_PID", False);
    const Atom netName = XInternAtom(dpy_, "_NET_WM_NAME", False);
    const Atom utf8 = XInternAtom(dpy_, "UTF8_STRING", False);
    Window focus = 0;
    int revert = 0;
    XGetInputFocus(dpy_, &focus, &revert);
    // The resource-id bits every connection shares; what is left names the connection.
    const unsigned long clientMask = ~static_cast<unsigned long>(
        reinterpret_cast<struct _XDisplay*>(dpy_)->resource_mask);
    std::vector<unsigned long> bases;
    for (unsigned long w : cardinals(dpy_, root, clientList, XA_WINDOW)) {
        const auto p = cardinals(dpy_, w, wmPid, XA_CARDINAL);
        if (p.empty() || static_cast<pid_t>(p[0]) != pid) continue;
        XSurface s;
        bool viewable = false, redirect = false;
        if (!screenRect(dpy_, w, root, &s.screen, &viewable, &redirect) || !viewable) continue;
        s.xid = w;
        s.focused = focus == w;
        s.title = textProperty(dpy_, w, netName, utf8);
        if (s.title.empty()) s.title = textProperty(dpy_, w, XA_WM_NAME, XA_STRING);
        bases.push_back(w & clientMask);
        found.push_back(std::move(s));
    }
    if (!bases.empty()) {
        Window rootRet = 0, parent = 0, *children = nullptr;
        unsigned n = 0;
        if (XQueryTree(dpy_, root, &rootRet, &parent, &children, &n) && children) {
            for (unsigned i = 0; i < n; ++i) {
                const unsigned long base = children[i] & clientMask;
                if (std::find(bases.begin(), bases.end(), base) == bases.end()) continue;
                XSurface s;
                bool viewable = false, redirect = false;
                if (!screenRect(dpy_, children[i], root, &s.screen, &viewable, &redirect) ||
                    !viewable || !redirect)
                    continue;
                s.xid = children[i];
                s.popup = true;
                found.push_back(std::move(s));
            }
        }
        if (children) XFree(children);
    }
    XSetErrorHandler(previous);
    surfaces_[pid] = KeptSurfaces{generation, found};
    return found;
}

}  // namespace orv::linuxdesk
