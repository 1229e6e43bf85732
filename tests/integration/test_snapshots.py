"""Snapshot files: written from events and on request, named by the
pathname template, read back here by a reader that knows only the file's
format: it starts from the last line, follows the table of contents to every
subsection, and checks each entry's count and line number against the
lines themselves."""

import glob
import os
import re
import shutil
import tempfile
import unittest

import qmtest
from qmtest import assert_no_events, config, run, target

LIVE_SIDS = (301, 302, 401, 402, 205, 209, 210, 211, 213, 214, 101)


class Snapshot:
    """A snapshot file as its table of contents describes it."""

    def __init__(self, path):
        with open(path) as f:
            self.lines = f.read().split("\n")
        assert self.lines[-1] == "", "the file ends with a newline"
        self.lines.pop()
        self.sections = {}  # sid -> (count, first line number)
        last = self.toc_line(self.lines[-1])
        assert last[0] == 99 and last[1] == 4, self.lines[-1]
        # Four section tocs, each pointing at its subsections' entries.
        for section in self.entries(last):
            self.sections[section[0]] = section[1:]
            for sub in self.entries(section):
                self.sections[sub[0]] = sub[1:]

    def line(self, n):
        return self.lines[n - 1]

    @staticmethod
    def toc_line(text):
        m = re.fullmatch(r"(\d+)\^(\d+)\^(\d+)", text)
        assert m, "not a toc line: %r" % text
        return tuple(int(x) for x in m.groups())

    def entries(self, head):
        _, count, lineno = head
        return [self.toc_line(self.line(lineno + i)) for i in range(count)]

    def data(self, sid):
        count, lineno = self.sections[sid]
        rows = [self.line(lineno + i) for i in range(count)]
        assert not any(r.startswith("#") for r in rows), (sid, rows)
        return [r.split("^") for r in rows]


def reads_back(test, path, comments=True):
    """Checks every toc entry against the lines; returns the Snapshot."""
    s = Snapshot(path)
    toc_sids = {100, 200, 300, 400}
    test.assertTrue(toc_sids <= set(s.sections), s.sections)
    for sid, (count, lineno) in s.sections.items():
        if sid in toc_sids:
            continue
        rows = s.data(sid)
        test.assertEqual(len(rows), count)
        if comments:
            # Each subsection stands between its start and end comments.
            test.assertTrue(s.line(lineno - 1).startswith("# --- start of"), (sid, s.line(lineno - 1)))
            test.assertTrue(s.line(lineno + count).startswith("# --- end of"), (sid, s.line(lineno + count)))
    # The pcs index points at each backtrace's first pc line, and counts them.
    for ident, n, first in ((int(a), int(b), int(c)) for a, b, c in s.data(401)):
        for k in range(n):
            test.assertEqual(s.line(first + k).split("^")[0], str(ident))
    test.assertEqual(len(s.data(209)), 1)
    test.assertEqual(len(s.data(101)), 1)
    if not comments:
        test.assertFalse(any(l.startswith("#") for l in s.lines))
    return s


class Files(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp()

    def tearDown(self):
        shutil.rmtree(self.dir)

    def run_in_dir(self, mode, extra="", *args):
        # The hoard keeps the C library from seeing (and aborting at) the
        # second release.
        env = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2 enable_generate_lwmdbg=true "
               "lwmdbg_double_dealloc=true enable_hoarding=true " + extra}
        return run([target("snapshot"), mode] + list(args), env=env, cwd=self.dir)

    def files(self):
        return sorted(glob.glob(os.path.join(self.dir, "*.lwmdbg")))

    def test_an_event_writes_a_file_a_reader_can_seek_by(self):
        r = self.run_in_dir("one")
        self.assertEqual(r.returncode, 0, r.stderr)
        files = self.files()
        self.assertEqual(len(files), 1, r.stderr)
        name = os.path.basename(files[0])
        self.assertRegex(name, r"^snapshot-[^-]+-\d{8}-000000\.lwmdbg$")
        s = reads_back(self, files[0])
        live = [row for row in s.data(301)]
        released = [row for row in s.data(302)]
        # The target's 50 live blocks of 60 to 109 bytes are among them.
        lengths = {int(row[1]) for row in live}
        self.assertTrue(set(range(60, 110)) <= lengths, sorted(lengths))
        self.assertTrue(any(int(row[1]) == 8 for row in released))
        for row in live + released:
            self.assertEqual(len(row), 14, row)
            self.assertGreater(int(row[2]), 0, row)  # every block has its backtrace
        ids = {int(row[2]) for row in live + released}
        indexed = {int(row[0]) for row in s.data(401)}
        self.assertTrue(ids <= indexed)
        event = s.data(212)[0]
        self.assertEqual(event[:2], ["double_dealloc", "free"])
        hia = s.data(210)[0]
        self.assertEqual(hia[-1], "1")
        props = s.data(209)[0]
        self.assertEqual(props[6], "64" if qmtest.is_64() else "32")
        self.assertEqual(props[9], os.path.realpath(target("snapshot")) if not config()["emulated"] else props[9])
        self.assertEqual(s.data(101)[0][4], "note: generated from event")

    def test_without_comments_the_numbers_still_hold(self):
        self.run_in_dir("one", "", "nocomments")
        reads_back(self, self.files()[0], comments=False)

    def test_a_request_writes_where_the_template_says(self):
        r = self.run_in_dir("request", "", "sub/%4q-%p.snap")
        self.assertEqual(r.stdout, "request: -1\n")  # no directory "sub"
        self.assertIn("cannot create the snapshot file", r.stderr)
        os.mkdir(os.path.join(self.dir, "sub"))
        r = self.run_in_dir("request", "", "sub/%4q-%p.snap")
        self.assertEqual(r.stdout, "request: 0\n", r.stderr)
        assert_no_events(r.stderr)
        files = glob.glob(os.path.join(self.dir, "sub", "*.snap"))
        self.assertEqual(len(files), 1)
        self.assertRegex(os.path.basename(files[0]), r"^0000-\d+\.snap$")
        s = reads_back(self, files[0])
        self.assertNotIn(212, s.sections)  # no event
        self.assertEqual(s.data(210)[0][-1], "0")
        info = s.data(101)[0]
        self.assertEqual(info[3:5], ["a title", "some notes"])

    def test_the_file_size_limit_cuts_the_file_and_spares_the_program(self):
        import resource
        import subprocess
        env = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2 enable_generate_lwmdbg=true "
               "lwmdbg_double_dealloc=true enable_hoarding=true"}
        cmd = [config()["runner"], "--preload", config()["lib"]]
        for k, v in env.items():
            cmd += ["--env", "%s=%s" % (k, v)]
        r = subprocess.run(cmd + ["--", target("snapshot"), "one"], capture_output=True, text=True, cwd=self.dir,
                           preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (4000, 4000)))
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stderr.count("reached the file size limit (RLIMIT_FSIZE, 4000 bytes)"), 1, r.stderr)
        self.assertEqual(os.path.getsize(self.files()[0]), 4000)

    def test_live_blocks_guards_are_checked_while_dumping(self):
        r = self.run_in_dir("guards", "enable_guard_blocks=true")
        addr, result = r.stdout.split()
        self.assertEqual(result, "0", r.stderr)
        s = reads_back(self, os.path.join(self.dir, "guards.lwmdbg"))
        rows = [row for row in s.data(301) if int(row[0], 16) == int(addr, 16)]
        self.assertEqual(len(rows), 1)
        self.assertEqual(rows[0][12:], ["0", "1"])  # pre-guard whole, post-guard damaged
        self.assertNotEqual(rows[0][9], "0")  # its guard id
        self.assertEqual(len(s.data(205)), 1)  # one guard geometry

    def test_a_full_file_system_gives_one_message(self):
        import subprocess
        full = os.path.join(self.dir, "full")
        os.mkdir(full)
        if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8k", "tmpfs", full],
                          capture_output=True).returncode != 0:
            self.skipTest("cannot mount a small file system here")
        try:
            r = self.run_in_dir("one", "lwmdbg_pathname=%s/%%p.lwmdbg" % full)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertEqual(r.stderr.count("error writing the snapshot file: No space left on device"), 1, r.stderr)
        finally:
            subprocess.run(["umount", full])

    def test_two_threads_write_two_whole_files(self):
        r = self.run_in_dir("threads")
        self.assertEqual(r.returncode, 0, r.stderr)
        files = self.files()
        self.assertEqual([f[-13:] for f in files], ["000000.lwmdbg", "000001.lwmdbg"])
        for f in files:
            self.assertEqual(reads_back(self, f).data(212)[0][0], "double_dealloc")

    def test_a_forked_child_names_itself(self):
        r = self.run_in_dir("fork")
        child = int(r.stdout.split()[1])
        files = self.files()
        self.assertEqual(len(files), 1, r.stderr)
        self.assertIn("-%08d-" % child, os.path.basename(files[0]))
        reads_back(self, files[0])


def core_segments(path):
    """The LOAD segments of an ELF core file as (address, bytes) pairs, read
    from the ELF structures alone; and the file's class and machine."""
    import struct
    with open(path, "rb") as f:
        data = f.read()
    assert data[:4] == b"\x7fELF"
    is64 = data[4] == 2
    if is64:
        e_type, e_machine, _, _, e_phoff, _, _, _, e_phentsize, e_phnum = struct.unpack_from("<HHIQQQIHHH", data, 16)
    else:
        e_type, e_machine, _, _, e_phoff, _, _, _, e_phentsize, e_phnum = struct.unpack_from("<HHIIIIIHHH", data, 16)
    segs = []
    for i in range(e_phnum):
        off = e_phoff + i * e_phentsize
        if is64:
            p_type, _, p_offset, p_vaddr, _, p_filesz, _, _ = struct.unpack_from("<IIQQQQQQ", data, off)
        else:
            p_type, p_offset, p_vaddr, _, p_filesz, _, _, _ = struct.unpack_from("<IIIIIIII", data, off)
        if p_type == 1:
            segs.append((p_vaddr, data[p_offset:p_offset + p_filesz]))
    return (is64, e_type, e_machine), segs


class LightweightCore(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp()

    def tearDown(self):
        shutil.rmtree(self.dir)

    def write_core(self):
        r = run([target("snapshot"), "lwmem"], env=qmtest.VERBOSE, cwd=self.dir, timeout=60)
        assert_no_events(r.stderr)
        block, local, result = r.stdout.split()
        self.assertEqual(result, "0", r.stderr)
        files = glob.glob(os.path.join(self.dir, "core-*.lwmem"))
        self.assertEqual(len(files), 1)
        return files[0], int(block, 16), int(local, 16)

    def test_the_heap_and_the_agent_without_the_stack(self):
        path, block, local = self.write_core()
        kind, segs = core_segments(path)
        self.assertEqual(kind, (qmtest.is_64(), 4, 62 if qmtest.is_64() else 3))  # ET_CORE, EM_X86_64 or EM_386
        def at(addr, n):
            for start, data in segs:
                if start <= addr and addr + n <= start + len(data):
                    return data[addr - start:addr - start + n]
            return None
        self.assertEqual(at(block, 17), b"a recorded block\0")
        self.assertIsNone(at(local, 4))  # no stack

    def test_the_template_names_the_mpi_rank(self):
        env = dict(qmtest.VERBOSE, QMHEAP_MPI_RANK_DISCOVERY_METHOD="variable", QMHEAP_MPI_RANK="PMI_RANK",
                   PMI_RANK="37")
        env["QMHEAP_ARGS"] += " lwmem_pathname=r%4r-%q.lwmem"
        r = run([target("snapshot"), "lwmem", "-"], env=env, cwd=self.dir)
        self.assertEqual(r.stdout.split()[2], "0", r.stderr)
        self.assertEqual(os.listdir(self.dir), ["r0037-0.lwmem"])

    @unittest.skipIf(config()["emulated"] or not shutil.which("gdb"), "gdb runs natively only")
    def test_gdb_reads_the_agents_tables_and_a_block(self):
        path, block, _ = self.write_core()
        r = qmtest.gdb(["set auto-load safe-path /", "core-file " + path, "x/s %#x" % block,
                        "print QM_HEAP_allocation_table.num_records > 0",
                        "print *(allocation_record_t*)QM_HEAP_allocation_table.root",
                        "print QM_HEAP_lwmdbg_write_comments"], [target("snapshot")])
        self.assertIn('"a recorded block"', r.stdout, r.stdout + r.stderr)
        self.assertIn("$1 = 1", r.stdout)
        self.assertRegex(r.stdout, r"\$2 = \{addr = 0x[0-9a-f]+, len = \d+, backtrace_id = \d+")
        self.assertIn("$3 = 1", r.stdout)


if __name__ == "__main__":
    qmtest.main()
