"""Holding each change's areas at the visor against the reference, and the report.

Rectangles from the reference are on the screen with a top-left origin; they are turned into the
agent's space (bottom-left origin at the main display's bottom-left corner, y up) as the e2e tests
do: x stays, y becomes screen height - y - height, and past the left or bottom edge only the part
on the screen counts.
"""

import statistics

TOLERANCE = 1          # px, for rounding
RIGHT_TARGET = 98.0    # % of focus changes per application
CARET_SLACK = 2        # px between the agent's cursor mark and the toolkit's caret x
CURSOR_WIDTH = 2       # px: wider is not a cursor mark


def to_agent(r, screen):
    if r is None:
        return None
    x, y, w, h = r
    a = [x, screen[1] - y - h, w, h]
    if a[0] < 0:
        a[2] += a[0]
        a[0] = 0
    if a[1] < 0:
        a[3] += a[1]
        a[1] = 0
    return a


def close(a, b):
    return a is not None and b is not None and all(abs(p - q) <= TOLERANCE for p, q in zip(a, b))


def within(inner, outer):
    """inner lies in outer (1 px slack) and is not empty."""
    if inner is None or outer is None or inner[2] <= 0 or inner[3] <= 0:
        return False
    return (inner[0] >= outer[0] - TOLERANCE and inner[1] >= outer[1] - TOLERANCE and
            inner[0] + inner[2] <= outer[0] + outer[2] + TOLERANCE and
            inner[1] + inner[3] <= outer[1] + outer[3] + TOLERANCE)


def relation(got, due):
    if got is None or due is None or got == [0, 0, 0, 0]:
        return ""
    if within(got, due):
        return " (inside the element)"
    if within(due, got):
        return " (around the element)"
    return ""


def fmt(r):
    return "none" if r is None else f"({r[0]},{r[1]} {r[2]}x{r[3]})"


def percentile(values, p):
    if not values:
        return None
    v = sorted(values)
    k = (len(v) - 1) * p / 100.0
    lo, hi = int(k), min(int(k) + 1, len(v) - 1)
    return v[lo] + (v[hi] - v[lo]) * (k - lo)


class AppResult:
    def __init__(self, name):
        self.name = name
        self.toolkit = ""
        self.tried = 0
        self.right = 0
        self.right_visible = 0     # right only as the part its scrolled container shows
        self.right_no_caret = 0    # a page without a caret, which gets no area by rule
        self.moves = 0
        self.moves_right = 0
        self.latencies = []
        self.false = {"all-zero": 0, "window": 0, "stale": 0}
        self.false_list = []
        self.mismatches = []
        self.no_change = []
        self.no_reference = []
        self.broken = []
        self.skipped = None
        self.trace = []
        self.stalls = []
        self.judged = True
        self.caret = CaretResult()

    def met(self):
        if self.skipped or not self.judged:
            return True
        if self.broken or self.tried == 0:
            return False
        return (100.0 * self.right / self.tried >= RIGHT_TARGET and
                sum(self.false.values()) == 0 and self.moves_right == self.moves)


class Judge:
    def __init__(self):
        self.apps = {}
        self.order = []
        self.history = []        # agent-space rectangles of every focus the reference saw
        self.windows = []        # agent-space rectangles of every window seen
        self.prev_final = {}     # per application: the last change's due rectangle

    def _app(self, name):
        if name not in self.apps:
            self.apps[name] = AppResult(name)
            self.order.append(name)
        return self.apps[name]

    def all_met(self):
        return bool(self.order) and all(self.apps[n].met() for n in self.order)

    def stalls(self, name, ms):
        self._app(name).stalls += ms

    def skip(self, name, why):
        self._app(name).skipped = why

    def broken(self, name, why):
        self._app(name).broken.append(why)

    def caret_note(self, name, note):
        self._app(name).caret.notes.append(note)

    def reported_only(self, name):
        self._app(name).judged = False

    def caret(self, name, step, t_key, events, now, areas, prev_area, screen):
        """One position of the text cursor: the agent's last area against the toolkit's caret."""
        res = self._app(name)
        label = step.label or str(step.arg)
        judge_caret(res.caret, label, t_key, events, now, areas, prev_area, screen)
        if now and now.get("toolkit"):
            res.toolkit = res.toolkit or now["toolkit"]
        res.trace.append(res.caret.trace[-1])

    def step(self, name, step, t_key, events, now, areas, prev_area, screen):
        res = self._app(name)
        label = step.label or str(step.arg)
        ref = now if now and not now.get("none") and now.get("rect") else None
        if ref is None and events:
            ref = events[-1]
        if ref is None:
            res.no_reference.append(label)
            return
        res.toolkit = res.toolkit or ref.get("toolkit", "")
        changed = bool(events) or (now is not None and now.get("found") == "search")
        is_move = step.kind == "move"
        if not changed and not is_move:
            res.no_change.append(label)
            res.trace.append(f"{label}: no focus change announced ({ref.get('role')} "
                             f"{ref.get('name')!r} still)")
            return
        due = to_agent(ref["rect"], screen)
        visible = to_agent(ref.get("vis"), screen)
        announced = [to_agent(e.get("rect"), screen) for e in events]
        for r in [ref.get("win")] + [e.get("win") for e in events]:
            if r is not None:
                self.windows.append(to_agent(r, screen))

        final = areas[-1] if areas else prev_area
        got = final["rect"] if final else None
        how = None
        if ref.get("caret"):
            # The cursor trackers send the caret: right when it lies in the element.
            if within(got, due):
                how = "right"
        elif close(got, due):
            how = "right"
        elif close(got, visible):
            how = "visible"
        elif ref.get("pagecaret") is False and got is not None and not any(got):
            # A page with focus but no caret: the web area tracker's rule is no area at all.
            how = "no caret"
        if is_move:
            res.moves += 1
            res.moves_right += how is not None
        else:
            res.tried += 1
            res.right += how is not None
            res.right_visible += how == "visible"
            res.right_no_caret += how == "no caret"
        if how is not None and areas:
            # To the first of the identical areas that close the change (repeats come later).
            first = len(areas) - 1
            while first > 0 and areas[first - 1]["rect"] == final["rect"]:
                first -= 1
            res.latencies.append((areas[first]["t"] - t_key) * 1000.0)
        res.trace.append(
            f"{label}: {ref.get('role')} {ref.get('name')!r} due {fmt(due)} got {fmt(got)} "
            f"{how or 'WRONG'} ({len(events)} events, {len(areas)} areas"
            f"{', found by search' if now and now.get('found') == 'search' else ''})")
        if how is None:
            res.mismatches.append(
                f"{label}: {ref.get('role')} {ref.get('name')!r}"
                f"{' (text cursor)' if ref.get('caret') else ''} due {fmt(due)}"
                f"{'' if visible == due else ' visible ' + fmt(visible)}, got {fmt(got)}"
                f"{'' if areas else ' (nothing new arrived)'}{relation(got, due)}; "
                f"screen {fmt(ref.get('rect'))}"
                f" raw {fmt(ref.get('raw'))} {ref.get('conv')}")

        prev_due = self.prev_final.get(name)
        for a in areas[:-1]:
            r = a["rect"]
            kind = None
            if r == [0, 0, 0, 0]:
                kind = "all-zero"
            elif any(close(r, w) for w in self.windows) and not any(close(r, x) for x in announced):
                kind = "window"
            elif (any(close(r, h) for h in self.history) and not close(r, prev_due) and
                  not any(close(r, x) for x in announced) and not close(r, due)):
                kind = "stale"
            if kind:
                res.false[kind] += 1
                res.false_list.append(f"{label}: {kind} {fmt(r)} before {fmt(got)} "
                                      f"({ref.get('role')} {ref.get('name')!r})")
        self.history += [x for x in announced if x is not None] + [due]
        self.prev_final[name] = due


# --- The text cursor ---

RULES = {
    "after-newline": "after a newline: the agent's rule puts the mark at the start of the line "
                     "before the insertion line",
    "empty": "empty field: the agent's mark 4 px inside the left edge, its bottom 20 px below "
             "the top edge",
    "no-extents": "the toolkit answered no character extents: the agent's mark near the field's "
                  "edge, which must lie inside the field",
    "secret": "a password field: the agent follows the whole field, never a cursor in it",
}


class CaretResult:
    def __init__(self):
        self.tried = 0
        self.matched = 0
        self.rule = 0            # placed by one of the agent's rules, not at the toolkit's caret
        self.rule_held = 0       # ... and where that rule puts the mark
        self.lines = []          # every rule-placed position and every miss, with the reason
        self.no_event = []       # keys the toolkit sent no caret event for
        self.no_reference = []
        self.notes = []
        self.rules_seen = set()
        self.latencies = []
        self.trace = []


def cursor_like(r):
    return r is not None and 0 <= r[2] <= CURSOR_WIDTH and r[3] > 0


def at_caret(got, x, y, h, screen):
    """got (agent space) is a cursor mark within CARET_SLACK of x whose vertical span overlaps
    the screen span y..y+h."""
    if not cursor_like(got):
        return False
    lo, hi = screen[1] - y - h, screen[1] - y
    return abs(got[0] - x) <= CARET_SLACK and got[1] < hi and got[1] + got[3] > lo


def why_not(got, at, screen):
    """Why got is not at the caret `at` ({x, y, h} on the screen)."""
    if got is None:
        return "no area"
    out = []
    if not cursor_like(got):
        out.append(f"not a cursor mark ({got[2]}x{got[3]})")
    if at is not None:
        if abs(got[0] - at["x"]) > CARET_SLACK:
            out.append(f"x off by {got[0] - at['x']:+d} px")
        lo, hi = screen[1] - at["y"] - at["h"], screen[1] - at["y"]
        if not (got[1] < hi and got[1] + got[3] > lo):
            out.append("not on the caret's line")
    return ", ".join(out) or "?"


def rule_mark(where, ref, screen):
    """Where the agent's rule for this case puts the mark (agent space), and whether the check
    is only "inside the field" (the mark's exact place is the agent's business)."""
    if where == "empty":
        # The agent's own arithmetic, done in its bottom-left space on the visible bounds.
        v = to_agent(ref.get("vis") or ref.get("rect"), screen)
        if v is not None:
            return [v[0] + 4, v[1] + v[3] - 20, 1, 17], False
    if where == "after-newline" and ref.get("line_start"):
        return to_agent(ref["line_start"], screen), False
    return to_agent(ref.get("rect"), screen), True


def rule_holds(where, ref, got, screen):
    """The agent's mark is where its own rule for this case puts it; else why not."""
    mark, inside_only = rule_mark(where, ref, screen)
    if mark is None:
        return False, "the reference has no rectangle for the field"
    if where == "secret":
        return (True, "") if close(got, mark) else (False, f"not the field {fmt(mark)}")
    if not cursor_like(got):
        return False, why_not(got, None, screen)
    if inside_only:
        return (True, "") if within(got, mark) else (False, f"outside the field {fmt(mark)}")
    if where == "after-newline":
        held = abs(got[0] - mark[0]) <= CARET_SLACK and got[1] < mark[1] + mark[3] and \
            got[1] + got[3] > mark[1]
    else:
        held = abs(got[0] - mark[0]) <= CARET_SLACK and abs(got[1] - mark[1]) <= CARET_SLACK
    return held, "" if held else f"the rule's mark is at {fmt(mark)}"


def judge_caret(res, label, t_key, events, now, areas, prev_area, screen):
    if not events:
        res.no_event.append(label)
    if not now or now.get("none") or now.get("where") in (None, "no-text"):
        res.no_reference.append(label)
        res.trace.append(f"{label}: no text object with a caret in the reference")
        return
    final = areas[-1] if areas else prev_area
    got = final["rect"] if final else None
    where, at = now["where"], now.get("at")
    if now.get("role") == "password text":
        where, at = "secret", None
    res.tried += 1
    pos = (f"offset {now.get('offset')} of {now.get('count')}"
           + (f", selection {now['sel'][0]}-{now['sel'][1]}"
              if now.get("sel") and now["sel"][0] != now["sel"][1] else ""))
    due = "none" if at is None else f"x {at['x']} y {at['y']} h {at['h']}"
    tail = (f"{now.get('role')} {now.get('name')!r} {pos} [{where}]: caret {due}, got {fmt(got)}"
            f"{'' if areas else ' (nothing new arrived)'}")
    if at is not None and at_caret(got, at["x"], at["y"], at["h"], screen):
        res.matched += 1
        first = len(areas) - 1
        while first > 0 and areas[first - 1]["rect"] == final["rect"]:
            first -= 1
        if areas:
            res.latencies.append((areas[first]["t"] - t_key) * 1000.0)
        res.trace.append(f"{label}: {tail} within {CARET_SLACK} px")
        return
    if where in RULES:
        held, why = rule_holds(where, now, got, screen)
        res.rule += 1
        res.rule_held += held
        verdict = "where the rule puts it" if held else "NOT where the rule puts it: " + why
        res.rules_seen.add(where)
        res.lines.append(f"rule {label}: {verdict}; {tail}")
        res.trace.append(f"{label}: {tail} rule-placed, {verdict}")
        return
    reason = why_not(got, at, screen)
    if where == "prev-edge":
        reason += ("; end of text: the previous character's right edge"
                   if now.get("offset") == now.get("count") else
                   "; no extents at the caret: the previous character's right edge")
    res.lines.append(f"miss {label}: {reason}; {tail}")
    res.trace.append(f"{label}: {tail} MISSED ({reason})")


def caret_report(c):
    if not c.tried and not c.no_reference and not c.notes:
        return []
    out = [f"  text cursor: {c.tried} positions tried, {c.matched} within {CARET_SLACK} px of "
           f"the toolkit's caret, {c.rule} placed by the agent's rules ({c.rule_held} where the "
           f"rule puts them), {c.tried - c.matched - c.rule} missed (reported, not judged)"]
    if c.latencies:
        out.append("  latency key -> cursor mark: p50 %.1f ms, p90 %.1f ms, max %.1f ms" %
                   (statistics.median(c.latencies), percentile(c.latencies, 90),
                    max(c.latencies)))
    if c.no_event:
        out.append(f"  keys the toolkit sent no caret event for: {', '.join(c.no_event)}")
    if c.no_reference:
        out.append(f"  no text object with a caret in the reference: {', '.join(c.no_reference)}")
    out += [f"  NOTE {n}" for n in c.notes]
    out += [f"  rule [{w}]: {RULES[w]}" for w in RULES if w in c.rules_seen]
    out += ["  " + line for line in c.lines]
    return out


def report_lines(judge, seconds, screen):
    out = [f"Real applications: focus areas at the visor against the toolkits' own rectangles "
           f"(screen {screen[0]}x{screen[1]}, {seconds:.0f} s in all)", ""]
    for name in judge.order:
        r = judge.apps[name]
        if r.skipped:
            out.append(f"{name}: SKIPPED ({r.skipped})")
            out.append("")
            continue
        if not r.judged:
            out.append(f"{name} [{r.toolkit}]: reported")
            out += caret_report(r.caret)
            out.append(f"  agent's main loop held > 100 ms: {len(r.stalls)} times"
                       + (f", longest {max(r.stalls)} ms" if r.stalls else ""))
            out += [f"  BROKEN: {b}" for b in r.broken] + [""]
            continue
        pct = 100.0 * r.right / r.tried if r.tried else 0.0
        false_total = sum(r.false.values())
        verdict = "met" if r.met() else "MISSED"
        out.append(f"{name} [{r.toolkit}]: {verdict}")
        out.append(f"  focus changes tried {r.tried}, final area right {r.right} ({pct:.1f} %)"
                   + (f", {r.right_visible} of them as the visible part" if r.right_visible
                      else "")
                   + (f", {r.right_no_caret} of them a page without a caret (no area, by the "
                      "web area tracker's rule)" if r.right_no_caret else ""))
        out.append(f"  false areas in between: {false_total} (all-zero {r.false['all-zero']}, "
                   f"window {r.false['window']}, stale {r.false['stale']})")
        if r.latencies:
            out.append("  latency key -> final area: p50 %.1f ms, p90 %.1f ms, max %.1f ms "
                       "(%d changes)" % (statistics.median(r.latencies),
                                        percentile(r.latencies, 90), max(r.latencies),
                                        len(r.latencies)))
        if r.moves:
            out.append(f"  window moves: {r.moves}, area right after {r.moves_right}")
        out.append(f"  agent's main loop held > 100 ms: {len(r.stalls)} times"
                   + (f", longest {max(r.stalls)} ms" if r.stalls else ""))
        if r.no_change:
            out.append(f"  keys the toolkit announced no focus change for (not counted): "
                       f"{', '.join(r.no_change)}")
        if r.no_reference:
            out.append(f"  no reference focus: {', '.join(r.no_reference)}")
        for b in r.broken:
            out.append(f"  BROKEN: {b}")
        for m in r.mismatches:
            out.append(f"  mismatch {m}")
        for f in r.false_list:
            out.append(f"  false area {f}")
        out += caret_report(r.caret)
        out.append("")
    met = judge.all_met()
    out.append(f"targets (>= {RIGHT_TARGET:.0f} % right, no false area in between, per "
               f"application; focus walks only): {'met' if met else 'MISSED'}")
    return out
