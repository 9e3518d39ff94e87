#!/usr/bin/env bash
# Real applications: the agent, as it ships, following the keyboard focus through real Debian
# programs, each focus area at the magnifier stand-in held against the toolkit's own rectangle.
#
# Usage: tests/platform/linux/realapps/run.sh [OPTIONS] BUILD_DIR [APP...]
#   BUILD_DIR holds ocuvane-agent and tools/ocuvane-visor/ocuvane-visor (built already).
#   APP: a focus walk: gtk3-widget-factory, gtk4-widget-factory, qt5-gallery, firefox-esr,
#        xfce4-terminal, mousepad; a text-cursor walk: the same names with -caret
#        (gtk3-widget-factory-caret...); the part of a name before its first '-' (gtk3, qt5,
#        firefox, xfce4, mousepad...) for both walks of that program; "focus" or "caret" for
#        every walk of that kind. Default: all, each program's focus walk first.
#   --report-only  exit 0 whatever the figures (to see them when a target is missed)
#   --keep DIR     keep the logs (agent, visor, reference, applications) and report in DIR
#   --trace        print every step's outcome as it goes (also written to DIR/APP.steps)
#   --shots DIR    a screenshot per change in DIR: the reference rectangle outlined in red, the
#                  agent's final area in blue (how the GTK 4 placement was checked by eye)
# Exit status: 0 when every focus walk that ran met the targets (at least 98 % of focus
# changes with the right final area, no false area in between, the area right after every
# window move), 1 when one missed, 2 for bad usage or a missing build. The text-cursor walks
# are reported (positions at the caret, rule-placed, missed, each with its reason), not judged.
#
# Packages it needs (it installs nothing; a missing application is SKIPPED with a line that
# names its package): xdotool, x11-utils, python3-gi, gir1.2-atspi-2.0, gir1.2-gtk-3.0 (for
# shot.py), gtk-3-examples, gtk-4-examples, qtbase5-examples, firefox-esr, xfce4-terminal,
# mousepad; and what tests/platform/linux/desktop-session.sh needs.
#
# What runs, all inside one private desktop session (tests/platform/linux/desktop-session.sh,
# 1680x1050 unless ORV_SESSION_SCREEN says otherwise, so that windows fit at (150, 110)):
#   - ocuvane-visor --port 0 --json, and ocuvane-agent --desktop=linux --print-focus sending to
#     it, each started once for the whole run;
#   - refreader.py, the reference: its own libatspi listener (system python3, gi) that records,
#     for every object:state-changed:focused and active-descendant-changed, the time, role, name
#     and the toolkit's extents of the focused object, placed on the screen (GTK 4 answers
#     surface-relative numbers: refreader.py's top comment says how they are placed and how that
#     was checked against screenshots, which shot.py takes);
#   - driver.py: starts each application once, moves its window to (150, 110), and presses the
#     keys listed in apps.py with xdotool. After each key it waits (bounded) for the reference to
#     see the focus event, then until the reference has been quiet for 0.3 s, then 0.3 s more for
#     the agent, then asks the reference for the focused object's rectangle as it is now (the
#     last object announced that still shows the FOCUSED state, else a focused descendant of it,
#     else a search of the active window: refreader.settled_focus).
# Judged for each key (compare.py): the last area the visor received before the next key must
# equal that rectangle turned into the agent's bottom-left space (1 px slack); for elements that
# show a text cursor (text fields, terminals, text views) the agent sends the cursor, which must
# lie inside the element. An area equal to the part of the element that its scroll pane shows
# also counts (reported apart). Areas between the key and the final one are false when all-zero,
# equal to a window's rectangle, or equal to an earlier focus's rectangle other than the previous
# final one (stale); every other area in between (the toolkit's own intermediate focuses) passes.
# Latency runs from the driver's key press (before xdotool starts, so a few ms
# of process start are in it) to the arrival at the visor of the final area (the first of the
# identical areas that close the change).
#
# Text-cursor walks (the -caret entries, each program started afresh; apps.py's "caret" and
# "type" steps): keys and typed text that move the cursor in an entry, a text view, a terminal,
# a web page's input, text area and editable paragraph. The reference also listens to
# object:text-caret-moved and text-selection-changed; after each key it waits (bounded) for one,
# then for quiet as above, then reads the focused text object's caret offset (the moving end of
# a selection), character count and the toolkit's character extents at the caret, placed on the
# screen as the focus rectangles are. The toolkit's caret is the left edge of the character at
# the caret; at the end of the text (or with no extents there) the right edge of the one before.
# Judged: the last area before the next key must be a cursor mark (at most 2 px wide) within
# 2 px of that x, overlapping that character's line. Positions off the caret that the agent
# places by a rule of its own are counted apart, each checked against the rule: after a newline
# at the end of the text
# (the mark at the start of the line before the insertion line), an empty field (4 px inside
# the left edge, the mark's bottom 20 px below the top edge, in the agent's bottom-left space),
# and a toolkit that answers no character extents (GTK 4.8, Qt's password field: the mark must
# lie inside the field). Every other position off the caret is a miss, reported with why (x off
# by N px, not on the caret's line, not a cursor mark). The judging itself is tested without a
# desktop:
#   /usr/bin/python3 -m unittest tests/platform/linux/realapps/test_compare.py
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../../../.." && pwd)

args=()
build=
original=("$@")
while [ $# -gt 0 ]; do
    case "$1" in
        --report-only|--trace) args+=("$1"); shift ;;
        --keep|--shots)
            [ $# -ge 2 ] || { echo "run.sh: $1 needs a directory" >&2; exit 2; }
            args+=("$1" "$2"); shift 2 ;;
        -h|--help) sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit 0 ;;
        -*) echo "run.sh: unknown option $1" >&2; exit 2 ;;
        *) if [ -z "$build" ]; then build=$1; else args+=("$1"); fi; shift ;;
    esac
done
if [ -z "$build" ]; then
    echo "usage: $0 [--report-only] [--trace] [--keep DIR] [--shots DIR] BUILD_DIR [APP...]" >&2
    exit 2
fi
if [ ! -x "$build/ocuvane-agent" ] || [ ! -x "$build/tools/ocuvane-visor/ocuvane-visor" ]; then
    echo "run.sh: $build has no ocuvane-agent or tools/ocuvane-visor/ocuvane-visor: build them" \
        "first (ninja -C $build ocuvane-agent ocuvane-visor)" >&2
    exit 2
fi

if [ -z "${ORV_DESKTOP_SESSION:-}" ]; then
    export ORV_SESSION_SCREEN=${ORV_SESSION_SCREEN:-1680x1050x24}
    exec bash "$root/tests/platform/linux/desktop-session.sh" --no-install -- \
        bash "$0" "${original[@]}"
fi

build=$(cd "$build" && pwd)
export PYTHONDONTWRITEBYTECODE=1
exec /usr/bin/python3 "$here/driver.py" "$build" "${args[@]}"
