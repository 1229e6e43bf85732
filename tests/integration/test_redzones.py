"""Red zones: blocks against inaccessible fences, so that a read or a write
off a block's end (or start), or into a released block, is reported at the
instruction that makes it, and the process ends with the configured status.
And the program's own SIGSEGV handling, which must see exactly what it sees
without the agent."""

import re
import unittest

import qmtest
from qmtest import assert_no_events, config, run, target

EMULATED = bool(config()["emulated"])
PAGE = 4096


def settings(extra):
    return {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2 enable_red_zones=true " + extra}


OVERRUN = settings("rz_alignment=1")
UNDERRUN = settings("rz_mode=underrun")
AFTER_FREE = settings("rz_detect_use_after_free=true rz_alignment=1")

FUNCTIONS = ["malloc", "calloc", "realloc", "memalign", "posix_memalign", "valloc", "strdup", "new"]

HEADS = {"overrun": "overrun bounds error", "underrun": "underrun bounds error",
         "afterfree": "access to block after it has been freed",
         "freed-past": "overrun bounds error on freed block",
         "freed-before": "underrun bounds error on freed block"}


def fault_report(stderr):
    """The report of a red-zone fault as numbers: (head, illegal address,
    payload, payload length, mapping, mapping length, fence, alignment,
    state and flags, record kind, record start, record length); None when
    the lines are not exactly those of one report."""
    m = re.fullmatch(
        r"QM_HEAP:  rz_signal    : (.+)\n"
        r"QM_HEAP:  illegal address: ([0-9a-f]+)\n"
        r"QM_HEAP:  red zone allocation information\n"
        r"QM_HEAP:    payload 0x([0-9a-f]+) length (\d+), mapping 0x([0-9a-f]+) length (\d+), fence (\d+), "
        r"alignment (\d+), (rzs_\w+(?: rzf_\w+)*)\n"
        r"QM_HEAP:  (allocation|deallocation) record\n"
        r"QM_HEAP:  0x([0-9a-f]+)--0x[0-9a-f]+ +(\d+) \[0x[0-9a-f]+\]\n", qmtest.without_frame(stderr))
    if m is None:
        return None
    g = m.groups()
    return (g[0], int(g[1], 16), int(g[2], 16), int(g[3]), int(g[4], 16), int(g[5]), int(g[6]), int(g[7]), g[8],
            g[9], int(g[10], 16), int(g[11]))


class Faults(unittest.TestCase):
    def check(self, mode, fn, env, head, where, flags, record="allocation"):
        r = run([target("redzone"), mode, fn], env=env)
        what = "%s %s" % (mode, fn)
        self.assertEqual(r.returncode, 255, what + "\n" + r.stdout + r.stderr)
        self.assertNotIn("not caught", r.stdout, what)
        rep = fault_report(r.stderr)
        self.assertIsNotNone(rep, what + "\n" + r.stderr)
        h, addr, payload, plen, mapping, mlen, fence, _, state, kind, rstart, rlen = rep
        self.assertEqual((h, plen, fence, state, kind, rstart, rlen), (head, 10, PAGE, flags, record, payload, 10), what)
        self.assertEqual(addr, payload + where, what)
        self.assertTrue(mapping <= addr < mapping + mlen, what)
        return rep

    def test_a_byte_past_the_end_is_caught_at_the_access_from_every_function(self):
        for mode in ("overread", "overwrite"):
            for fn in FUNCTIONS:
                rep = self.check(mode, fn, OVERRUN, HEADS["overrun"], 10,
                                 "rzs_allocated rzf_has_post_fence rzf_end_aligned")
                # Alignment 1: the block's last byte is the one before the fence.
                _, addr, _, _, mapping, mlen, fence, alignment, *_ = rep
                self.assertEqual((addr, alignment), (mapping + mlen - fence, 1))

    def test_a_byte_before_the_start_is_caught_in_underrun_mode(self):
        for mode in ("underread", "underwrite"):
            for fn in FUNCTIONS:
                rep = self.check(mode, fn, UNDERRUN, HEADS["underrun"], -1, "rzs_allocated rzf_has_pre_fence")
                self.assertEqual(rep[2], rep[4] + PAGE)  # the payload starts right after the fence

    def test_a_released_block_is_caught_when_read(self):
        for fn in FUNCTIONS:
            self.check("afterfree", fn, AFTER_FREE, HEADS["afterfree"], 0,
                       "rzs_deallocated rzf_has_post_fence rzf_detect_use_after_free rzf_end_aligned", "deallocation")
        self.check("freed-past", "malloc", AFTER_FREE, HEADS["freed-past"], 10,
                   "rzs_deallocated rzf_has_post_fence rzf_detect_use_after_free rzf_end_aligned", "deallocation")
        self.check("freed-before", "malloc", settings("rz_mode=underrun rz_detect_use_after_free=true"),
                   HEADS["freed-before"], -1, "rzs_deallocated rzf_has_pre_fence rzf_detect_use_after_free",
                   "deallocation")

    def test_what_the_fences_do_not_cover_is_not_caught(self):
        # The default alignment leaves slack before the fence; underrun mode
        # has nothing behind the block; a released block without use-after-
        # free detection is gone, and the read is the program's business.
        for mode, env in (("overread", settings("")), ("overread", UNDERRUN), ("underread", settings(""))):
            r = run([target("redzone"), mode, "malloc"], env=env)
            self.assertEqual((r.returncode, r.stdout), (0, "not caught\n"), mode + r.stderr)
            assert_no_events(r.stderr)

    def test_a_fault_in_a_mapping_but_in_no_fence_is_unknown(self):
        r = run([target("redzone"), "protected"], env=settings(""))
        self.assertEqual((r.returncode, qmtest.without_frame(r.stderr)),
                         (255, "QM_HEAP:  rz_signal    : unknown red zone error\n"))

    def test_the_exit_status_is_the_setting(self):
        r = run([target("redzone"), "overwrite", "malloc"], env=settings("rz_alignment=1 rz_exit_val=7"))
        self.assertEqual(r.returncode, 7, r.stderr)

    def test_one_report_while_other_threads_allocate(self):
        for _ in range(3):
            r = run([target("redzone"), "threads"], env=settings(""), timeout=120)
            self.assertEqual(r.returncode, 255, r.stderr)
            self.assertEqual(r.stderr.count("rz_signal    : overrun bounds error"), 1, r.stderr)

    def test_a_fault_outside_every_red_zone_is_the_programs(self):
        plain = run([target("redzone"), "unknown-segv"], preload=False)
        under = run([target("redzone"), "unknown-segv"], env=settings(""))
        self.assertNotEqual(plain.returncode, 0)
        self.assertEqual(under.returncode, plain.returncode)
        assert_no_events(under.stderr)


def layout(env):
    r = run([target("redzone"), "layout"], env=env)
    assert_no_events(r.stderr)
    return r.stdout.splitlines()


class Placement(unittest.TestCase):
    def test_blocks_sit_against_their_fences_in_each_mode(self):
        # Overrun mode: each block ends (at the default alignment) where its
        # fence begins; what lies before a block is whatever mapping is there.
        over = [re.sub(r"fence before -?\d", "fence before -", l) for l in layout(settings(""))]
        self.assertEqual(over, [
            "malloc 0: offset 0, fence before -, fence after 1",
            "malloc 1: offset 4080, fence before -, fence after 1",
            "malloc 10: offset 4080, fence before -, fence after 1",
            "malloc 100: offset 3984, fence before -, fence after 1",
            "malloc 4096: offset 0, fence before -, fence after 1",
            "malloc 5000: offset 3184, fence before -, fence after 1",
            "aligned: valloc 0, memalign 0, posix_memalign 0"])
        under = layout(UNDERRUN)
        for line in under[:6]:
            self.assertRegex(line, r"offset 0, fence before 1, fence after -?[01]$")
        self.assertEqual(under[6], "aligned: valloc 0, memalign 0, posix_memalign 0")
        for line in layout(settings("rz_mode=unfenced"))[:6]:
            self.assertRegex(line, r"offset 0, fence before -?[01], fence after 0$")
        # Manual with both fences and end alignment places as overrun does;
        # a fence of 1 byte is a page.
        manual = settings("rz_mode=manual rz_detect_underrun=true rz_detect_overrun=true rz_end_aligned=true")
        same = [re.sub(r"fence before -?\d", "fence before -", l) for l in layout(manual)]
        self.assertEqual(same[1:4], over[1:4])
        same = [re.sub(r"fence before -?\d", "fence before -", l) for l in layout(settings("rz_fence_size=1"))]
        self.assertEqual(same, over)
        # Alignment 1: the block ends at the fence exactly, whatever was asked.
        ones = layout(settings("rz_alignment=1"))
        self.assertRegex(ones[2], r"^malloc 10: offset 4086, fence before -?\d, fence after 1$")
        self.assertRegex(ones[6], r"^aligned: valloc 4086, memalign (4086|8182), posix_memalign 246$")

    def test_resizing_zeroing_and_alignment_keep_contents(self):
        for extra in ("", "rz_mode=underrun", "rz_alignment=1", "rz_detect_use_after_free=true",
                      "enable_guard_blocks=true paint_on_dealloc=true"):
            r = run([target("redzone"), "resize"], env=settings(extra))
            self.assertEqual((r.returncode, r.stdout), (0, "resize: ok\n"), extra + r.stderr)
            assert_no_events(r.stderr)

    def test_size_ranges_choose_the_allocator_and_resizes_cross_between_them(self):
        ranged = "enable_rz_size_ranges=true rz_size_range=0,50,1000 rz_size_range_enable=0,true rz_alignment=1"
        r = run([target("redzone"), "ranges"], env=settings(ranged))
        assert_no_events(r.stderr)
        self.assertEqual((r.returncode, r.stdout),
                         (0, "10: heap\n100: red zone\n1000: red zone\n5000: heap\n"
                             "grown: heap\ngrown: red zone\nranges: ok\n"), r.stderr)
        # Ranges on but none active: no red zones at all.
        r = run([target("redzone"), "ranges"], env=settings("enable_rz_size_ranges=true rz_alignment=1"))
        self.assertEqual(r.stdout.count("red zone"), 0, r.stdout)

    @unittest.skipIf(EMULATED, "the emulator maps memory on its own terms")
    def test_the_mapping_limit_is_explained_once(self):
        r = run([target("redzone"), "mapcount"], env=settings(""), timeout=300)
        self.assertEqual((r.returncode, r.stdout), (0, "blocks: many\n"), r.stderr)
        lines = qmtest.without_frame(r.stderr).splitlines()
        self.assertEqual(len(lines), 4, r.stderr)
        self.assertRegex(lines[0], r"^QM_HEAP:  red zones: (making a fence|mapping) failed for a block of 10 bytes "
                                   r"\(Cannot allocate memory\); the allocation returns NULL$")
        self.assertRegex(lines[1], r"the kernel allows a process \d+ \(vm.max_map_count\)$")
        self.assertIn("enable_rz_size_ranges", lines[2])
        self.assertEqual(lines[3], "QM_HEAP:  malloc       : null returned for allocation request: 10 (0xa)")


class ProgramSignals(unittest.TestCase):
    """The program's SIGSEGV handling, with and without red zones, is what it
    is without the agent."""

    MODES = ["retry", "recover", "old", "ignore", "default", "blocked", "resethand", "masks", "sysv", "overflow"]

    def test_the_program_sees_what_it_sees_without_the_agent(self):
        for mode in self.MODES:
            plain = run([target("sighandlers"), mode], preload=False)
            for env in (settings(""), qmtest.VERBOSE):
                under = run([target("sighandlers"), mode], env=env)
                self.assertEqual((under.returncode, under.stdout), (plain.returncode, plain.stdout), mode)
                assert_no_events(under.stderr)

    def test_a_red_zone_fault_is_the_agents_even_with_a_program_handler(self):
        r = run([target("sighandlers"), "redzone"], env=settings(""))
        self.assertEqual((r.returncode, r.stdout), (255, "redzone: own fault handled 1\n"), r.stderr)
        self.assertIn("rz_signal    : overrun bounds error", r.stderr)
        plain = run([target("sighandlers"), "redzone"], preload=False)
        self.assertEqual(plain.stdout, "redzone: own fault handled 1\nredzone: overrun not caught, 1\n")


if __name__ == "__main__":
    qmtest.main()
