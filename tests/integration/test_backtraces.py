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

    # The debugging dump copies a stack into a buffer of 64 counters first:
    # a deeper stack (a depth above 64) is reported as an error.
    @unittest.expectedFailure
    def test_the_debugging_dump_prints_a_stack_deeper_than_64(self):
        self.assertEqual(self.run_checks("bt_sites", ["deep=200", "dump"], "backtrace_depth=100"),
                         {"deep.count", "deep.frames", "deep.dump", "table"})


if __name__ == "__main__":
    qmtest.main()
