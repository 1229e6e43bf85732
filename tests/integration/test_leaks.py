"""The reachability scan: at exit, on a signal and through the control
function it finds exactly the known leaks of the leaks target (a lost list,
a lost cycle, a block held only by an interior pointer) in both word sizes,
keeps the threads it stops, writes its result into the snapshot file where
the report reads it; and correct programs (python3, perl, C++ statics,
threads alive at exit, gcc, git) have no definitely lost block that is not
a real leak: where they do leak, valgrind says so too."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

import qmtest
from qmtest import assert_no_events, config, run, run_host, target

SCAN = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2 reachability_scan_on_exit=true"}
NODE = 24 if qmtest.is_64() else 20  # struct node of the target
SUMMARY = re.compile(r"QM_HEAP:  reachability : (\d+) blocks \((\d+) bytes\) reachable, (\d+) \((\d+) bytes\) only "
                     r"through interior pointers, (\d+) \((\d+) bytes\) definitely lost, (\d+) \((\d+) bytes\) "
                     r"indirectly lost")
LAUNCHER = config().get("launcher", "")


def scans(text):
    """Each scan's (kind -> (blocks, bytes)), in order."""
    out = []
    for m in SUMMARY.finditer(text):
        v = [int(x) for x in m.groups()]
        out.append({"reachable": (v[0], v[1]), "interior": (v[2], v[3]), "definite": (v[4], v[5]),
                    "indirect": (v[6], v[7])})
    return out


def groups(text, kind):
    """The report's group lines of a kind, without their frames."""
    head = "QM_HEAP:  %s: " % kind
    return [l[len(head):] for l in text.splitlines() if l.startswith(head)]


class KnownLeaks(unittest.TestCase):
    LOST = ["%d bytes in 1 block (and %d bytes in 3 blocks indirectly), allocated at" % (NODE, 3 * NODE),
            "%d bytes in 1 block (and %d bytes in 1 block indirectly), allocated at" % (NODE, NODE)]

    def check_known(self, r):
        self.assertEqual(r.returncode, 0, r.stderr)
        assert_no_events(r.stderr)
        found = scans(r.stderr)
        self.assertEqual(len(found), 1, r.stderr)
        self.assertEqual(found[0]["definite"], (2, 2 * NODE))
        self.assertEqual(found[0]["indirect"], (4, 4 * NODE))
        self.assertEqual(groups(r.stderr, "definitely lost"), self.LOST)
        # The block held by a pointer into its middle (glibc's thread vector
        # is held the same way: it is interior too, never lost).
        self.assertIn("32 bytes in 1 block, allocated at", groups(r.stderr, "interior"))
        # Every frame of the list's stack is named by its image.
        self.assertRegex(r.stderr, r"QM_HEAP:        #0  [0-9a-f]+ leaks\+0x[0-9a-f]+")
        return found[0]

    def test_exit_scan_finds_the_list_the_cycle_and_the_interior_block(self):
        r = run([target("leaks"), "exit"], env=SCAN)
        self.assertIn("leaks: exit done\n", r.stdout)
        found = self.check_known(r)
        # Global, thread-local, mapped, another thread's stack and TLS, stdout's buffer.
        self.assertGreaterEqual(found["reachable"][0], 7)
        if not config()["emulated"]:
            self.assertIn("scan 1: 1 other threads stopped, 0 not stopped", r.stderr)

    def test_a_thread_that_blocks_every_signal_is_left_running_and_its_stack_still_counts(self):
        r = run([target("leaks"), "blocked"], env=SCAN, timeout=60)
        self.check_known(r)
        self.assertRegex(r.stderr, r"scan 1: 0 other threads stopped, [12] not stopped")

    def test_shared_read_only_and_alternate_stack_memory_are_roots(self):
        for mode, settings in (("memory", ""), ("altstack", " reachability_scan_signal=10")):
            r = run([target("roots"), mode], env=dict(SCAN, QMHEAP_ARGS=SCAN["QMHEAP_ARGS"] + settings))
            self.assertEqual((r.returncode, r.stdout), (0, "roots: %s done\n" % mode), r.stderr)
            assert_no_events(r.stderr)
            found = scans(r.stderr)
            self.assertEqual(len(found), 2 if settings else 1, r.stderr)
            for f in found:
                self.assertEqual((f["definite"], f["indirect"]), ((0, 0), (0, 0)), r.stderr)

    def test_the_control_function_scans_on_request(self):
        r = run([target("leaks"), "api"], env=dict(SCAN, QMHEAP_ARGS="verbosity=2"))
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertRegex(r.stdout, r"^scan 0: interior \d+/\d+ definitely 2/%d indirectly 4/%d\n" % (2 * NODE, 4 * NODE))
        self.assertEqual(scans(r.stderr), [])  # print was 0

    def test_a_signal_scans_a_running_program_which_goes_on(self):
        r = run([target("leaks"), "signal", "10"],
                env=dict(SCAN, QMHEAP_ARGS=SCAN["QMHEAP_ARGS"] + " reachability_scan_signal=10"))
        self.assertEqual((r.returncode, r.stdout), (0, "leaks: signal done\n"), r.stderr)
        assert_no_events(r.stderr)
        first, last = scans(r.stderr)
        self.assertEqual((first["definite"], first["indirect"]), ((2, 2 * NODE), (4, 4 * NODE)))
        # The program found its list again and freed it: only the cycle is left.
        self.assertEqual((last["definite"], last["indirect"]), ((1, NODE), (1, NODE)))

    def test_an_unusable_signal_is_said(self):
        r = run([target("leaks"), "api"], env=dict(SCAN, QMHEAP_ARGS="reachability_scan_signal=9"))
        self.assertIn("QM_HEAP:  reachability_scan_signal: signal 9 cannot be used for scans on demand\n", r.stderr)
        self.assertEqual(r.returncode, 0)

    def test_the_snapshot_carries_the_result_and_the_report_reads_it(self):
        d = tempfile.mkdtemp()
        try:
            env = dict(SCAN, QMHEAP_ARGS=SCAN["QMHEAP_ARGS"] +
                       " enable_generate_lwmdbg=true lwmdbg_termination=true lwmdbg_pathname=%s/leaks-%%6q.lwmdbg" % d)
            r = run([target("leaks"), "exit"], env=env)
            self.assertEqual(r.returncode, 0, r.stderr)
            path = os.path.join(d, "leaks-000000.lwmdbg")
            lines = open(path).read().splitlines()
            # The defined table of contents still describes the file: four
            # section tocs, every subsection inside the file, none of them
            # over the extension's lines.
            sid, count, first = map(int, lines[-1].split("^"))
            self.assertEqual((sid, count), (99, 4))
            ext_start = next(i for i, l in enumerate(lines) if l.startswith("# ============ start of extension"))
            ext_end = next(i for i, l in enumerate(lines) if l.startswith("# ============ end of extension"))
            for n in range(first, first + 4):
                _, c, at = map(int, lines[n - 1].split("^"))
                for k in range(at, at + c):
                    s, cc, ll = map(int, lines[k - 1].split("^"))
                    self.assertTrue(ll + cc - 1 <= ext_start or ll > ext_end + 1, (s, cc, ll))
            kinds = [l.split("^")[2] for l in lines[ext_start:ext_end] if l.count("^") == 4]
            self.assertEqual(sorted(kinds).count("definitely_lost"), 2)
            self.assertEqual(sorted(kinds).count("indirectly_lost"), 4)
            if not os.path.exists(LAUNCHER):
                return
            rep = subprocess.run([LAUNCHER, "report", path], capture_output=True, text=True, timeout=120)
            self.assertEqual(rep.returncode, 0, rep.stderr)
            self.assertIn("by reachability: 2 blocks (%d bytes) definitely lost, 4 blocks (%d bytes) indirectly lost,"
                          % (2 * NODE, 4 * NODE), rep.stdout)
            self.assertRegex(rep.stdout, r"%d bytes in 1 blocks definitely lost, allocated by:\n    #0 .* make_list "
                             r"\(.*leaks.c:\d+\)" % NODE)
            self.assertIn("(2 definitely lost)", rep.stdout)
        finally:
            shutil.rmtree(d)


class CxxStatics(unittest.TestCase):
    def test_cxx_statics_while_running_and_at_exit(self):
        r = run([target("cxx_statics")], env=SCAN)
        self.assertEqual(r.returncode, 0, r.stderr)
        assert_no_events(r.stderr)
        found = scans(r.stderr)
        self.assertEqual(len(found), 2)
        self.assertGreater(found[0]["reachable"][0], 3000)
        self.assertEqual([(f["definite"], f["indirect"]) for f in found], [((0, 0), (0, 0))] * 2)


@unittest.skipUnless(qmtest.is_64() and os.path.exists(LAUNCHER), "the launcher and gdb drive x86-64 programs")
class Tools(unittest.TestCase):
    def test_the_launcher_option(self):
        r = subprocess.run([LAUNCHER, "--leak-check", "--", target("leaks")], capture_output=True, text=True,
                           timeout=120, env=dict(os.environ, QMHEAP_CONFIG_FILE=""))
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(scans(r.stderr)[0]["definite"], (2, 2 * NODE))

    @unittest.skipIf(shutil.which("gdb") is None, "no gdb")
    def test_the_gdb_command_scans_with_the_program_stopped(self):
        ext = os.path.join(config()["source_dir"], "tools", "gdb", "qmheap.py")
        r = qmtest.gdb(["set startup-with-shell off", "set environment LD_PRELOAD=%s" % config()["lib"],
                        "set environment QMHEAP_CONFIG_FILE=", "source %s" % ext, "break exit", "run",
                        "qmheap leaks", "kill", ""], [target("leaks")])
        self.assertIn("qmheap: scan done", r.stdout, r.stdout + r.stderr)
        found = scans(r.stdout + r.stderr)
        self.assertEqual((found[0]["definite"], found[0]["indirect"]), ((2, 2 * NODE), (4, 4 * NODE)))
        self.assertIn("1 other threads stopped, 0 not stopped", r.stdout + r.stderr)


def definite(text):
    """Blocks and bytes definitely lost, summed over every process's scan."""
    found = scans(text)
    return sum(f["definite"][0] for f in found), sum(f["definite"][1] for f in found), len(found)


def valgrind_definite(argv, env=None, input=None, cwd=None):
    """What valgrind's leak check says is definitely lost, summed over the
    processes; None without valgrind."""
    if shutil.which("valgrind") is None:
        return None
    r = subprocess.run(["valgrind", "--leak-check=full", "--trace-children=yes", "-q", "--show-leak-kinds=definite"]
                       + argv, capture_output=True, text=True, env=dict(os.environ, **(env or {})), input=input,
                       cwd=cwd, timeout=600)
    blocks = bytes_ = 0
    for m in re.finditer(r"([\d,]+) (?:\(([\d,]+) direct, [\d,]+ indirect\) )?bytes in ([\d,]+) blocks are definitely",
                         r.stderr):
        bytes_ += int((m.group(2) or m.group(1)).replace(",", ""))
        blocks += int(m.group(3).replace(",", ""))
    return blocks, bytes_


@unittest.skipUnless(qmtest.is_64(), "real host programs are x86-64")
class CorrectPrograms(unittest.TestCase):
    """Every program here frees what it must or keeps it reachable; the
    definitely lost blocks it has are real leaks (valgrind finds at least as
    many), and at verbosity 2 nothing else is reported."""

    def scan(self, argv, env=None, input=None, cwd=None, processes=1):
        r = run_host(argv, env=dict(SCAN, **(env or {})), input=input, cwd=cwd)
        self.assertEqual(r.returncode, 0, r.stderr[-3000:])
        assert_no_events(r.stderr)
        blocks, bytes_, n = definite(r.stderr)
        self.assertGreaterEqual(n, processes, r.stderr[-3000:])
        return blocks, bytes_, r

    def no_more_than_valgrind(self, argv, env=None, cwd=None):
        blocks, bytes_, r = self.scan(argv, env=env, cwd=cwd)
        if blocks == 0:
            return
        theirs = valgrind_definite(argv, env=env, cwd=cwd)
        if theirs is None:
            self.skipTest("valgrind is not installed: %d blocks (%d bytes) definitely lost unchecked" % (blocks, bytes_))
        self.assertLessEqual(blocks, theirs[0], r.stderr[-3000:])
        self.assertLessEqual(bytes_, theirs[1], r.stderr[-3000:])

    def test_python_with_threads_and_its_own_arenas(self):
        code = ("import threading, json, re\n"
                "cache = {}\n"
                "def f(i):\n"
                "    d = {str(k): [k] * (k % 7) for k in range(5000)}\n"
                "    cache[i] = (json.dumps(d), re.compile('x%d+' % i))\n"
                "ts = [threading.Thread(target=f, args=(i,)) for i in range(4)]\n"
                "[t.start() for t in ts]; [t.join() for t in ts]\n"
                "threading.Thread(target=lambda: __import__('time').sleep(60), daemon=True).start()\n"
                "print(len(cache))\n")
        self.assertEqual(self.scan(["/usr/bin/python3", "-c", code])[:2], (0, 0))

    def test_perl_fully_destructed_and_as_is(self):
        prog = ["perl", "-e", 'my %h; $h{$_} = [1..($_ % 9)] for 1..5000; print scalar(keys %h), "\\n";']
        self.assertEqual(self.scan(prog, env={"PERL_DESTRUCT_LEVEL": "2"})[:2], (0, 0))
        # Without full destruction perl drops its interpreter's structures
        # at exit: real leaks, which valgrind finds too.
        self.no_more_than_valgrind(prog)

    def test_gcc_compiles_and_links(self):
        d = tempfile.mkdtemp()
        try:
            with open(os.path.join(d, "hello.c"), "w") as f:
                f.write('#include <stdio.h>\nint main(void){puts("hello");return 0;}\n')
            self.no_more_than_valgrind(["gcc", "-O2", "-o", "hello", "hello.c"], cwd=d)
        finally:
            shutil.rmtree(d)

    def test_git_reads_a_repository(self):
        d = tempfile.mkdtemp()
        try:
            env = {"GIT_AUTHOR_NAME": "t", "GIT_AUTHOR_EMAIL": "t@e", "GIT_COMMITTER_NAME": "t",
                   "GIT_COMMITTER_EMAIL": "t@e", "GIT_CONFIG_NOSYSTEM": "1", "HOME": d}
            for i in range(20):
                with open(os.path.join(d, "f%d.txt" % i), "w") as f:
                    f.write("line %d\n" % i * 50)
            subprocess.run("git init -q -b main . && git add . && git commit -q -m first && echo x >> f1.txt",
                           shell=True, cwd=d, check=True, env=dict(os.environ, **env))
            for argv in (["git", "status"], ["git", "log", "--stat"], ["git", "diff"], ["git", "fsck", "--no-progress"]):
                self.no_more_than_valgrind(argv, env=env, cwd=d)
        finally:
            shutil.rmtree(d)

if __name__ == "__main__":
    qmtest.main()
