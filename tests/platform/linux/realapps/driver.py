"""Drives real applications with keys and holds the agent's focus areas against the toolkits'
own rectangles, and its text cursor marks against their carets. Started by run.sh inside the
desktop session; see run.sh for what it measures.

    /usr/bin/python3 driver.py BUILD_DIR [--report-only] [--trace] [--out FILE] [--keep DIR]
                               [--shots DIR] [APP...]
"""

import argparse
import json
import os
import re
import shutil
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import apps as appdefs  # noqa: E402
from compare import Judge, report_lines  # noqa: E402
from procs import Child, Pump, run_tool  # noqa: E402
from xwin import XServer  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
PATIENCE = 5.0          # bound on anything the desktop should do at once
FOCUS_BOUND = 3.0       # bound on the wait for the toolkit to announce a focus after a key
QUIET = 0.3             # the toolkit has said nothing for this long: its focus change is over
SETTLE = 0.3            # then this long for the agent
STEP_BOUND = 4.0        # bound on one change's announcements
CARET_BOUND = 1.5       # bound on the wait for the toolkit's caret event after a key
AWAIT_BOUND = 15.0      # bound on the wait for an application's text (a shell's prompt)


class Session:
    def __init__(self, build, workdir):
        self.build = build
        self.work = workdir
        self.pump = Pump()
        self.xs = XServer()
        root = self.xs.geometry(self.xs.root)
        self.screen = (root[2], root[3])
        self.visor = self.agent = self.ref = None
        self.ref_seen = 0
        self.shots = None

    # --- the three companions ---

    def start_visor(self):
        exe = os.path.join(self.build, "tools", "ocuvane-visor", "ocuvane-visor")
        self.visor = self.pump.add(Child("visor", [exe, "--port", "0", "--json", "--no-input"],
                                         log=os.path.join(self.work, "visor.log")))
        if not self.pump.wait(lambda: self.visor_port() is not None, PATIENCE):
            raise RuntimeError("the visor did not say where it listens")

    def visor_port(self):
        for line in self.visor.lines["err"]:
            at = line.find("listening on 127.0.0.1:")
            if at >= 0:
                return line[at + 23:].strip()
        return None

    def start_agent(self):
        exe = os.path.join(self.build, "ocuvane-agent")
        self.agent = self.pump.add(Child(
            "agent", [exe, "--desktop=linux", "--magnifier-port", self.visor_port(),
                      "--print-focus", "--verbosity", "3", "--report-stalls", "100"],
            log=os.path.join(self.work, "agent.log")))
        connected = lambda: any("Established connection" in l  # noqa: E731
                                for l in self.agent.lines["err"])
        if not self.pump.wait(connected, PATIENCE):
            raise RuntimeError("the agent did not connect to the visor:\n" +
                               "\n".join(self.agent.lines["err"][-20:]))

    def start_reader(self):
        self.ref = self.pump.add(Child(
            "ref", ["/usr/bin/python3", os.path.join(HERE, "refreader.py")], stdin=True,
            log=os.path.join(self.work, "reference.log")))
        if not self.pump.wait(lambda: any('"ready"' in l for l in self.ref.lines["out"]),
                              PATIENCE * 2):
            raise RuntimeError("the reference reader did not start:\n" +
                               "\n".join(self.ref.lines["err"][-20:]))

    def stop(self):
        for c in (self.agent, self.visor):
            if c is not None:
                c.stop()
        if self.ref is not None:
            self.ref.send("quit")
            self.ref.stop()

    # --- what they said ---

    def ref_records(self, start=0):
        out = []
        for line, t in zip(self.ref.lines["out"][start:], self.ref.times["out"][start:]):
            try:
                d = json.loads(line)
            except ValueError:
                continue
            d["arrived"] = t
            out.append(d)
        return out

    def areas(self, start=0):
        out = []
        for line, t in zip(self.visor.lines["out"][start:], self.visor.times["out"][start:]):
            try:
                d = json.loads(line)
            except ValueError:
                continue
            if d.get("type") == "focusArea":
                out.append({"rect": [d["x"], d["y"], d["width"], d["height"]], "t": t,
                            "edge": [d.get("edgeX"), d.get("edgeY")], "source": d.get("source")})
        return out

    def ref_now(self, cmd="now"):
        """The reader's answer to "now": the last focus (or the one found by search) as it is;
        to "caret": the focused text object's cursor as it is."""
        before = len(self.ref.lines["out"])
        self.ref.send(cmd)
        kind = "now" if cmd == "now" else "caret-now"
        got = []

        def answered():
            got[:] = [d for d in self.ref_records(before) if d.get("kind") == kind]
            return bool(got)
        self.pump.wait(answered, PATIENCE)
        return got[0] if got else None

    # --- the X side ---

    def xdo(self, *args):
        return run_tool(["xdotool", *args], PATIENCE)

    def client_windows(self, pids):
        return [w for w in self.xs.clients() if self.xs.pid(w) in pids]


def process_tree(pid):
    """pid and its descendants (an application may show its windows from a child process)."""
    out, todo = [pid], [pid]
    while todo:
        p = todo.pop()
        try:
            with open(f"/proc/{p}/task/{p}/children") as f:
                kids = [int(k) for k in f.read().split()]
        except OSError:
            kids = []
        out += kids
        todo += kids
    return set(out)


def run_app(s, app, judge, log):
    """Starts one application, places its window, plays its steps, stops it."""
    if not app.judged:
        judge.reported_only(app.name)
    missing = app.missing()
    if missing:
        log(f"SKIP {app.name}: {missing}")
        judge.skip(app.name, missing)
        return
    env = dict(os.environ, **app.env(s.work))
    agent_mark = len(s.agent.lines["err"])
    child = s.pump.add(Child(app.name, app.argv(s.work), env=env,
                             log=os.path.join(s.work, f"{app.name}.log")))
    try:
        win = []

        def shown():
            win[:] = s.client_windows(process_tree(child.pid))
            return bool(win) or not child.running()
        if not s.pump.wait(shown, app.start_bound) or not win:
            log(f"FAIL {app.name}: no window within {app.start_bound:.0f} s"
                + ("" if child.running() else " (it ended)"))
            judge.broken(app.name, "its window did not show")
            return
        # The toolkit registers on the accessibility bus and sets its first focus after mapping
        # (not every toolkit announces that first focus: bounded).
        s.pump.wait(lambda: any(d.get("pid") in process_tree(child.pid)
                                for d in s.ref_records(s.ref_seen)), 10)
        place(s, win[0], 150, 110)
        for number, step in enumerate(app.steps, 1):
            if not child.running():
                judge.broken(app.name, "the application ended")
                break
            play_step(s, step, judge, app.name, number)
            if s.agent is None or not s.agent.running():
                judge.broken(app.name, "the agent ended")
                log(f"the agent ended during {app.name}; started again")
                s.pump.remove(s.agent)
                s.start_agent()
        judge.stalls(app.name, stalls(s.agent.lines["err"][agent_mark:]))
    finally:
        pids = process_tree(child.pid)
        child.stop()
        s.pump.remove(child)
        # Its windows gone before the next application starts.
        s.pump.wait(lambda: not s.client_windows(pids), PATIENCE)


def stalls(lines):
    """The agent's reports of its main loop held longer than 100 ms, in ms."""
    out = []
    for line in lines:
        m = re.search(r"main loop stalled for (\d+) ms", line)
        if m:
            out.append(int(m.group(1)))
    return out


def place(s, xwin, x, y):
    """Makes the window fit on the screen at (x, y), moves it there and activates it."""
    g = s.xs.geometry(xwin)
    if g is not None:
        w, h = min(g[2], s.screen[0] - x - 40), min(g[3], s.screen[1] - y - 40)
        if (w, h) != (g[2], g[3]):
            s.xdo("windowsize", "--sync", str(xwin), str(w), str(h))
    s.xdo("windowmove", "--sync", str(xwin), str(x), str(y))
    s.xdo("windowactivate", "--sync", str(xwin))
    s.pump.wait(lambda: s.xs.active_window() == xwin, PATIENCE)
    # Whatever placing the window set off is over before the first key.
    settle_reference(s, time.monotonic())


def settle_reference(s, since):
    """Waits until the reader has heard nothing for QUIET seconds (bounded), then SETTLE more."""
    last = [since]

    def quiet():
        recs = s.ref_records(s.ref_seen)
        if recs:
            last[0] = max(last[0], recs[-1]["arrived"])
        return time.monotonic() - last[0] >= QUIET
    s.pump.wait(quiet, STEP_BOUND)
    s.pump.wait(lambda: False, SETTLE)


def play_step(s, step, judge, app_name, number):
    ref_mark = len(s.ref.lines["out"])
    if step.kind == "press":
        # Setting up, not measured: the announcements it sets off are let pass.
        s.xdo("key", step.arg)
        settle_reference(s, time.monotonic())
        s.ref_seen = len(s.ref.lines["out"])
        return
    if step.kind in ("caret", "type"):
        play_caret_step(s, step, judge, app_name, ref_mark)
        return
    if step.kind == "await":
        if not await_caret_line(s, step.arg, AWAIT_BOUND):
            judge.caret_note(app_name, f"{step.label}: not seen within {AWAIT_BOUND:.0f} s")
        s.ref_seen = len(s.ref.lines["out"])
        return
    if step.kind == "move":
        target = s.xs.active_window()
        t_key = time.monotonic()
        s.xdo("windowmove", "--sync", str(target), str(step.arg[0]), str(step.arg[1]))
    else:
        t_key = time.monotonic()
        s.xdo("key", step.arg)
    # The toolkit's announcement of the new focus (bounded), then quiet, then the agent's time.
    s.pump.wait(lambda: any(d.get("kind") == "focus" for d in s.ref_records(ref_mark)),
                FOCUS_BOUND if step.kind == "key" else 0.3)
    settle_reference(s, time.monotonic())
    now = s.ref_now()
    t_end = time.monotonic()
    s.pump.drain()
    events = [d for d in s.ref_records(ref_mark) if d.get("kind") == "focus"]
    all_areas = s.areas()
    step_areas = [a for a in all_areas if t_key < a["t"] <= t_end]
    before = [a for a in all_areas if a["t"] <= t_key]
    prev = before[-1] if before else None
    judge.step(app_name, step, t_key, events, now, step_areas, prev, s.screen)
    final = step_areas[-1] if step_areas else prev
    s.ref_seen = len(s.ref.lines["out"])
    if s.shots and now and now.get("rect"):
        shoot(s, os.path.join(s.shots, f"{app_name}-{number:02d}.png"), now["rect"],
              final["rect"] if final else None)


def await_caret_line(s, pattern, bound):
    """Asks the reader for the caret's line again after each caret event until it matches."""
    deadline = time.monotonic() + bound
    while True:
        mark = len(s.ref.lines["out"])
        now = s.ref_now("caret")
        if now and re.search(pattern, (now.get("line_text") or "").rstrip("\n")):
            return True
        left = deadline - time.monotonic()
        if left <= 0:
            return False
        # The events after the answer: those before it are in it.
        recs = s.ref_records(mark)
        after = next((i + 1 for i, d in enumerate(recs) if d.get("kind") == "caret-now"),
                     len(recs))
        s.pump.wait(lambda: any(d.get("kind") == "caret"
                                for d in s.ref_records(mark)[after:]), min(left, 1.0))


def play_caret_step(s, step, judge, app_name, ref_mark):
    """A key (or typed text) that moves the text cursor: the toolkit's caret event (bounded: a
    key that moves nothing, End at the end, sends none), quiet, then the cursor as it is."""
    t_key = time.monotonic()
    if step.kind == "type":
        s.xdo("type", "--delay", "30", step.arg)
    else:
        s.xdo("key", step.arg)
    s.pump.wait(lambda: any(d.get("kind") == "caret" for d in s.ref_records(ref_mark)),
                CARET_BOUND)
    settle_reference(s, time.monotonic())
    now = s.ref_now("caret")
    t_end = time.monotonic()
    s.pump.drain()
    events = [d for d in s.ref_records(ref_mark) if d.get("kind") == "caret"]
    all_areas = s.areas()
    step_areas = [a for a in all_areas if t_key < a["t"] <= t_end]
    before = [a for a in all_areas if a["t"] <= t_key]
    judge.caret(app_name, step, t_key, events, now, step_areas,
                before[-1] if before else None, s.screen)
    s.ref_seen = len(s.ref.lines["out"])


def shoot(s, path, due, area):
    """A screenshot around the reference rectangle (red) and the agent's final area (blue)."""
    rects = [due]
    outlines = [",".join(map(str, due)) + ":red"]
    if area and area[2] > 0 and area[3] > 0:
        on_screen = [area[0], s.screen[1] - area[1] - area[3], area[2], area[3]]
        rects.append(on_screen)
        outlines.append(",".join(map(str, on_screen)) + ":blue")
    x0 = min(r[0] for r in rects) - 80
    y0 = min(r[1] for r in rects) - 80
    x1 = max(r[0] + r[2] for r in rects) + 80
    y1 = max(r[1] + r[3] for r in rects) + 80
    run_tool(["/usr/bin/python3", os.path.join(HERE, "shot.py"), path, *outlines, "--crop",
              f"{x0},{y0},{x1 - x0},{y1 - y0}"], PATIENCE)


def main(argv):
    ap = argparse.ArgumentParser(description=__doc__)
    ap.add_argument("build")
    ap.add_argument("apps", nargs="*")
    ap.add_argument("--report-only", action="store_true")
    ap.add_argument("--out", default=None)
    ap.add_argument("--trace", action="store_true", help="print every step's outcome")
    ap.add_argument("--keep", default=None, help="keep the logs in this directory")
    ap.add_argument("--shots", default=None,
                    help="a screenshot per change in this directory: reference red, area blue")
    args = ap.parse_intermixed_args(argv[1:])

    chosen = appdefs.select(args.apps)
    if chosen is None:
        print("unknown application; known: " + ", ".join(a.name for a in appdefs.APPS),
              file=sys.stderr)
        return 2
    for exe in ("ocuvane-agent", "tools/ocuvane-visor/ocuvane-visor"):
        if not os.access(os.path.join(args.build, exe), os.X_OK):
            print(f"{os.path.join(args.build, exe)} is missing: build it first", file=sys.stderr)
            return 2
    if shutil.which("xdotool") is None:
        print("xdotool is missing (package xdotool)", file=sys.stderr)
        return 2
    work = args.keep or tempfile.mkdtemp(prefix="orv-realapps.")
    os.makedirs(work, exist_ok=True)
    out = args.out or os.path.join(work, "report.txt")
    started = time.monotonic()

    def log(msg):
        print(f"realapps: {msg}", file=sys.stderr, flush=True)

    s = Session(args.build, work)
    if args.shots:
        os.makedirs(args.shots, exist_ok=True)
        s.shots = args.shots
    judge = Judge()
    try:
        s.start_visor()
        s.start_reader()
        s.start_agent()
        for app in chosen:
            t0 = time.monotonic()
            log(f"{app.name} ...")
            run_app(s, app, judge, log)
            log(f"{app.name} done in {time.monotonic() - t0:.1f} s")
            r = judge.apps.get(app.name)
            with open(os.path.join(work, f"{app.name}.steps"), "w") as f:
                for line in (r.trace if r else []):
                    f.write(line + "\n")
                    if args.trace:
                        log("  " + line)
    finally:
        s.stop()
    lines = report_lines(judge, time.monotonic() - started, s.screen)
    text = "\n".join(lines) + "\n"
    sys.stdout.write(text)
    with open(out, "w") as f:
        f.write(text)
    log(f"report written to {out}; logs in {work}")
    if args.report_only:
        return 0
    return 0 if judge.all_met() else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
