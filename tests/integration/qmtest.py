"""Shared helpers of the integration drivers.

Each driver is run by ctest as `python3 test_x.py build/<arch>/integration.json`
and runs programs of that build's architecture, with or without the agent,
through the build's runner (which hides whether qemu is in the way)."""

import json
import os
import re
import subprocess
import sys
import unittest

CONFIG = {}
if len(sys.argv) > 1 and sys.argv[1].endswith(".json"):
    with open(sys.argv[1]) as _f:
        CONFIG.update(json.load(_f))


def config():
    return CONFIG


def is_64():
    return CONFIG["arch"] == "x86_64"


def target(name):
    return os.path.join(CONFIG["targets"], name)


def run(argv, preload=True, env=None, extra_preload=(), timeout=300, input=None, cwd=None):
    """Runs argv under the agent (unless preload is False); returns the
    CompletedProcess with text stdout and stderr."""
    cmd = [CONFIG["runner"]]
    libs = ([CONFIG["lib"]] if preload else []) + list(extra_preload)
    if libs:
        cmd += ["--preload", ":".join(libs)]
    for k, v in (env or {}).items():
        cmd += ["--env", f"{k}={v}"]
    cmd += ["--"] + list(argv)
    return subprocess.run(cmd, capture_output=True, text=True, timeout=timeout, input=input, cwd=cwd,
                          errors="replace")


def run_host(argv, env=None, timeout=600, input=None, cwd=None):
    """Runs a host (x86-64) program with the 64-bit agent preloaded through
    the environment, as a user would."""
    e = dict(os.environ)
    e.update(env or {})
    e["LD_PRELOAD"] = CONFIG["lib"]
    return subprocess.run(argv, capture_output=True, text=True, timeout=timeout, input=input, cwd=cwd,
                          env=e, errors="replace")


def gdb(script, argv):
    """Runs argv under gdb with the given command lines; returns the
    CompletedProcess."""
    import shutil
    import tempfile
    d = tempfile.mkdtemp()
    try:
        path = os.path.join(d, "commands")
        with open(path, "w") as f:
            f.write("\n".join(script))
        return subprocess.run(["gdb", "-batch", "-nx", "-x", path, "--args"] + list(argv),
                              capture_output=True, text=True, timeout=120)
    finally:
        shutil.rmtree(d)


def gdb_at_event(event, settings, commands, argv):
    """Runs argv under gdb with the agent preloaded and the given QMHEAP_ARGS,
    stops at the breakpoint function until the event named (an enumerator of
    QM_HEAP_event_e) is being raised, lets the notification finish, then runs
    the commands; returns the CompletedProcess."""
    script = ["set startup-with-shell off", "set breakpoint pending on",
              "set environment LD_PRELOAD=%s" % CONFIG["lib"],
              "set environment QMHEAP_CONFIG_FILE=", "set environment QMHEAP_ARGS=%s" % settings,
              "break QM_HEAP_notify_breakpoint_here", "run",
              "while event->event != %s" % event, "continue", "end",
              "finish"] + list(commands) + ["kill", ""]
    return gdb(script, argv)


# The agent's start-up and shut-down lines at verbosity 2, which every run prints.
FRAME = ("QM_HEAP:  STARTING", "QM_HEAP:  QM distribution", "QM_HEAP:  FINISHING",
         "QM_HEAP:               : finished processing startup configuration",
         "QM_HEAP:  finalizer    : process termination", "QM_HEAP:  DEEPBIND (or equivalent) ")


def without_frame(text):
    """text less the start-up and shut-down lines (and the emulator's note
    of a fatal signal)."""
    return "".join(l for l in text.splitlines(True) if not l.startswith(FRAME) and not l.startswith("qemu: uncaught"))


# The exit-time allocation list (display_allocations_on_exit): its lines are
# the agent's own report, not events.
_DUMP_LINES = (re.compile(r"^QM_HEAP:  remaining allocated blocks$"),
               re.compile(r"^QM_HEAP:  ALLOCATION TABLE --- (START|END)$"),
               re.compile(r"^QM_HEAP:  +[0-9a-f]+ +\d+$"),
               re.compile(r"^QM_HEAP:  +\d+ +(calloc|free|malloc|realloc|valloc|memalign) \( +\d+ errors\)$"),
               re.compile(r"^QM_HEAP:  number of outstanding allocations: +\d+$"),
               # The reachability scan's report (reachability_scan_on_exit and
               # the scans on demand), lost blocks by stack.
               re.compile(r"^QM_HEAP:  reachability : "),
               re.compile(r"^QM_HEAP:  (definitely lost|interior): "),
               re.compile(r"^QM_HEAP:        (#\d|\.\.\. |\(no backtrace)"))

# The environment of a run whose every event goes to the console.
VERBOSE = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2"}


def exit_dump(text):
    """The exit-time allocation list in text: (blocks as (address, length)
    pairs, {function: (operations, errors)}, outstanding allocations)."""
    lines = text.splitlines()
    start = lines.index("QM_HEAP:  ALLOCATION TABLE --- START")
    end = lines.index("QM_HEAP:  ALLOCATION TABLE --- END")
    blocks = [(int(a, 16), int(n)) for a, n in (l.split()[1:] for l in lines[start + 1:end])]
    counts = {}
    for l in lines[end + 1:end + 7]:
        m = re.match(r"^QM_HEAP:  +(\d+) +(\w+) \( +(\d+) errors\)$", l)
        counts[m.group(2)] = (int(m.group(1)), int(m.group(3)))
    outstanding = int(lines[end + 7].split()[-1])
    return blocks, counts, outstanding


def assert_no_events(text):
    """Fails when the agent said anything in text (a run's standard error at
    verbosity 2) beyond its start-up and shut-down lines and the exit-time
    allocation list: a correct program has no heap event, and every report
    of one would be false. Agent lines are found anywhere in a line, since
    processes sharing one standard error may interleave their output."""
    bad = []
    for n, l in enumerate(text.splitlines()):
        if "QM_HEAP:" not in l and "QM:" not in l:
            continue
        if l.count("QM_HEAP:") == 1 and "QM:" not in l and \
                (l.startswith(FRAME) or any(r.match(l) for r in _DUMP_LINES)):
            continue
        bad.append("%d: %s" % (n + 1, l))
    if bad:
        shown = "\n".join(bad[:40]) + ("\n... %d more" % (len(bad) - 40) if len(bad) > 40 else "")
        raise AssertionError("the agent reported events (or failed) in a correct program:\n" + shown)


def main():
    if len(sys.argv) < 2:
        print("usage: %s integration.json" % sys.argv[0], file=sys.stderr)
        sys.exit(2)
    runner = unittest.TextTestRunner(verbosity=2)
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])
    if len(sys.argv) > 2:  # optional name filter
        suite = unittest.TestSuite(t for s in suite for t in s if any(f in t.id() for f in sys.argv[2:]))
    result = runner.run(suite)
    if not result.wasSuccessful():
        sys.exit(1)
    if result.testsRun > 0 and len(result.skipped) == result.testsRun:
        sys.exit(77)
    sys.exit(0)
