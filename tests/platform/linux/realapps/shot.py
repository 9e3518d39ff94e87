"""Screenshot with rectangles drawn on it, to check reference rectangles by eye.

    /usr/bin/python3 shot.py OUT.png [X,Y,W,H[:COLOUR]]... [--crop X,Y,W,H] [--scale N]

Takes the root window of $DISPLAY (GDK 3 reads it from the X server), draws each rectangle as a
one-pixel outline just outside it (so the outlined pixels themselves stay visible: a rectangle
that is right has its first row and column of content directly inside the line), optionally
crops and scales up without smoothing, and writes a PNG.
"""

import sys

import gi

gi.require_version("Gdk", "3.0")
gi.require_version("GdkPixbuf", "2.0")
from gi.repository import Gdk, GdkPixbuf  # noqa: E402

COLOURS = {"red": 0xFF0000FF, "green": 0x00C000FF, "blue": 0x0000FFFF, "magenta": 0xFF00FFFF}


def fill(pix, x, y, w, h, rgba):
    x0, y0 = max(0, x), max(0, y)
    x1, y1 = min(pix.get_width(), x + w), min(pix.get_height(), y + h)
    if x1 <= x0 or y1 <= y0:
        return
    pix.new_subpixbuf(x0, y0, x1 - x0, y1 - y0).fill(rgba)


def outline(pix, x, y, w, h, rgba):
    fill(pix, x - 1, y - 1, w + 2, 1, rgba)
    fill(pix, x - 1, y + h, w + 2, 1, rgba)
    fill(pix, x - 1, y - 1, 1, h + 2, rgba)
    fill(pix, x + w, y - 1, 1, h + 2, rgba)


def parse_rect(text):
    return [int(v) for v in text.split(",")]


def main(argv):
    if len(argv) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    out, crop, scale, rects = argv[1], None, 1, []
    i = 2
    while i < len(argv):
        if argv[i] == "--crop":
            crop = parse_rect(argv[i + 1])
            i += 2
        elif argv[i] == "--scale":
            scale = int(argv[i + 1])
            i += 2
        else:
            rect_text, _, colour = argv[i].partition(":")
            rects.append((parse_rect(rect_text), COLOURS.get(colour or "red", COLOURS["red"])))
            i += 1
    root = Gdk.get_default_root_window()
    pix = Gdk.pixbuf_get_from_window(root, 0, 0, root.get_width(), root.get_height())
    if pix is None:
        print("shot: cannot read the root window", file=sys.stderr)
        return 1
    pix = pix.copy()
    for (x, y, w, h), rgba in rects:
        outline(pix, x, y, w, h, rgba)
    if crop:
        x, y, w, h = crop
        x, y = max(0, x), max(0, y)
        w, h = min(w, pix.get_width() - x), min(h, pix.get_height() - y)
        pix = pix.new_subpixbuf(x, y, w, h)
    if scale > 1:
        pix = pix.scale_simple(pix.get_width() * scale, pix.get_height() * scale,
                               GdkPixbuf.InterpType.NEAREST)
    pix.savev(out, "png", [], [])
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
