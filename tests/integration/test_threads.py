"""Threads and fork under the agent: cancellation state around an operation,
fork in the middle of allocation traffic, and a long stress run."""

import os
import unittest

import qmtest
from qmtest import config, run, target


def lib(name):
    return os.path.join(config()["targets"], name)


class Threads(unittest.TestCase):
    def test_cancellation_is_disabled_inside_an_operation_and_restored_after(self):
        r = run([target("cancel_state")], extra_preload=[lib("libqmprobe.so")])
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout, "inside disabled, after enabled\n")

    def test_without_the_agent_the_probe_sees_cancellation_enabled(self):
        r = run([target("cancel_state")], preload=False, extra_preload=[lib("libqmprobe.so")])
        self.assertEqual(r.stdout, "inside enabled, after enabled\n")

    def test_frequent_forks_while_threads_allocate(self):
        r = run([target("fork_stress"), "4", "200000", "200"], timeout=600)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout, "fork_stress: 4 threads, 200000 operations each, 1000 forks, 0 failed children\n")

    def test_stress_four_threads_a_million_operations_each(self):
        r = run([target("fork_stress"), "4", "1000000", "5000"], timeout=900)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout, "fork_stress: 4 threads, 1000000 operations each, 200 forks, 0 failed children\n")
        self.assertEqual(r.stderr, "")


if __name__ == "__main__":
    qmtest.main()
