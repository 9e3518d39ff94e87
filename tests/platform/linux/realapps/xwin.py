"""What the X server knows about windows, through libX11 with ctypes (no python Xlib here).

Used by the reference reader to place GTK 4's surface-relative extents on the screen, and by
the driver to find and move application windows. Every request that names a window another
client may destroy meanwhile runs under an error handler that only notes the error.
"""

import ctypes
import ctypes.util

_lib = ctypes.CDLL(ctypes.util.find_library("X11") or "libX11.so.6")

Window = ctypes.c_ulong
Atom = ctypes.c_ulong


class XWindowAttributes(ctypes.Structure):
    _fields_ = [
        ("x", ctypes.c_int), ("y", ctypes.c_int),
        ("width", ctypes.c_int), ("height", ctypes.c_int),
        ("border_width", ctypes.c_int), ("depth", ctypes.c_int),
        ("visual", ctypes.c_void_p), ("root", Window),
        ("c_class", ctypes.c_int), ("bit_gravity", ctypes.c_int),
        ("win_gravity", ctypes.c_int), ("backing_store", ctypes.c_int),
        ("backing_planes", ctypes.c_ulong), ("backing_pixel", ctypes.c_ulong),
        ("save_under", ctypes.c_int), ("colormap", ctypes.c_ulong),
        ("map_installed", ctypes.c_int), ("map_state", ctypes.c_int),
        ("all_event_masks", ctypes.c_long), ("your_event_mask", ctypes.c_long),
        ("do_not_propagate_mask", ctypes.c_long), ("override_redirect", ctypes.c_int),
        ("screen", ctypes.c_void_p),
    ]


IsViewable = 2

_lib.XOpenDisplay.restype = ctypes.c_void_p
_lib.XOpenDisplay.argtypes = [ctypes.c_char_p]
_lib.XDefaultRootWindow.restype = Window
_lib.XDefaultRootWindow.argtypes = [ctypes.c_void_p]
_lib.XInternAtom.restype = Atom
_lib.XInternAtom.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int]
_lib.XGetWindowProperty.argtypes = [
    ctypes.c_void_p, Window, Atom, ctypes.c_long, ctypes.c_long, ctypes.c_int, Atom,
    ctypes.POINTER(Atom), ctypes.POINTER(ctypes.c_int), ctypes.POINTER(ctypes.c_ulong),
    ctypes.POINTER(ctypes.c_ulong), ctypes.POINTER(ctypes.c_void_p)]
_lib.XFree.argtypes = [ctypes.c_void_p]
_lib.XQueryTree.argtypes = [
    ctypes.c_void_p, Window, ctypes.POINTER(Window), ctypes.POINTER(Window),
    ctypes.POINTER(ctypes.POINTER(Window)), ctypes.POINTER(ctypes.c_uint)]
_lib.XGetWindowAttributes.argtypes = [ctypes.c_void_p, Window,
                                      ctypes.POINTER(XWindowAttributes)]
_lib.XTranslateCoordinates.argtypes = [
    ctypes.c_void_p, Window, Window, ctypes.c_int, ctypes.c_int,
    ctypes.POINTER(ctypes.c_int), ctypes.POINTER(ctypes.c_int), ctypes.POINTER(Window)]
_lib.XSync.argtypes = [ctypes.c_void_p, ctypes.c_int]

_ERROR_HANDLER = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)
_errors = [0]


@_ERROR_HANDLER
def _on_error(_display, _event):
    _errors[0] += 1
    return 0


_lib.XSetErrorHandler.argtypes = [_ERROR_HANDLER]
_lib.XSetErrorHandler(_on_error)


class XServer:
    def __init__(self, display=None):
        self.dpy = _lib.XOpenDisplay(display.encode() if display else None)
        if not self.dpy:
            raise RuntimeError("cannot open the X display")
        self.root = _lib.XDefaultRootWindow(self.dpy)
        self._atoms = {}

    def atom(self, name):
        if name not in self._atoms:
            self._atoms[name] = _lib.XInternAtom(self.dpy, name.encode(), 0)
        return self._atoms[name]

    def _property(self, win, name, fmt_type, length=1024):
        actual_type, actual_format = Atom(), ctypes.c_int()
        nitems, after, data = ctypes.c_ulong(), ctypes.c_ulong(), ctypes.c_void_p()
        rc = _lib.XGetWindowProperty(self.dpy, win, self.atom(name), 0, length, 0,
                                     fmt_type, ctypes.byref(actual_type),
                                     ctypes.byref(actual_format), ctypes.byref(nitems),
                                     ctypes.byref(after), ctypes.byref(data))
        if rc != 0 or not data.value:
            return None, 0, 0
        return data, actual_format.value, nitems.value

    def cardinals(self, win, name):
        """A 32-bit property as a list of ints (longs in Xlib's client-side form)."""
        data, fmt, n = self._property(win, name, 0)
        if data is None:
            return None
        try:
            if fmt != 32:
                return None
            arr = ctypes.cast(data, ctypes.POINTER(ctypes.c_long))
            return [int(arr[i]) for i in range(n)]
        finally:
            _lib.XFree(data)

    def text(self, win, name):
        data, fmt, n = self._property(win, name, 0)
        if data is None:
            return None
        try:
            if fmt != 8:
                return None
            return ctypes.string_at(data, n).decode("utf-8", "replace")
        finally:
            _lib.XFree(data)

    def children(self, win):
        root, parent = Window(), Window()
        kids, n = ctypes.POINTER(Window)(), ctypes.c_uint()
        if not _lib.XQueryTree(self.dpy, win, ctypes.byref(root), ctypes.byref(parent),
                               ctypes.byref(kids), ctypes.byref(n)):
            return []
        out = [int(kids[i]) for i in range(n.value)]
        if kids:
            _lib.XFree(kids)
        return out

    def attributes(self, win):
        attrs = XWindowAttributes()
        if not _lib.XGetWindowAttributes(self.dpy, win, ctypes.byref(attrs)):
            return None
        return attrs

    def origin(self, win):
        """The window's top-left corner (inside its border) in root coordinates."""
        x, y, child = ctypes.c_int(), ctypes.c_int(), Window()
        if not _lib.XTranslateCoordinates(self.dpy, win, self.root, 0, 0, ctypes.byref(x),
                                          ctypes.byref(y), ctypes.byref(child)):
            return None
        return x.value, y.value

    def geometry(self, win):
        """(x, y, width, height) on the root window, or None when the window is gone."""
        attrs = self.attributes(win)
        at = self.origin(win) if attrs else None
        if attrs is None or at is None:
            return None
        return at[0], at[1], attrs.width, attrs.height

    def sync(self):
        _lib.XSync(self.dpy, 0)

    def clients(self):
        """Top-level windows the window manager manages, oldest first."""
        return self.cardinals(self.root, "_NET_CLIENT_LIST") or []

    def pid(self, win):
        v = self.cardinals(win, "_NET_WM_PID")
        return v[0] if v else None

    def title(self, win):
        t = self.text(win, "_NET_WM_NAME")
        return t if t is not None else self.text(win, "WM_NAME")

    def frame_extents(self, win, name="_GTK_FRAME_EXTENTS"):
        """(left, right, top, bottom), or None when the window has none."""
        v = self.cardinals(win, name)
        return tuple(v[:4]) if v and len(v) >= 4 else None

    def popups(self, like):
        """Mapped override-redirect children of the root made by the client that made `like`
        (same resource base: X gives each client its own high bits of the id)."""
        base = like & ~0x1FFFFF
        out = []
        for w in self.children(self.root):
            if w & ~0x1FFFFF != base:
                continue
            attrs = self.attributes(w)
            if attrs and attrs.override_redirect and attrs.map_state == IsViewable:
                out.append(w)
        return out  # bottom to top in stacking order

    def active_window(self):
        v = self.cardinals(self.root, "_NET_ACTIVE_WINDOW")
        return v[0] if v else None
