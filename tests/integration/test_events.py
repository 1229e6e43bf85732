"""Every heap error a program can make is reported with the agent's exact
console text, and the program still gets what the real allocator returned
(so glibc may then end it, exactly as it would without the agent)."""

import os
import re
import signal
import unittest

import qmtest
from qmtest import config, run, target

QUIET = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2"}


def reports(text):
    """The agent's event reports, addresses normalised, start-up and
    shut-down lines dropped (and the emulator's note of a fatal signal);
    the C library's own complaints kept."""
    return re.sub(r" *0x[0-9a-f]+", " ADDR", qmtest.without_frame(text))


def lib(name):
    return os.path.join(config()["targets"], name)


class ProgramErrors(unittest.TestCase):
    def check(self, what, expected, status=-signal.SIGABRT, glibc=None):
        r = run([target("heap_errors"), what], env=QUIET)
        got = reports(r.stderr)
        if glibc is not None:
            self.assertTrue(got.endswith(glibc + "\n"), got)
            got = got[: -len(glibc) - 1]
        self.assertEqual(got, expected)
        self.assertEqual(r.returncode, status, r.stderr)
        # Without the agent the program ends the same way.
        plain = run([target("heap_errors"), what], preload=False)
        self.assertEqual(plain.returncode, r.returncode)

    def test_free_of_an_address_never_allocated(self):
        self.check("free-unknown", "QM_HEAP:  free         : address does not match any allocated block: ADDR\n",
                   glibc="free(): invalid pointer")

    def test_realloc_of_an_address_never_allocated(self):
        # The event carries no op and no address: only the event itself is kept.
        self.check("realloc-unknown", "QM_HEAP:               : address does not match any allocated block: ADDR\n",
                   glibc="realloc(): invalid pointer")

    def test_free_inside_a_block(self):
        self.check("free-middle",
                   "QM_HEAP:  free         : address is not the start of an allocated block:\n"
                   "QM_HEAP: ADDR-- ADDR           40 [ ADDR]\n"
                   "QM_HEAP:  free         :   address: ADDR\n",
                   glibc="free(): invalid pointer")

    def test_realloc_inside_a_block_shows_the_requested_length(self):
        self.check("realloc-middle",
                   "QM_HEAP:  realloc      : address is not the start of an allocated block:\n"
                   "QM_HEAP: ADDR-- ADDR           40 [ ADDR]\n"
                   "QM_HEAP:  realloc      :   address: ADDR\n"
                   "QM_HEAP:  realloc      :   requested length: 100 ( ADDR)\n",
                   glibc="realloc(): invalid pointer")

    def test_double_free(self):
        self.check("double-free",
                   "QM_HEAP:  free         : double deallocation\n"
                   "QM_HEAP:  free         : original allocation\n"
                   "QM_HEAP: ADDR-- ADDR           40 [ ADDR]\n"
                   "QM_HEAP:  free         : entry in deallocation table\n"
                   "QM_HEAP: ADDR-- ADDR           40 [ ADDR]\n"
                   "QM_HEAP:  free         :   address: ADDR\n",
                   glibc="free(): double free detected in tcache 2")

    def test_realloc_of_a_released_block(self):
        r = run([target("heap_errors"), "double-realloc"], env=QUIET)
        self.assertTrue(reports(r.stderr).startswith("QM_HEAP:  realloc      : double deallocation\n"), r.stderr)

    def test_bad_alignment_arguments(self):
        self.check("bad-alignment",
                   "QM_HEAP:  memalign     : bad alignment argument received (24)\n"
                   "QM_HEAP:  posix_memalign: bad alignment argument received (12)\n", status=0)


class MisbehavingAllocator(unittest.TestCase):
    def run_bad(self, mode):
        env = dict(QUIET, QM_BAD=mode)
        r = run([target("heap_errors"), "bad-allocator"], env=env, extra_preload=[lib("libqmbadalloc.so")])
        self.assertEqual(r.returncode, 0, r.stderr)
        return r

    def test_null_results(self):
        r = self.run_bad("null")
        self.assertEqual(r.stdout, "bad allocator: null null\n")
        self.assertEqual(reports(r.stderr), "QM_HEAP:  malloc       : null returned for allocation request: 777 ( ADDR)\n" * 2)

    def test_misaligned_results(self):
        r = self.run_bad("misalign")
        self.assertEqual(r.stdout, "bad allocator: block block\n")
        self.assertEqual(reports(r.stderr),
                         ("QM_HEAP:  malloc       : returned block does not have expected alignment\n"
                          "malloc       : returned address: ADDR\n"
                          "malloc       : requested length:   777 ( ADDR)\n"
                          "malloc       : expected alignment: 16 ( ADDR)\n") * 2)

    def test_overlapping_results(self):
        r = self.run_bad("overlap")
        self.assertEqual(reports(r.stderr),
                         "QM_HEAP:  malloc       : memory manager returned the address of an already allocated block:\n"
                         "malloc       :   existing block:QM_HEAP: ADDR-- ADDR          777 [ ADDR]\n"
                         "QM_HEAP:  malloc       :   returned address: ADDR\n"
                         "malloc       :   requested length: 777 ( ADDR)\n")


class Shutdown(unittest.TestCase):
    def test_remaining_blocks_and_counters_at_exit(self):
        # Blocks left at exit are no error: at verbosity 2 nothing but the list.
        env = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2 display_allocations_on_exit=true"}
        r = run([target("heap_errors"), "leak"], env=env)
        self.assertEqual(r.returncode, 0)
        qmtest.assert_no_events(r.stderr)
        q, p = r.stdout.split()[1:3]
        lines = r.stderr.splitlines()
        start = lines.index("QM_HEAP:  ALLOCATION TABLE --- START")
        self.assertEqual(lines[start - 1], "QM_HEAP:  remaining allocated blocks")
        end = lines.index("QM_HEAP:  ALLOCATION TABLE --- END")
        blocks = [l.split()[1:] for l in lines[start + 1:end]]
        width = lambda a: "%10s" % a[2:]
        self.assertIn([q[2:], "300"], blocks)
        self.assertIn([p[2:], "24"], blocks)
        self.assertIn("QM_HEAP:  %s %14d" % (width(q), 300), lines)
        counts = lines[end + 1:end + 8]
        self.assertRegex(counts[0], r"^QM_HEAP:          1   calloc \(        0 errors\)$")
        self.assertRegex(counts[3], r"^QM_HEAP:  +(\d+)  realloc \(        0 errors\)$")
        # The valloc and memalign lines repeat the realloc counters.
        numbers = [re.findall(r"\d+", l) for l in counts[3:6]]
        self.assertEqual(numbers[0], numbers[1])
        self.assertEqual(numbers[0], numbers[2])
        self.assertTrue(counts[5].endswith(" memalign (        0 errors)"), counts[5])
        self.assertEqual(counts[6], "QM_HEAP:  number of outstanding allocations: %9d" % len(blocks))


@unittest.skipUnless(config()["native_exec"], "needs gdb on a natively run program")
class Debugger(unittest.TestCase):
    def gdb(self, args, commands, env=()):
        import shutil
        import subprocess
        import tempfile
        d = tempfile.mkdtemp()
        try:
            path = os.path.join(d, "commands")
            with open(path, "w") as f:
                f.write("\n".join(["set startup-with-shell off", "set breakpoint pending on",
                                   "set environment LD_PRELOAD=%s" % config()["lib"],
                                   "set environment QMHEAP_CONFIG_FILE="] +
                                  ["set environment %s" % e for e in env] + commands + ["kill", ""]))
            return subprocess.run(["gdb", "-batch", "-nx", "-x", path, "--args", target("heap_errors")] + args,
                                  capture_output=True, text=True, timeout=120)
        finally:
            shutil.rmtree(d)

    def test_gdb_sees_a_double_free(self):
        r = self.gdb(["double-free"], ["break QM_HEAP_notify_breakpoint_here", "run", "continue", "finish",
                                       "print QM_HEAP_event.event", "print QM_HEAP_event.op"])
        self.assertIn("= qm_heap_event_double_dealloc", r.stdout)
        self.assertIn("= qm_heap_op_free", r.stdout)

    def test_blocks_marked_by_the_debugger_notify_their_reallocation_and_release(self):
        # af_notify_dealloc (2) and af_notify_realloc (4) set on the block's record.
        r = self.gdb(["notify"], ["break checkpoint", "run",
                                  "call (int)QM_HEAP_set_alloc_flags_by_id("
                                  "(void*)QM_HEAP_lookup_allocation_record(block, 0, 1), 6)",
                                  "continue"], env=["QMHEAP_ARGS=verbosity=2"])
        self.assertIn("heap_errors: notified", r.stdout)
        self.assertIn(reports("QM_HEAP:  realloc      : reallocation notification\n"
                              "QM_HEAP:  0x10--0x38           40 [0x28]\n"
                              "QM_HEAP:  realloc      : requested length:   20 (0x14)\n"
                              "QM_HEAP:  free         : deallocation notification\n"
                              "QM_HEAP:  0x10--0x24           20 [0x14]\n"), reports(r.stdout + r.stderr))


if __name__ == "__main__":
    qmtest.main()
