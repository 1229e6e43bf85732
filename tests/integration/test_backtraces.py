"""Call stacks of heap operations. Every block and released range the agent
records carries the identifier of a call stack in its backtrace table. The
programs here read the table from inside (through libqmbtread, which reads it
as a tool does, with the layout of include/qmheap), a debugger reads it, and
libqmbtdump writes it out at exit for comparing runs. They check that the
first frame kept is the program's own call of the heap function, that depth
and trim are honoured, that both ways of walking the stack find the same
frames, that capture stays safe and correct with threads, forks, signal
handlers, libraries loaded and unloaded, and C++ exceptions, and that the
agent's _Unwind_Find_FDE answers as the unwinder's own, cached or not.
Every program here is correct: at verbosity 2 the agent may print nothing but
its start-up and shut-down lines."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

import qmtest
from qmtest import VERBOSE, assert_no_events, config, is_64, run, target

EMULATED = bool(config()["emulated"])


def lib(name):
    return os.path.join(config()["targets"], name)


def settings(extra=""):
    """The environment of a verbose run with the given agent settings."""
    return {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": ("verbosity=2 " + extra).strip()}


class TableChecks:
    """Runs a program that checks the table from inside (bt_sites,
    bt_sites_cxx): every check must pass, the summary must count them all,
    and no event may be raised. Returns the names of the checks."""

    def run_checks(self, program, args=(), extra="", env=None):
        r = run([target(program)] + list(args), env=dict(settings(extra), **(env or {})))
        results = dict(re.findall(r"^check (\S+) (ok|FAIL.*)$", r.stdout, re.M))
        failed = {name: why for name, why in results.items() if why != "ok"}
        self.assertEqual(failed, {}, "%s %s (%s)" % (program, " ".join(args), extra))
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr[-3000:])
        self.assertIn("%s: %d checks, 0 failed\n" % (program, len(results)), r.stdout)
        assert_no_events(r.stderr)
        return set(results)


# The blocks bt_sites makes, each checked for its own stack and that of its
# first allocation; the released ranges; and the checks of the whole table.
BLOCKS = ["malloc", "calloc", "realloc-null", "memalign", "posix_memalign", "valloc", "strdup", "realloc-move",
          "realloc-shrink"]
RELEASES = ["realloc-move.release", "realloc-shrink.tail", "free"]
SITE_CHECKS = set(BLOCKS) | {b + ".org" for b in BLOCKS} | set(RELEASES)
TABLE_CHECKS = {"same-site-same-id", "new-stack-next-id", "table"}


class FirstFrame(TableChecks, unittest.TestCase):
    def test_every_heap_function_records_its_callers_frame_first(self):
        # malloc, calloc, realloc (from null, moving a block, shrinking one in
        # place), memalign, posix_memalign, valloc and strdup (one to three
        # frames of the C library first), each called from a site_* function;
        # released ranges of free and of the resizes; the first allocation's
        # stack kept across a move; one identifier per stack, the next
        # identifier for a new one; no first frame anywhere in the agent.
        self.assertEqual(self.run_checks("bt_sites"), SITE_CHECKS | TABLE_CHECKS)

    def test_cxx_new_delete_and_exceptions_record_their_callers(self):
        # new, new[], nothrow new and a thrown exception's object start in
        # the C++ library and go on in their site; delete and delete[] (which
        # the library may pass straight on to free) name their site next.
        self.assertEqual(self.run_checks("bt_sites_cxx"),
                         {"new", "new[]", "new-nothrow", "delete", "delete[]", "exception", "table"})

    @unittest.skipUnless(is_64() and os.path.exists("/usr/bin/python3"), "needs the host's 64-bit python3")
    def test_python_records_its_own_allocator_calls(self):
        # The python binary has no symbols beyond its dynamic ones, so its
        # frames are judged by what precedes them: no first frame lies in the
        # agent, and some follow a direct call through python's PLT to the
        # agent's malloc and free (with a trim that kept one agent frame there
        # would be none of those; with one too many, the first frame would
        # follow a call into python itself).
        code = ("import json, re, decimal\n"
                "d = {str(i): [i] * 3 for i in range(3000)}\n"
                "s = json.dumps(d)\n"
                "assert json.loads(s) == d\n"
                "print(len(re.findall(r'\\[(\\d+)', s)), decimal.Decimal(1) / 7)\n")
        d = tempfile.mkdtemp()
        try:
            dump = os.path.join(d, "table")
            env = dict(os.environ, PYTHONMALLOC="malloc", QMBT_DUMP=dump, **VERBOSE)
            env["LD_PRELOAD"] = "%s:%s" % (config()["lib"], lib("libqmbtdump.so"))
            r = subprocess.run(["/usr/bin/python3", "-S", "-c", code], env=env, capture_output=True, text=True,
                               timeout=300)
            self.assertEqual((r.returncode, r.stdout), (0, "3000 0.1428571428571428571428571429\n"), r.stderr[-3000:])
            assert_no_events(r.stderr)
            with open(dump) as f:
                header = dict(l.rsplit(" ", 1) for l in f.read().splitlines()[:10])
        finally:
            shutil.rmtree(d)
        self.assertEqual(header["captured at start"], "yes")
        self.assertGreater(int(header["stacks"]), 1000)
        self.assertEqual(header["in-agent"], "0", header)
        self.assertGreater(int(header["after-plt-call malloc"]), 0, header)
        self.assertGreater(int(header["after-plt-call free"]), 0, header)


class DepthAndTrim(TableChecks, unittest.TestCase):
    def test_depth_below_one_turns_capture_off(self):
        # From the settings, or written into the agent's variable: the table
        # stays empty and every record carries 0.
        empty_checks = SITE_CHECKS | {"table-empty"}
        self.assertEqual(self.run_checks("bt_sites", ["empty"], "backtrace_depth=0"), empty_checks)
        self.assertEqual(self.run_checks("bt_sites", ["empty", "set-depth=-1"]), empty_checks)

    def test_depth_bounds_every_stored_stack(self):
        # Every stored stack holds at most three counters, each one made by
        # the sites exactly three (the site, main, the C library's caller).
        self.assertEqual(self.run_checks("bt_sites", [], "backtrace_depth=3"), SITE_CHECKS | TABLE_CHECKS)

    def test_trim_drops_exactly_the_agents_frames(self):
        # The default trim of 5 drops the agent's five frames for every heap
        # function; a smaller one keeps the rest of them, and the caller
        # follows; a negative one (a debugger can write it) counts as 0.
        self.assertEqual(self.run_checks("bt_sites", ["agent-frames=5"], "backtrace_trim=0"),
                         SITE_CHECKS | TABLE_CHECKS)
        self.assertEqual(self.run_checks("bt_sites", ["agent-frames=3"], "backtrace_trim=2"),
                         SITE_CHECKS | TABLE_CHECKS)
        self.assertEqual(self.run_checks("bt_sites", ["agent-frames=5", "set-trim=-3"]), SITE_CHECKS | TABLE_CHECKS)

    def test_a_deep_stack_keeps_exactly_the_depth_asked_for(self):
        # 5000 levels of recursion, then malloc, with a depth of 1000: the
        # stack holds 1000 counters, the leaf's and 999 of the recursion.
        self.assertEqual(self.run_checks("bt_sites", ["deep=5000"], "backtrace_depth=1000"),
                         {"deep.count", "deep.frames", "table"})

    def test_the_debugging_dump_prints_stacks_that_fit_its_64_counters(self):
        # It copies the stack into a static buffer of 64 counters first: a
        # deeper stack is an error, reported as such.
        for depth, text in ((40, "dumpings 40 pcs for backtrace\n"), (100, "error getting backtrace ")):
            r = run([target("bt_sites"), "deep=200", "dump"], env=settings("backtrace_depth=%d" % depth))
            self.assertIn("check deep.dump ok\n", r.stdout, r.stderr[-3000:])
            self.assertIn(text, r.stderr)
            self.assertEqual(r.returncode, 0, r.stdout)


class BothWalks(unittest.TestCase):
    """The agent walks stacks by its step cache and falls back to the C
    library's backtrace; QMHEAP_NO_FAST_UNWIND makes it always use the
    latter. Both must find the same frames: programs that do the same on
    every run must leave the same table, stack by stack."""

    def dump(self, argv, fast):
        d = tempfile.mkdtemp()
        try:
            path = os.path.join(d, "table")
            # libqmbtdump renames either variable (same length) so that the
            # program sees the same environment in both runs.
            switch = "QMHEAP_NO_FAST_UNWINX" if fast else "QMHEAP_NO_FAST_UNWIND"
            r = run([target(argv[0])] + argv[1:], env=dict(VERBOSE, QMBT_DUMP=path, **{switch: "1"}),
                    extra_preload=[lib("libqmbtdump.so")])
            self.assertEqual(r.returncode, 0, r.stdout + r.stderr[-3000:])
            assert_no_events(r.stderr)
            with open(path) as f:
                text = f.read()
        finally:
            shutil.rmtree(d)
        self.assertIn("captured at start yes\n", text)
        return r.stdout, text

    def test_both_walks_find_the_same_stacks(self):
        for argv in (["bt_workload"], ["bt_sites"], ["bt_sites_cxx"], ["bt_exceptions", "1", "20", "200"]):
            out_fast, fast = self.dump(argv, True)
            out_slow, slow = self.dump(argv, False)
            self.assertEqual(out_fast, out_slow)
            stacks = int(re.search(r"^stacks (\d+)$", fast, re.M).group(1))
            self.assertGreater(stacks, 10, argv)
            if fast != slow:
                a, b = fast.splitlines(), slow.splitlines()
                first = next((i for i, (x, y) in enumerate(zip(a, b)) if x != y), min(len(a), len(b)))
                self.fail("%s: the tables differ from line %d:\nfast: %s\nslow: %s" % (
                    argv[0], first + 1, a[first] if first < len(a) else "-", b[first] if first < len(b) else "-"))

    def test_the_workload_runs_as_without_the_agent(self):
        plain = run([target("bt_workload")], preload=False)
        under = run([target("bt_workload")], env=VERBOSE)
        self.assertEqual((under.returncode, under.stdout), (plain.returncode, plain.stdout))
        self.assertRegex(plain.stdout, r"^bt_workload: \d+ \d+\n$")
        assert_no_events(under.stderr)


class ThreadsForksSignals(unittest.TestCase):
    """bt_threads: four workers allocate through sites of their own while
    the main thread and a worker fork; a thread that never uses the heap
    takes signals whose handler allocates. Children and, at the end, the
    main thread check the stacks of blocks made by the sites, the handler
    and the children (and their threads); every identifier must be in the
    table. A watchdog ends a program that hangs."""

    LINE = r"^bt_threads: (\d+) forks, (some|no) signals, some turns of the signal thread, 0 failures\n$"

    def check(self, args, runs, signals="some", min_forks=0):
        argv = [target("bt_threads")] + [str(a) for a in args]
        plain = run(argv, preload=False, timeout=300)
        self.assertEqual(plain.returncode, 0, plain.stdout + plain.stderr[-3000:])
        self.assertRegex(plain.stdout, self.LINE)
        for attempt in range(runs):
            r = run(argv, env=VERBOSE, timeout=300)
            self.assertEqual(r.returncode, 0, "run %d:\n%s%s" % (attempt, r.stdout, r.stderr[-3000:]))
            m = re.match(self.LINE, r.stdout)
            self.assertIsNotNone(m, r.stdout)
            self.assertEqual(m.group(2), signals)
            self.assertGreaterEqual(int(m.group(1)), min_forks)
            assert_no_events(r.stderr)

    def test_threads_forks_and_an_allocating_signal_handler(self):
        # Under qemu-user the program runs without signals: there a handler
        # that allocates, on a thread outside the heap, makes the 32-bit agent
        # report false double releases, with capture off as well; and the
        # children start no threads, which qemu-user cannot start after a
        # threaded fork.
        if EMULATED:
            self.check([20000, 10, 0, 120, "compute", "none"], 2, signals="no", min_forks=11)
        else:
            self.check([30000, 15, 1, 60, "compute", "timer"], 2, min_forks=16)

    @unittest.skipIf(EMULATED, "qemu-user runs the handler on threads that block the signal (without the agent "
                               "too), so its heap calls interrupt theirs inside the agent")
    def test_an_allocating_handler_interrupts_its_thread_anywhere_in_the_unwinder(self):
        # The handler's captures cross the signal frame (the C library's
        # walk then serves them) while the interrupted thread may hold the
        # FDE cache: its lookups must not wait for it. No forks here (see
        # below); the program with forks passes without the agent.
        argv = [target("bt_threads"), "20000", "100", "1", "60", "walk", "timer"]
        plain = run(argv, preload=False, timeout=300)
        self.assertEqual(plain.returncode, 0, plain.stdout + plain.stderr[-3000:])
        self.check([100000, 0, 1, 60, "walk", "timer"], 2)

    # A thread interrupted inside the FDE cache (holding its lock) whose
    # signal handler allocates needs the backtrace table's lock: a fork must
    # own the cache before it takes the agent's locks, or both would wait for
    # ever (the watchdog ends the program after 8 seconds).
    @unittest.skipIf(EMULATED, "qemu-user runs the handler on threads that block the signal (without the agent "
                               "too), so its heap calls interrupt theirs inside the agent")
    def test_forks_while_an_allocating_handler_interrupts_the_unwinder(self):
        r = run([target("bt_threads"), "20000", "100", "1", "8", "walk", "timer"], env=VERBOSE, timeout=300)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr[-3000:])
        self.assertRegex(r.stdout, self.LINE)
        assert_no_events(r.stderr)


class LibrariesComeAndGo(unittest.TestCase):
    def test_threads_load_and_unload_a_library_while_capturing_through_it(self):
        # Three threads, 300 rounds each: load libqmbtlib, make, resize and
        # free blocks from it, walk the stack from inside it, keep a block
        # past the unload. Then every fresh load (another library taking the
        # place of the last every other time) gives stacks that name the
        # library's function and the program's caller.
        argv = [target("bt_dlopen"), lib("libqmbtlib.so"), "300", "3"]
        expected = "bt_dlopen: 3 threads, 300 rounds each, 0 failures\n"
        plain = run(argv, preload=False)
        self.assertEqual((plain.returncode, plain.stdout), (0, expected), plain.stderr[-3000:])
        for attempt in range(2):
            r = run(argv, env=VERBOSE)
            self.assertEqual((r.returncode, r.stdout), (0, expected), "run %d:\n%s" % (attempt, r.stderr[-3000:]))
            assert_no_events(r.stderr)


class FdeLookup(unittest.TestCase):
    """bt_fde asks the agent's _Unwind_Find_FDE and the unwinder's own about
    every 7th byte of the code of the program, the C library and a loaded
    library, twice over, then about the range of that library once it is
    unloaded and another is loaded in its place."""

    RANGES = ["program.1", "libc.1", "library.1", "program.2", "libc.2", "library.2", "library.range-after-load",
              "other-library"]

    def fde(self, extra_args=(), env=None):
        argv = [target("bt_fde"), lib("libqmbtlib.so"), lib("libqmbtlib2.so")] + list(extra_args)
        r = run(argv, env=dict(VERBOSE, **(env or {})))
        assert_no_events(r.stderr)
        ranges = dict(re.findall(r"^range (\S+): \d+ pcs, .*, (\d+) mismatches$", r.stdout, re.M))
        m = re.search(r"^cached lookups: (\d+) before, (\d+) after$", r.stdout, re.M)
        self.assertIsNotNone(m, r.stdout + r.stderr[-3000:])
        return r, ranges, int(m.group(1)), int(m.group(2))

    def test_answers_are_the_unwinders_own_cached_or_not(self):
        # Without the agent: the definition taken for the unwinder's own is
        # the one the dynamic linker binds (on i386 the C library's copy).
        plain = run([target("bt_fde"), lib("libqmbtlib.so"), lib("libqmbtlib2.so")], preload=False)
        self.assertEqual((plain.returncode, plain.stdout),
                         (0, "bt_fde: without the agent, the unwinder's own is the one bound\n"), plain.stderr)
        # With the cache every lookup is counted; unloading the library
        # empties it, so the other library's answers are fresh.
        r, ranges, before, after = self.fde()
        self.assertEqual(ranges, dict.fromkeys(self.RANGES, "0"), r.stderr[-3000:])
        self.assertEqual(r.returncode, 0)
        self.assertGreater(after, before)
        # Without the cache (the variable set, even empty) nothing is counted.
        r, ranges, before, after = self.fde(env={"QMSTACK_DONT_WANT_UNWIND_FIND_FDE_CACHE": ""})
        self.assertEqual(ranges, dict.fromkeys(self.RANGES, "0"), r.stderr[-3000:])
        self.assertEqual((r.returncode, before, after), (0, 0, 0))

    # The cache keeps the answer "no FDE" for a place where nothing is
    # loaded; once a library is loaded there, the unwinder's answers (the
    # library's FDEs) replace it.
    def test_a_library_loaded_where_the_unwinder_found_nothing_before(self):
        r, ranges, before, after = self.fde(["ask-unloaded"])
        self.assertEqual(ranges, dict.fromkeys(self.RANGES + ["library.unloaded"], "0"), r.stderr[-3000:])


class Exceptions(unittest.TestCase):
    def test_exceptions_through_200_frames_in_threads(self):
        # Four threads throw 50 times each through 200 frames (every 50th
        # catches and rethrows), making blocks on the way: the same output as
        # without the agent, cached FDE lookups or not.
        argv = [target("bt_exceptions"), "4", "50", "200"]
        plain = run(argv, preload=False)
        self.assertEqual(plain.returncode, 0, plain.stderr)
        self.assertTrue(plain.stdout.endswith("bt_exceptions: 200 of 200 caught\n"), plain.stdout)
        for env in ({}, {"QMSTACK_DONT_WANT_UNWIND_FIND_FDE_CACHE": ""}):
            r = run(argv, env=dict(VERBOSE, **env))
            self.assertEqual((r.returncode, r.stdout), (0, plain.stdout), r.stderr[-3000:])
            assert_no_events(r.stderr)


@unittest.skipUnless(config()["native_exec"] and shutil.which("gdb"), "needs gdb on a natively run program")
class Debugger(unittest.TestCase):
    def test_a_double_release_names_its_three_call_sites(self):
        # Stopped at the double release (after the notification function has
        # recorded it), the debugger turns the identifiers of the second
        # release, of the first (the released range's record) and of the
        # allocation (kept in that record) into first frames by walking the
        # table in expressions: they are the program's three sites. The
        # agent's own dump of the second release's stack agrees.
        commands = [
            "define frame0",
            "  set $t = &QM_HEAP_backtrace_table",
            "  set $per = $t->info_table.units_per_chunk",
            "  set $info = ((stack_backtrace_info_t*)$t->info_table.table[$arg0 / $per]) + ($arg0 % $per)",
            "  set $pc = ((void**)$t->pcs_table.table[$info->pcs_chunk_no])[$info->pcs_chunk_offset]",
            "  printf \"frame0 %s %d %lx \", \"$arg1\", $arg0, $pc",
            "  info symbol $pc",
            "end",
            "printf \"event %d\\n\", QM_HEAP_event.event",
            "frame0 QM_HEAP_event_op_backtrace_id operation",
            "frame0 QM_HEAP_event.allocation_record.backtrace_id release",
            "frame0 QM_HEAP_event.allocation_record.org_backtrace_id allocation",
            "call (int)QM_HEAP_debug_dump_backtrace(QM_HEAP_event_op_backtrace_id)"]
        r = qmtest.gdb_at_event("qm_heap_event_double_dealloc", "verbosity=2", commands, [target("bt_double_free")])
        self.assertIn("event 20\n", r.stdout, r.stdout + r.stderr)
        frames = {m[0]: (int(m[1]), int(m[2], 16), m[3])
                  for m in re.findall(r"^frame0 (\w+) (\d+) ([0-9a-f]+) (\w+)(?: \+ \d+)? in section", r.stdout, re.M)}
        self.assertEqual({k: v[2] for k, v in frames.items()},
                         {"operation": "release_again", "release": "release_once", "allocation": "make_block"},
                         r.stdout)
        self.assertEqual(len({v[0] for v in frames.values()}), 3, frames)
        dump = re.search(r"^dumpings (\d+) pcs for backtrace\n  0 ([0-9a-f]+)$", r.stderr, re.M)
        self.assertIsNotNone(dump, r.stderr)
        self.assertEqual(int(dump.group(2), 16), frames["operation"][1])


if __name__ == "__main__":
    qmtest.main()
