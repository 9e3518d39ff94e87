"""Child processes whose output is read as lines with the (monotonic) time each arrived, and a
pump that waits on all of them with a bound: the driver never sleeps blindly for an event."""

import os
import selectors
import signal
import subprocess
import time


class Child:
    def __init__(self, name, argv, env=None, stdin=False, log=None, new_session=True, cwd=None):
        self.name = name
        self.argv = argv
        self.lines = {"out": [], "err": []}
        self.times = {"out": [], "err": []}
        self._partial = {"out": b"", "err": b""}
        self._log = open(log, "ab") if log else None
        self.proc = subprocess.Popen(
            argv, env=env, cwd=cwd, stdin=subprocess.PIPE if stdin else subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=new_session)
        self.pid = self.proc.pid
        for s in (self.proc.stdout, self.proc.stderr):
            os.set_blocking(s.fileno(), False)

    def send(self, line):
        try:
            self.proc.stdin.write((line + "\n").encode())
            self.proc.stdin.flush()
        except (BrokenPipeError, ValueError, AttributeError):
            pass

    def running(self):
        return self.proc.poll() is None

    def _read(self, which):
        stream = self.proc.stdout if which == "out" else self.proc.stderr
        try:
            data = stream.read()
        except (BlockingIOError, ValueError):
            return False
        if not data:
            return False
        if self._log:
            self._log.write(data)
            self._log.flush()
        now = time.monotonic()
        buf = self._partial[which] + data
        *done, rest = buf.split(b"\n")
        self._partial[which] = rest
        for line in done:
            self.lines[which].append(line.decode("utf-8", "replace"))
            self.times[which].append(now)
        return True

    def stop(self, grace=3.0):
        """SIGTERM to its process group (its own session), then SIGKILL after `grace` seconds."""
        if self.proc.poll() is None:
            for sig in (signal.SIGCONT, signal.SIGTERM):
                try:
                    os.killpg(self.pid, sig)
                except (ProcessLookupError, PermissionError):
                    pass
            try:
                self.proc.wait(grace)
            except subprocess.TimeoutExpired:
                pass
        # Whatever is left of the group (helpers it started) goes too.
        try:
            os.killpg(self.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass
        try:
            self.proc.wait(2)
        except subprocess.TimeoutExpired:
            pass
        if self._log:
            self._log.close()
            self._log = None


class Pump:
    """Reads every child's output until a condition holds or a bound passes."""

    def __init__(self):
        self.children = []

    def add(self, child):
        self.children.append(child)
        return child

    def remove(self, child):
        if child in self.children:
            self.children.remove(child)

    def drain(self):
        for c in self.children:
            c._read("out")
            c._read("err")

    def wait(self, cond, seconds):
        deadline = time.monotonic() + seconds
        while True:
            self.drain()
            if cond():
                return True
            left = deadline - time.monotonic()
            if left <= 0:
                return False
            sel = selectors.DefaultSelector()
            for c in self.children:
                for s in (c.proc.stdout, c.proc.stderr):
                    if not s.closed:
                        try:
                            sel.register(s, selectors.EVENT_READ)
                        except (ValueError, KeyError):
                            pass
            # Conditions on the X server or a child's end are not pipe events: look again often.
            sel.select(min(left, 0.05))
            sel.close()


def run_tool(argv, seconds=10, env=None):
    """Runs a helper (xdotool) to its end; its exit status, or -1 when it did not end in time."""
    try:
        return subprocess.run(argv, env=env, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=seconds).returncode
    except (subprocess.TimeoutExpired, OSError):
        return -1
