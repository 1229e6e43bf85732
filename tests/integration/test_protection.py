"""Guards, painting and the hoard, switched on by settings: a write past
either end of a block is reported when the block is released (or at every
operation, with the checks on entry), a write into a released block while
it sits in the hoard when it leaves, and a second release of a hoarded block
as such; correct programs see their blocks exactly as without them."""

import re
import shutil
import unittest

import qmtest
from qmtest import assert_no_events, config, run, target

EMULATED = bool(config()["emulated"])


def settings(extra):
    return {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2 " + extra}


GUARDS = settings("enable_guard_blocks=true")
ALL = settings("enable_guard_blocks=true paint_on_alloc=true paint_on_dealloc=true enable_hoarding=true")


def reports(text):
    """The agent's reports with addresses, thread ids and generations
    normalised (start-up and shut-down lines dropped)."""
    return re.sub(r" *0x[0-9a-f]+", " ADDR", qmtest.without_frame(text))


# The record line of a 10-byte block: address range, length, and the
# address the range starts at.
RECORD = "QM_HEAP: ADDR-- ADDR           10 [ ADDR]\n"


def corruption(op):
    return ("QM_HEAP:  %-13s: guard corruption\n" % op +
            "QM_HEAP:  %-13s: original allocation\n" % op + RECORD)


class Guards(unittest.TestCase):
    FUNCTIONS = ["malloc", "calloc", "realloc", "memalign", "posix_memalign", "valloc", "strdup"]

    def test_a_byte_past_either_end_is_reported_at_release(self):
        for where in ("overrun", "underrun"):
            for fn in self.FUNCTIONS:
                r = run([target("protect"), where, fn], env=GUARDS)
                self.assertEqual((r.returncode, reports(r.stderr)), (0, corruption("free")), "%s %s" % (where, fn))

    def test_without_guards_nothing_is_seen(self):
        r = run([target("protect"), "overrun", "malloc"], env=settings(""))
        self.assertEqual(r.returncode, 0)
        assert_no_events(r.stderr)

    def test_the_check_on_entry_finds_a_live_block(self):
        r = run([target("protect"), "overrun-live"], env=settings("enable_guard_blocks=true guard_check_on_entry=true"))
        self.assertEqual((r.returncode, reports(r.stderr)), (0, corruption("malloc")))
        # Only at release otherwise: the block is never released here.
        r = run([target("protect"), "overrun-live"], env=GUARDS)
        assert_no_events(r.stderr)

    def test_guard_bytes_sizes_and_painting_as_the_program_sees_them(self):
        r = run([target("protect"), "layout"], env=ALL)
        assert_no_events(r.stderr)
        self.assertEqual(r.returncode, 0, r.stderr)
        lines = dict(l.split(": ", 1) for l in r.stdout.splitlines())
        self.assertEqual(lines["before"], " ".join(["77"] * 8))
        self.assertEqual(lines["after"], " ".join(["99"] * 8))
        self.assertEqual(lines["usable"], "10")
        # Allocation paint anchored to 4-byte boundaries from an aligned
        # payload; calloc stays zero without painting over zero; a block in
        # the hoard shows the release paint.
        self.assertEqual(lines["painted"], "7f ca 10 a1 7f ca 10")
        self.assertEqual(lines["calloc"], "00 00 00 00 00 00")
        self.assertEqual(lines["released"], "cf 10 a1 de cf 10 a1 de cf")
        # Painting over zero paints calloc's blocks too.
        r = run([target("protect"), "layout"], env=settings("paint_on_alloc=true paint_on_zalloc=true"))
        assert_no_events(r.stderr)
        lines = dict(l.split(": ", 1) for l in r.stdout.splitlines())
        self.assertEqual(lines["calloc"], "7f ca 10 a1 7f ca")

    def test_resizing_guarded_blocks_keeps_contents_and_guards(self):
        for env in (GUARDS, ALL, settings("enable_guard_blocks=true guard_check_on_exit=true paint_on_dealloc=true")):
            r = run([target("protect"), "resize"], env=env)
            self.assertEqual((r.returncode, r.stdout), (0, "resize: 0 bad bytes\n"), r.stderr)
            assert_no_events(r.stderr)


class Hoard(unittest.TestCase):
    def test_a_write_into_a_hoarded_block_is_reported_when_it_leaves(self):
        r = run([target("protect"), "hoard-write"], env=ALL)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(reports(r.stderr),
                         "QM_HEAP:  hoard_remove : guard corruption\n"
                         "QM_HEAP:  hoard_remove : original allocation\n"
                         "QM_HEAP: ADDR-- ADDR           24 [ ADDR]\n")

    def test_a_second_release_of_a_hoarded_block_is_reported_and_goes_no_further(self):
        # Without the hoard the C library would end the program.
        r = run([target("protect"), "hoard-double"], env=ALL)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("QM_HEAP:  free         : double deallocation\n", reports(r.stderr))

    @unittest.skipIf(EMULATED, "the address-space limit would bind the emulator, not the program")
    def test_autoshrink_gives_held_blocks_back_when_an_allocation_fails(self):
        hoard = "enable_hoarding=true hoard_maximum_kb=0 hoard_maximum_num_blocks=0 "
        r = run([target("protect"), "autoshrink"], env=settings(hoard))
        self.assertEqual((r.returncode, r.stdout), (0, "autoshrink: no room\n"), r.stderr)
        # Giving back the first 4 MiB block crosses 14 MiB downwards: reported
        # once (the trigger count is 1 by default).
        r = run([target("protect"), "autoshrink"],
                env=settings(hoard + "enable_hoard_autoshrink=true hoard_autoshrink_threshold_kb=14336"))
        self.assertEqual((r.returncode, r.stdout), (0, "autoshrink: made room\n"), r.stderr)
        self.assertIn("QM_HEAP:  malloc       : hoard autoshrink threshold crossed\n"
                      "QM_HEAP:  malloc       : hoard size is 12582912 bytes (12288kb) (12mb)\n", reports(r.stderr))
        self.assertEqual(reports(r.stderr).count("threshold crossed"), 1)


@unittest.skipUnless(config()["native_exec"] and shutil.which("gdb"), "needs gdb on a natively run program")
class Debugger(unittest.TestCase):
    def test_stopped_at_a_guard_corruption_the_debugger_sees_the_block_and_its_guards(self):
        commands = [
            "set $r = QM_HEAP_event.allocation_record",
            "set $g = QM_HEAP_guard_table.settings[$r.guard_id]",
            "printf \"event %d len %d guards %d %d\\n\", QM_HEAP_event.event, (int)$r.len, $g.pre_size, $g.post_size",
            "printf \"after %x %x\\n\", ((unsigned char*)$r.addr)[$r.len], ((unsigned char*)$r.addr)[$r.len + 1]"]
        r = qmtest.gdb_at_event("qm_heap_event_guard_corruption", "verbosity=2 enable_guard_blocks=true", commands,
                                [target("protect"), "overrun", "malloc"])
        # The byte written past the end, then the post-guard's pattern.
        self.assertIn("event 21 len 10 guards 16 16\nafter 78 99\n", r.stdout, r.stdout + r.stderr)

    def test_new_settings_apply_to_new_blocks_only(self):
        # A debugger widens the pre-guard between two allocations: the first
        # block keeps its 16 bytes and is released without a report.
        commands = ["set startup-with-shell off",
                    "set environment LD_PRELOAD=%s" % config()["lib"],
                    "set environment QMHEAP_CONFIG_FILE=",
                    "set environment QMHEAP_ARGS=verbosity=2 enable_guard_blocks=true",
                    "break checkpoint", "run", "set var QM_HEAP_guard_pre_size = 40", "continue", ""]
        r = qmtest.gdb(commands, [target("protect"), "geometry"])
        self.assertIn("pre-guards 16 48\n", r.stdout, r.stdout + r.stderr)
        assert_no_events(r.stdout + r.stderr)



if __name__ == "__main__":
    qmtest.main()
