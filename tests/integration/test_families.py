"""Every way into the allocator reaches the agent: the C functions beyond
the seven, the C library's own names for them, and C++ new and delete in all
their forms. A block released by a function of another family is reported
once; an address the agent never handed out is reported without the agent
reading memory that is not its own."""

import re
import unittest

import qmtest
from qmtest import VERBOSE, assert_no_events, run, target

# Each mismatch: the report's operation, and what the report says.
MISMATCHES = {
    "new-free": ("free", "block made by new released by free"),
    "new[]-free": ("free", "block made by new[] released by free"),
    "new[]-delete": ("delete", "block made by new[] released by delete"),
    "malloc-delete": ("delete", "block made by malloc released by delete"),
    "malloc-delete[]": ("delete[]", "block made by malloc released by delete[]"),
    "new-delete[]": ("delete[]", "block made by new released by delete[]"),
    "new-realloc": ("realloc", "block made by new released by realloc"),
    "aligned-delete": ("delete", "block made by aligned new released by delete"),
    "sized-delete": ("delete", "size 16 given for a block of length 24"),
}


def agent_lines(text):
    return qmtest.without_frame(text).splitlines()


class FamiliesTest(unittest.TestCase):
    def test_every_way_into_the_allocator_used_correctly_raises_nothing(self):
        plain = run([target("families"), "ok"], preload=False)
        r = run([target("families"), "ok"], env=VERBOSE)
        self.assertEqual((r.returncode, r.stdout), (0, "ok\n"), r.stderr)
        self.assertEqual(r.stdout, plain.stdout)
        assert_no_events(r.stderr)

    def test_each_mismatch_is_reported_once(self):
        for case, (op, text) in MISMATCHES.items():
            with self.subTest(case):
                r = run([target("families"), case], env=VERBOSE)
                self.assertEqual((r.returncode, r.stdout), (0, "done\n"), r.stderr)
                lines = agent_lines(r.stderr)
                self.assertEqual(len(lines), 3, r.stderr)
                self.assertEqual(lines[0], "QM_HEAP:  %-13s: mismatched deallocation: %s" % (op, text))
                self.assertRegex(lines[1], r"^QM_HEAP:  0x[0-9a-f]+--0x[0-9a-f]+ +\d+ \[0x[0-9a-f]+\]$")
                self.assertRegex(lines[2], r"^QM_HEAP:  %s +:   address: +0x[0-9a-f]+$" % re.escape(op))

    def test_a_mismatch_can_be_kept_off_the_console_and_end_the_process(self):
        r = run([target("families"), "new-free"],
                env={"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2 enable_event_console_filtering=true "
                     "notify_console_dealloc_mismatch=false"})
        self.assertEqual(agent_lines(r.stderr), [])
        r = run([target("families"), "new-free"],
                env={"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "enable_exit_on_event=true "
                     "exit_on_event_dealloc_mismatch=true"})
        self.assertEqual((r.returncode, r.stdout), (0, ""))

    def test_the_c_contracts_failures(self):
        plain = run([target("families"), "edges"], preload=False)
        r = run([target("families"), "edges"], env=VERBOSE)
        self.assertEqual(r.stdout, plain.stdout)
        self.assertEqual(r.stdout, "posix_memalign 12\ncalloc null ENOMEM\nrealloc to 0 null\ndone\n")
        top = 2 ** (64 if qmtest.is_64() else 32)
        self.assertEqual(agent_lines(r.stderr), [
            "QM_HEAP:  posix_memalign returned 12",
            "QM_HEAP:  posix_memalign: null returned for allocation request: %d (%#x)" % (top - 101, top - 101),
            "QM_HEAP:  calloc       : null returned for allocation request: %d (%#x)" % (top - 1, top - 1)])

    def test_an_address_never_handed_out_is_reported_without_reading_it(self):
        # It looks like a block of the allocator's; the C library takes it
        # as one, with or without the agent.
        plain = run([target("families"), "wild"], preload=False)
        r = run([target("families"), "wild"], env=VERBOSE)
        self.assertEqual((r.returncode, r.stdout), (plain.returncode, plain.stdout))
        self.assertEqual(r.stdout, "done\n")
        lines = agent_lines(r.stderr)
        self.assertEqual(len(lines), 1, r.stderr)
        self.assertRegex(lines[0], r"^QM_HEAP:  free         : address does not match any allocated block: +0x[0-9a-f]+$")
        # Inaccessible: reported first, then the C library faults reading it,
        # exactly as without the agent.
        plain = run([target("families"), "protnone"], preload=False)
        r = run([target("families"), "protnone"], env=VERBOSE)
        self.assertEqual(r.returncode, plain.returncode)
        self.assertRegex(qmtest.without_frame(r.stderr),
                         r"^QM_HEAP:  free         : address does not match any allocated block: +0x[0-9a-f]+\n")


if __name__ == "__main__":
    qmtest.main()
