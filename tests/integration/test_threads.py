"""Threads and fork under the agent: cancellation state around an operation,
fork in the middle of allocation traffic, and a long stress run."""

import os
import subprocess
import unittest

import qmtest
from qmtest import VERBOSE, assert_no_events, config, run, target


def lib(name):
    return os.path.join(config()["targets"], name)


class Threads(unittest.TestCase):
    def test_cancellation_is_disabled_inside_an_operation_and_restored_after(self):
        # The real allocator runs with the caller's own state...
        r = run([target("cancel_state")], env=VERBOSE, extra_preload=[lib("libqmprobe.so")])
        self.assertEqual((r.returncode, r.stdout), (0, "in allocator enabled, after enabled\n"), r.stderr)
        assert_no_events(r.stderr)
        # ...the agent's own work (here an event for a failed allocation) with
        # cancellation disabled.
        cmd = [config()["runner"], "--preload", lib("libqmbreak.so") + ":" + config()["lib"], "--",
               target("cancel_state")]
        r = subprocess.run(cmd, capture_output=True, text=True, timeout=120)
        self.assertEqual((r.returncode, r.stdout), (0, "at event disabled, after enabled\n"), r.stderr)

    def test_a_thread_ending_inside_an_operation_leaves_the_agent(self):
        cmd = [config()["runner"], "--preload", lib("libqmbreak.so") + ":" + config()["lib"],
               "--env", "QM_BREAK_EXIT=1", "--env", "QMHEAP_CONFIG_FILE=",
               "--env", "QMHEAP_ARGS=display_allocations_on_exit=true", "--", target("unwind_exit")]
        r = subprocess.run(cmd, capture_output=True, text=True, timeout=120)
        self.assertEqual((r.returncode, r.stdout), (0, "unwind_exit: kept a block\n" * 3), r.stderr)
        lengths = [l.split()[-1] for l in r.stderr.splitlines() if l.startswith("QM_HEAP:  ") and len(l.split()) == 3]
        for n in ("4242", "4243", "4244"):
            self.assertIn(n, lengths, r.stderr)

    def test_two_threads_releasing_one_block(self):
        env = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2", "QM_BAD": "once"}
        r = run([target("free_race")], env=env, extra_preload=[lib("libqmbadalloc.so")], timeout=300)
        self.assertEqual((r.returncode, r.stdout), (0, "free_race: 300 rounds\n"), r.stderr)
        events = [l for l in r.stderr.splitlines() if l.startswith("QM_HEAP:  free         : ")]
        heads = [l for l in events if not l.startswith("QM_HEAP:  free         :   address:")]
        self.assertEqual(events.count("QM_HEAP:  free         : double deallocation"), 300, r.stderr[-2000:])
        self.assertEqual(len(heads), 300 * 3)  # heading, "original allocation", "entry in deallocation table"

    def test_frequent_forks_while_threads_allocate(self):
        r = run([target("fork_stress"), "4", "200000", "200"], env=VERBOSE, timeout=600)
        self.assertEqual(r.returncode, 0, r.stderr[-3000:])
        self.assertEqual(r.stdout, "fork_stress: 4 threads, 200000 operations each, 1000 forks, 0 failed children\n")
        assert_no_events(r.stderr)

    def test_stress_four_threads_a_million_operations_each(self):
        r = run([target("fork_stress"), "4", "1000000", "5000"], env=VERBOSE, timeout=900)
        self.assertEqual(r.returncode, 0, r.stderr[-3000:])
        self.assertEqual(r.stdout, "fork_stress: 4 threads, 1000000 operations each, 200 forks, 0 failed children\n")
        assert_no_events(r.stderr)
        self.assertEqual(qmtest.without_frame(r.stderr), "")


if __name__ == "__main__":
    qmtest.main()
