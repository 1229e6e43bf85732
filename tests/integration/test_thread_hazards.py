"""Thread hazards: threads that use the heap while the agent starts, threads
cancelled inside heap calls, forks from two threads while others allocate.
Every program here is correct, so at verbosity 2 the agent may print nothing
but its start-up and shut-down lines (and the exit-time list of blocks):
any event is a false report. Each program ends itself with an alarm if it
hangs (cancel_heap and fork_threads then say what they were doing)."""

import re
import unittest

import qmtest
from qmtest import VERBOSE, assert_no_events, config, exit_dump, run, target


def lib(name):
    return "%s/%s" % (config()["targets"], name)


class StartUp(unittest.TestCase):
    def test_threads_of_a_library_constructor_race_the_load_hook(self):
        # The program's own library starts four threads in its constructor,
        # before the agent's load hook; each makes 200,000 heap calls and
        # keeps its first block (7001..7004 bytes, made in the race) and its
        # last (7011..7014). The race depends on timing: several runs.
        env = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2 display_allocations_on_exit=true"}
        for attempt in range(5):
            r = run([target("ctor_threads")], env=env, timeout=600)
            self.assertEqual(r.returncode, 0, "run %d:\n%s" % (attempt, r.stderr[-3000:]))
            self.assertTrue(r.stdout.endswith("ctor_threads: 0 failures\n"), r.stdout)
            assert_no_events(r.stderr)
            kept = [(int(a, 16), int(n)) for a, n in re.findall(r"^ctor_threads: kept (\S+) (\d+)$", r.stdout, re.M)]
            self.assertEqual(sorted(n for _, n in kept), [7001, 7002, 7003, 7004, 7011, 7012, 7013, 7014], r.stdout)
            blocks, counts, outstanding = exit_dump(r.stderr)
            for block in kept:
                self.assertIn(block, blocks, "run %d: kept block missing from the exit-time list" % attempt)
            self.assertEqual(outstanding, len(blocks))
            self.assertEqual([e for _, e in counts.values()], [0] * 6, counts)


class Cancellation(unittest.TestCase):
    """100 rounds of six threads cancelled while they use the heap; then the
    main thread, new threads and a forked child use the heap and free what
    the cancelled threads left. The heap below the agent is made
    async-cancel-safe, as the C library's is not; without the agent the
    program passes as well."""

    EXPECTED = (0, "cancel_heap: 600 threads cancelled, 0 failures, left blocks freed\n")

    def check(self, mode, runs):
        argv = [target("cancel_heap"), "100", "120"] + mode
        safe = [lib("libqmcancelsafe.so")]
        plain = run(argv, preload=False, extra_preload=safe, timeout=300)
        self.assertEqual((plain.returncode, plain.stdout), self.EXPECTED, plain.stderr)
        # A thread cancelled at the wrong moment inside the agent leaves a
        # lock held or a block marked in progress: what follows then hangs.
        # The moment is a matter of timing: several runs.
        for attempt in range(runs):
            r = run(argv, env=VERBOSE, extra_preload=safe, timeout=300)
            self.assertEqual((r.returncode, r.stdout), self.EXPECTED, "run %d:\n%s" % (attempt, r.stderr[-3000:]))
            assert_no_events(r.stderr)

    @unittest.skipIf(config()["emulated"], "qemu-user does not deliver asynchronous cancellation reliably: "
                                           "the program fails there without the agent")
    def test_threads_cancelled_asynchronously_inside_heap_calls(self):
        # Four threads asynchronous, one deferred, one through stdio.
        self.check([], 3)

    def test_threads_cancelled_at_cancellation_points_between_heap_calls(self):
        # The same with every thread deferred: cancelled in
        # pthread_testcancel, or in stdio calls that allocate.
        self.check(["deferred"], 2)


class Fork(unittest.TestCase):
    def test_forks_from_two_threads_while_others_allocate(self):
        # The main thread and one of three allocating threads fork 40 times
        # each; fork handlers registered before and after the agent's
        # allocate; each child frees and resizes blocks made before the fork,
        # then starts two threads (on the recycled stacks, and so with the
        # thread handles, of parent threads that were inside heap calls) whose
        # blocks it frees.
        # Children share the standard error: their events would show here.
        # qemu-user itself fails on threads started in a forked child of a
        # threaded process: there the children start none.
        child_threads = "0" if config()["emulated"] else "1"
        argv = [target("fork_threads"), "40", "120", child_threads]
        expected = (0, "fork_threads: 80 forks, 0 failed children\n")
        # Without the agent the program passes as well.
        plain = run(argv, preload=False, timeout=300)
        self.assertEqual((plain.returncode, plain.stdout), expected, plain.stderr[-3000:])
        for attempt in range(3):
            r = run(argv, env=VERBOSE, timeout=300)
            self.assertEqual((r.returncode, r.stdout), expected, "run %d:\n%s" % (attempt, r.stderr[-3000:]))
            assert_no_events(r.stderr)


if __name__ == "__main__":
    qmtest.main()
