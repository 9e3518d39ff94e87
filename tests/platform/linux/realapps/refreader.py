"""Reference reader: what the toolkits themselves say has focus, and where it is on the screen.

Run with the system interpreter (/usr/bin/python3, which has gi and Atspi). It shares no code with
the agent: it listens on the accessibility bus itself and reads the X server through xwin.py.

Standard output: one JSON line per focus the toolkit announces,
  {"kind": "focus", "t": MONOTONIC_S, "ev": EVENT, "role", "name", "toolkit", "pid",
   "raw": [x, y, w, h], "rect": [x, y, w, h], "vis": [x, y, w, h], "win": [x, y, w, h] or
   null, "winname", "conv": HOW, "caret": BOOL, "seq": N}
  - `raw` is Component.GetExtents(SCREEN) as the toolkit answered it; `rect` is that on the
    screen, top-left origin (the same as `raw` except for GTK 4, see below); `win` is the
    top-level window (frame, dialog, window) that holds the object, on the screen likewise;
    `vis` is the part of `rect` that its scroll panes and viewports show.
  - `caret` says the object shows a text cursor (editable text, a terminal): the agent follows
    the cursor there, not the widget.
  - events: object:state-changed:focused with detail1 = 1, and object:active-descendant-changed
    while its container has focus (the descendant is then the focus).
  - and one JSON line per object:text-caret-moved and text-selection-changed, {"kind": "caret",
    ...}: the source's fields as above plus where its toolkit has the text cursor (caret_record
    says which).
Standard input: "now" answers with the focus as it has settled ({"kind": "now", ...}, the same
fields plus "focused" and "found"; see settled_focus), its extents read again; "caret" answers
with the text cursor of the focused text object as it is ({"kind": "caret-now", ...}, see
settled_caret); "quit" ends.

GTK 4 (toolkit "GTK", version 4.x; 4.8 here) does not answer screen coordinates: its numbers are
relative to the top-level window's widget, which the reader places with what the X server knows.
  - Top-level (a window, a dialog): its managed X window (_NET_CLIENT_LIST) with the application's
    _NET_WM_PID and the top-level's name as title (dialogs often have no accessible name: then
    the one whose size fits best, the active window first). The widget's (0, 0) lies at the left
    and top client-side-decoration margin inside it: _GTK_FRAME_EXTENTS when set (shadows, with a
    compositor); without a compositor GTK sets none and leaves a uniform transparent margin, which
    is (X window size - the top-level's reported size) / 2 on each axis.
  - Popover (its own override-redirect X window: combo box lists, menus): its descendants' numbers
    are computed through the widget tree as if the popover lay where GTK reports it (near the
    widget it points at), not where its surface is. The popover is the nearest ancestor with a
    menu role or a GtkPopover class name (GTK 4 names generic accessibles after their class).
    Its surface is the topmost mapped override-redirect X window of the same X client (the same
    resource base, the high bits of the window id). The surface holds the popover widget plus,
    for some popovers, the arrow's room on the side facing the widget it points at; so a
    descendant lies at surface origin + arrow room (only when the surface is below or right of
    that widget) + (its numbers - the popover's reported position).
Checked against screenshots taken with shot.py (rectangles drawn on the root window): the top-level
case on entries and buttons of the main window and of the About dialog, moved away from the origin
(each outline sits on the widget's content box, which is what GTK 4.8 reports); the popover case on
the combo box list (a surface 6 px taller than the popover, arrow room at the top) and on the
primary menu (surface the popover's size), each item's outline on its highlighted row.
"""

import json
import os
import re
import sys
import time

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import Atspi, GLib  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from caretplace import locate, usable  # noqa: E402
from xwin import XServer  # noqa: E402

WINDOW_ROLES = {"frame", "dialog", "window", "alert", "file chooser", "color chooser",
                "font chooser"}
CARET_ROLES = {"text", "entry", "password text", "terminal", "paragraph", "document text",
               "editbar", "spin button", "combo box"}

xs = XServer()
last = {"acc": None, "event": None, "caret_acc": None}
announced = []   # objects announced since the last "now", oldest first
seq = [0]


def extents(acc):
    try:
        e = acc.get_extents(Atspi.CoordType.SCREEN)
        return [e.x, e.y, e.width, e.height]
    except GLib.Error:
        return None


def app_of(acc):
    try:
        return acc.get_application()
    except GLib.Error:
        return None


def toolkit(app):
    try:
        return app.get_toolkit_name() or "", app.get_toolkit_version() or ""
    except GLib.Error:
        return "", ""


def ancestors(acc, limit=60):
    """The object's parents, nearest first, up to (not including) the application."""
    out = []
    cur = acc
    for _ in range(limit):
        try:
            cur = cur.get_parent()
        except GLib.Error:
            break
        if cur is None:
            break
        try:
            if cur.get_role() == Atspi.Role.APPLICATION:
                break
        except GLib.Error:
            break
        out.append(cur)
    return out


def role_of(acc):
    try:
        return acc.get_role_name() or ""
    except GLib.Error:
        return ""


def name_of(acc):
    try:
        return acc.get_name() or ""
    except GLib.Error:
        return ""


def has_state(acc, state):
    try:
        return acc.get_state_set().contains(state)
    except GLib.Error:
        return False


def page_caret(acc, role):
    """For a page (document) with focus: whether it has a caret (caret browsing, a click in its
    text); None for anything else."""
    if role not in ("document web", "document frame"):
        return None
    try:
        text = acc.get_text_iface()
        return text is not None and text.get_caret_offset() >= 0
    except Exception:
        return None


def shows_caret(acc, role):
    # Non-editable text (a label taking focus) has no cursor to follow; a terminal has one.
    return role == "terminal" or (role in CARET_ROLES and
                                  has_state(acc, Atspi.StateType.EDITABLE))


def gtk4_toplevel_x(pid, title, size):
    """The managed X window of a GTK 4 top-level: by pid and title, else by pid and the size that
    fits the reported one best (the active window first: dialogs often have no accessible name)."""
    mine = [w for w in xs.clients() if xs.pid(w) == pid]
    if title:
        for w in reversed(mine):
            if xs.title(w) == title:
                return w
    active = xs.active_window()
    best, best_score = None, None
    for w in mine:
        g = xs.geometry(w)
        if g is None or not size:
            continue
        dw, dh = g[2] - size[0], g[3] - size[1]
        if not (0 <= dw <= 200 and 0 <= dh <= 200):
            continue
        score = (w != active, abs(dw - dh), dw + dh)
        if best_score is None or score < best_score:
            best, best_score = w, score
    return best


def gtk4_toplevel_origin(xwin, frame_size):
    """Screen point of the top-level widget's (0, 0)."""
    g = xs.geometry(xwin)
    if g is None:
        return None
    fe = xs.frame_extents(xwin)
    if fe is not None:
        return g[0] + fe[0], g[1] + fe[2]
    return g[0] + (g[2] - frame_size[0]) // 2, g[1] + (g[3] - frame_size[1]) // 2


def is_popover(acc, role):
    """GTK 4 names its generic accessibles after their class (GtkPopover, GtkTreePopover...);
    popover menus have the menu role."""
    return role in ("menu", "popup menu") or re.fullmatch(r"Gtk\w*Popover(Menu)?", name_of(acc))


def popover_origin(xwin, popover, anchor_rect):
    """Screen point that a popover's descendants' numbers are relative to. The popup surface holds
    the popover widget plus, on some popovers, the arrow's room on the side facing the anchor (the
    widget it points at): the surface's extra size lies before the widget only when the surface
    lies below (right of) the anchor. The popover's own reported position is where GTK would have
    it inside the top-level, which its descendants' numbers include."""
    popups = xs.popups(xwin)
    if not popups:
        return None
    pg = xs.geometry(popups[-1])
    pext = extents(popover)
    if pg is None or pext is None:
        return None
    extra_w, extra_h = pg[2] - pext[2], pg[3] - pext[3]
    ax = anchor_rect[0] + anchor_rect[2] / 2 if anchor_rect else pg[0]
    ay = anchor_rect[1] + anchor_rect[3] / 2 if anchor_rect else pg[1]
    dx = extra_w if extra_w > 0 and pg[0] + pg[2] / 2 > ax else 0
    dy = extra_h if extra_h > 0 and pg[1] + pg[3] / 2 > ay else 0
    return pg[0] + dx - pext[0], pg[1] + dy - pext[1]


def gtk4_offsets(acc, pid, chain):
    """(offset, native_depth, win, how) for a GTK 4 object: the offset to add to its numbers (and
    to those of its ancestors below index native_depth of `chain`, which share its surface)."""
    top = chain[-1] if chain else acc
    top_ext = extents(top) or [0, 0, 0, 0]
    xwin = gtk4_toplevel_x(pid, name_of(top), top_ext[2:])
    if xwin is None:
        return None, 0, None, "gtk4: no X window"
    origin = gtk4_toplevel_origin(xwin, top_ext[2:])
    if origin is None:
        return None, 0, None, "gtk4: X window gone"
    win = [origin[0] + top_ext[0], origin[1] + top_ext[1], top_ext[2], top_ext[3]]
    path = [acc] + chain
    for i, a in enumerate(path[:-1]):
        if not is_popover(a, role_of(a)):
            continue
        anchor = extents(path[i + 1])
        if anchor is not None:
            anchor = [origin[0] + anchor[0], origin[1] + anchor[1], anchor[2], anchor[3]]
        at = popover_origin(xwin, a, anchor)
        if at is not None:
            return at, i, win, "gtk4-popover"
        break
    return origin, len(chain), win, "gtk4-toplevel"


def intersect(a, b):
    x0, y0 = max(a[0], b[0]), max(a[1], b[1])
    x1, y1 = min(a[0] + a[2], b[0] + b[2]), min(a[1] + a[3], b[1] + b[3])
    return [x0, y0, max(0, x1 - x0), max(0, y1 - y0)]


def describe(acc, ev):
    return placed(acc, ev)[0]


def placed(acc, ev):
    """describe()'s record and the function that places the object's other numbers (its
    characters' extents) on the screen the same way."""
    t = time.monotonic()
    role = role_of(acc)
    raw = extents(acc)
    app = app_of(acc)
    tk, ver = toolkit(app) if app is not None else ("", "")
    try:
        pid = acc.get_process_id()
    except GLib.Error:
        pid = None
    chain = ancestors(acc)
    # The top-level: the outermost window-like ancestor (GTK 4 nests popovers under widgets).
    tops = [a for a in chain if role_of(a) in WINDOW_ROLES]
    top = tops[-1] if tops else (acc if role in WINDOW_ROLES else None)
    win = extents(top) if top is not None else None
    offset, depth, how = (0, 0), len(chain), "screen"
    if tk == "GTK" and ver.startswith("4.") and raw is not None:
        offset, depth, win, how = gtk4_offsets(acc, pid, chain)

    def place(r):
        if r is None or offset is None:
            return None
        return [r[0] + offset[0], r[1] + offset[1], r[2], r[3]]

    rect = place(raw)
    # The part of it that its scrolled containers show.
    vis = rect
    if rect is not None:
        for a in chain[:depth]:
            if role_of(a) in ("scroll pane", "viewport"):
                r = place(extents(a))
                if r is not None and r[2] > 0 and r[3] > 0:
                    vis = intersect(vis, r)
    seq[0] += 1
    return {
        "kind": "focus", "t": t, "ev": ev, "role": role, "name": name_of(acc),
        "toolkit": f"{tk} {ver}".strip(), "pid": pid, "raw": raw, "rect": rect, "vis": vis,
        "win": win, "winname": name_of(top) if top is not None else "", "conv": how,
        "caret": shows_caret(acc, role), "pagecaret": page_caret(acc, role), "seq": seq[0],
    }, place


def search_focus():
    """The focused object of the active window (bounded walk). GTK 4 sets no ACTIVE state on its
    windows: the X server's active window then names the application (pid) and window (title)."""
    desktop = Atspi.get_desktop(0)
    active = xs.active_window()
    xpid = xs.pid(active) if active else None
    xtitle = xs.title(active) if active else None
    windows = []
    for i in range(desktop.get_child_count()):
        app = desktop.get_child_at_index(i)
        if app is None:
            continue
        try:
            pid = app.get_process_id()
        except GLib.Error:
            continue
        for j in range(min(app.get_child_count(), 50)):
            w = app.get_child_at_index(j)
            if w is None:
                continue
            if has_state(w, Atspi.StateType.ACTIVE):
                windows.insert(0, w)
            elif pid == xpid:
                windows.append(w) if name_of(w) != xtitle else windows.insert(0, w)
    for w in windows:
        found = focused_descendant(w, 5000)
        if found is not None:
            return found
    return None


def focused_descendant(acc, limit=3000):
    queue, seen = [acc], 0
    while queue and seen < limit:
        o = queue.pop(0)
        seen += 1
        if o is not acc and has_state(o, Atspi.StateType.FOCUSED):
            return o
        try:
            n = o.get_child_count()
        except GLib.Error:
            continue
        for k in range(min(n, 500)):
            try:
                c = o.get_child_at_index(k)
            except GLib.Error:
                c = None
            if c is not None:
                queue.append(c)
    return None


def is_child_of(acc, parent):
    try:
        p = acc.get_parent()
        return p is not None and p == parent
    except Exception:
        return False


def settled_focus():
    """The focus once a change has settled, and how it was found. The toolkit's announcements come
    first; the FOCUSED state decides between them: Qt announces a tree after its focused cell,
    and the tree itself never shows the state. Where a widget with the state and an item of it
    are both announced, the item is the focus whichever shows the state: GTK 3 announces a
    notebook, then its current tab, which does not show the state but is where GTK draws the
    focus. Only when nothing announced still has it is the window searched (GTK 4 announces
    nothing for a new window's first focus)."""
    for acc in reversed(announced):
        if has_state(acc, Atspi.StateType.FOCUSED):
            if acc is not announced[-1] and is_child_of(announced[-1], acc) and \
                    not has_state(announced[-1], Atspi.StateType.DEFUNCT):
                return announced[-1], "item"
            return acc, "last" if acc is announced[-1] else "announced"
    if announced:
        inner = focused_descendant(announced[-1])
        if inner is not None:
            return inner, "inside"
    acc = last["acc"]
    if acc is not None and has_state(acc, Atspi.StateType.FOCUSED):
        return acc, "last"
    found = search_focus()
    if found is not None:
        # The notebook found by its state, its tab announced alone (mousepad's Preferences).
        if announced and is_child_of(announced[-1], found) and \
                not has_state(announced[-1], Atspi.StateType.DEFUNCT):
            return announced[-1], "item"
        return found, "search"
    return acc, "last"


# --- The text cursor ---

def char_extents(text, offset):
    try:
        e = Atspi.Text.get_character_extents(text, offset, Atspi.CoordType.SCREEN)
        return [e.x, e.y, e.width, e.height]
    except GLib.Error:
        return None


def text_between(text, start, end):
    try:
        return Atspi.Text.get_text(text, start, end)
    except GLib.Error:
        return None


def text_iface(acc):
    try:
        return acc.get_text_iface()
    except GLib.Error:
        return None


def caret_record(acc, ev):
    """The object's record (describe()) and where its toolkit has the text cursor: "offset" (the
    caret offset, which is the moving end of a selection), "count", "sel", the placed extents of
    the character at the caret ("char") and of the one before ("prev", its text "prev_text"),
    and "at" {x, y, h}, the cursor's x and the vertical span of its line on the screen, with
    "where" saying how that was found (caretplace.locate); after a newline, "line_start" is the
    first character of the line the newline ends."""
    d, place = placed(acc, ev)
    d["kind"] = "caret"
    text = text_iface(acc)
    d.update({"offset": None, "count": None, "sel": None, "char": None, "prev": None,
              "prev_text": None, "line_start": None, "at": None, "where": "no-text"})
    if text is None:
        return d
    try:
        c = Atspi.Text.get_caret_offset(text)
        n = Atspi.Text.get_character_count(text)
    except GLib.Error:
        return d
    d["offset"], d["count"] = c, n
    try:
        if Atspi.Text.get_n_selections(text) > 0:
            r = Atspi.Text.get_selection(text, 0)
            d["sel"] = [r.start_offset, r.end_offset]
    except GLib.Error:
        pass

    def placed_char(offset):
        r = char_extents(text, offset)
        return place(r) if usable(r) else None
    char = placed_char(c) if c >= 0 else None
    d["char"] = char
    if c > 0:
        d["prev"] = placed_char(c - 1)
        d["prev_text"] = text_between(text, c - 1, c)
    try:
        # For the log: the line the cursor is on, as the toolkit cuts it.
        r = Atspi.Text.get_string_at_offset(text, max(c, 0), Atspi.TextGranularity.LINE)
        d["line_text"] = r.content
    except GLib.Error:
        d["line_text"] = None
    d["where"], at = locate(c, n, char, d["prev"], d["prev_text"])
    if d["where"] == "after-newline":
        before = text_between(text, 0, c - 1)
        if before is not None:
            d["line_start"] = placed_char(before.rfind("\n") + 1)
    if at is not None:
        d["at"] = {"x": at[0], "y": at[1], "h": at[2]}
    return d


def settled_caret():
    """The text object whose cursor a caret step moved: the source of the last caret event when
    it has the focus, else the settled focus when it has text, else that source anyway."""
    acc, how = settled_focus()
    src = last.get("caret_acc")
    if src is not None and has_state(src, Atspi.StateType.FOCUSED):
        return src, "caret event"
    if acc is not None and text_iface(acc) is not None:
        return acc, how
    return src, "caret event, not focused"


def emit(obj):
    sys.stdout.write(json.dumps(obj) + "\n")
    sys.stdout.flush()


def on_event(event):
    try:
        if event.type.startswith("object:state-changed:focused"):
            if event.detail1 != 1:
                return
            acc, kind = event.source, "focused"
        elif event.type.startswith("object:active-descendant-changed"):
            if not has_state(event.source, Atspi.StateType.FOCUSED):
                return
            acc, kind = event.any_data, "active-descendant"
            if not isinstance(acc, Atspi.Accessible):
                return
        elif event.type.startswith(("object:text-caret-moved",
                                    "object:text-selection-changed")):
            last["caret_acc"] = event.source
            emit(caret_record(event.source, event.type.split(":")[1]))
            return
        else:
            return
        last["acc"], last["event"] = acc, kind
        announced.append(acc)
        emit(describe(acc, kind))
    except Exception as e:  # a bad event must not end the reference
        emit({"kind": "error", "t": time.monotonic(), "what": repr(e)})


def on_input(source, _cond):
    line = source.readline()
    if not line:
        loop.quit()
        return False
    cmd = line.strip()
    if cmd == "quit":
        loop.quit()
        return False
    if cmd == "now":
        acc, how = settled_focus()
        announced.clear()
        if acc is None:
            emit({"kind": "now", "t": time.monotonic(), "none": True})
        else:
            d = describe(acc, "now")
            d["kind"] = "now"
            d["focused"] = has_state(acc, Atspi.StateType.FOCUSED)
            d["found"] = how
            emit(d)
    elif cmd == "caret":
        acc, how = settled_caret()
        announced.clear()
        if acc is None:
            emit({"kind": "caret-now", "t": time.monotonic(), "none": True})
        else:
            d = caret_record(acc, "now")
            d["kind"] = "caret-now"
            d["focused"] = has_state(acc, Atspi.StateType.FOCUSED)
            d["found"] = how
            emit(d)
    return True


if __name__ == "__main__":
    Atspi.init()
    listener = Atspi.EventListener.new(on_event)
    listener.register("object:state-changed:focused")
    listener.register("object:active-descendant-changed")
    listener.register("object:text-caret-moved")
    listener.register("object:text-selection-changed")
    loop = GLib.MainLoop()
    GLib.io_add_watch(GLib.IOChannel.unix_new(0), GLib.IO_IN | GLib.IO_HUP,
                      lambda ch, cond: on_input(sys.stdin, cond))
    emit({"kind": "ready", "t": time.monotonic()})
    loop.run()
