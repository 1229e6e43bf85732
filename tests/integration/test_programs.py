"""Programs run under the agent behave exactly as they do without it. Every
program here is correct and runs at verbosity 2: any event the agent
reports is a false report, and fails the test (allfuncs alone makes four
reports on purpose, and exactly those are expected)."""

import os
import shutil
import tempfile
import unittest

import qmtest
from qmtest import VERBOSE, assert_no_events, config, run, run_host, target


def allfuncs_reports():
    """What allfuncs makes the agent report, on purpose: the C contract's
    edge cases of a calloc that overflows, a malloc too large to succeed and
    two alignments posix_memalign rejects. Nothing else may appear."""
    top = 2 ** (64 if qmtest.is_64() else 32)
    # An overflowing calloc stands for more than can be addressed.
    return ("QM_HEAP:  calloc       : null returned for allocation request: %d (%#x)\n"
            "QM_HEAP:  posix_memalign: bad alignment argument received (3)\n"
            "QM_HEAP:  posix_memalign: bad alignment argument received (%d)\n"
            "QM_HEAP:  malloc       : null returned for allocation request: %d (%#x)\n"
            % (top - 1, top - 1, 3 * (8 if qmtest.is_64() else 4), top - 4097, top - 4097))


class Targets(unittest.TestCase):
    def test_every_heap_function_in_every_combination(self):
        plain = run([target("allfuncs")], preload=False)
        under = run([target("allfuncs")], env=dict(VERBOSE, QM_EXPECT_AGENT="1"))
        self.assertEqual(plain.returncode, 0, plain.stderr)
        self.assertEqual(under.returncode, 0, under.stderr)
        self.assertEqual(under.stdout, plain.stdout)
        self.assertEqual(qmtest.without_frame(under.stderr), allfuncs_reports())

    def test_blocks_glibc_makes_on_its_own_raise_nothing(self):
        r = run([target("glibc_extras")], env=VERBOSE)
        self.assertEqual((r.returncode, r.stdout), (0, "glibc_extras: ok\n"), r.stderr)
        assert_no_events(r.stderr)
        self.assertEqual(qmtest.without_frame(r.stderr), "")

    def test_threads_exceptions_iostreams_and_fork(self):
        r = run([target("cxx_threads")], env=VERBOSE, timeout=600)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertEqual(r.stdout, "cxx_threads: total 3988, child 0\n")
        assert_no_events(r.stderr)

    def test_heap_calls_before_the_load_hook_and_after_the_unload_hook(self):
        early = os.path.join(config()["targets"], "libqmearly.so")
        r = run([target("allfuncs")], extra_preload=[early], env=VERBOSE)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertTrue(r.stdout.startswith("early ok\n"), r.stdout)
        # ...and calls after the unload hook still work.
        self.assertTrue(r.stdout.endswith("late ok\n"), r.stdout)
        self.assertIn("QM_HEAP:  FINISHING malloc interposition\n", r.stderr)
        self.assertEqual(qmtest.without_frame(r.stderr), allfuncs_reports())


# Guards, painting on allocation and release, and the hoard, all on.
PROTECTED = {"QMHEAP_CONFIG_FILE": "",
             "QMHEAP_ARGS": "verbosity=2 enable_guard_blocks=true paint_on_alloc=true paint_on_dealloc=true enable_hoarding=true"}


@unittest.skipUnless(qmtest.is_64(), "real host programs are x86-64")
class RealPrograms(unittest.TestCase):
    """At verbosity 2 every event would be reported: there must be none."""

    SETTINGS = VERBOSE

    def same_as_plain(self, argv, env=None, input=None, cwd=None):
        e = dict(os.environ)
        e.update(env or {})
        import subprocess
        plain = subprocess.run(argv, capture_output=True, text=True, env=e, input=input, cwd=cwd)
        under = run_host(argv, env=dict(env or {}, **self.SETTINGS), input=input, cwd=cwd)
        assert_no_events(under.stderr)
        self.assertEqual(under.returncode, plain.returncode, under.stderr)
        self.assertEqual(under.stdout, plain.stdout)
        self.assertEqual(qmtest.without_frame(under.stderr), plain.stderr)
        return under

    def test_bash_pipeline_with_subshells(self):
        script = ("for i in $(seq 1 200); do echo line $i; done | (sort -r | head -n 50) | "
                  "while read a b; do echo $((b * 2)); done | tr 0-9 a-j | sort | uniq -c | wc -l; "
                  "x=$( (echo nested; (echo deeper)) | wc -l); echo $x")
        self.same_as_plain(["bash", "-c", script])

    def test_python_with_threads(self):
        code = ("import threading, json\n"
                "out = {}\n"
                "def f(i):\n"
                "    d = {str(k): [k] * (k % 7) for k in range(20000)}\n"
                "    out[i] = len(json.dumps(d))\n"
                "ts = [threading.Thread(target=f, args=(i,)) for i in range(4)]\n"
                "[t.start() for t in ts]; [t.join() for t in ts]\n"
                "print(sorted(out.items()))\n")
        self.same_as_plain(["/usr/bin/python3", "-c", code], env={"PYTHONMALLOC": "malloc"})

    def test_perl(self):
        self.same_as_plain(["perl", "-e",
                            'my %h; $h{$_} = join(",", 1..($_ % 50)) for 1..50000; '
                            'my @k = sort { $a <=> $b } keys %h; print scalar(@k), " $k[-1]\\n";'])

    def test_gcc_compiles_links_and_runs(self):
        d = tempfile.mkdtemp()
        try:
            src = os.path.join(d, "hello.c")
            with open(src, "w") as f:
                f.write('#include <stdio.h>\n#include <stdlib.h>\n'
                        'int main(void){char*p=malloc(10);p[0]=1;free(p);puts("compiled ok");return 0;}\n')
            exe = os.path.join(d, "hello")
            r = self.same_as_plain(["gcc", "-O2", "-o", exe, src])
            self.assertEqual(r.returncode, 0, r.stderr)
            r = run_host([exe], env=self.SETTINGS)
            self.assertEqual((r.returncode, r.stdout), (0, "compiled ok\n"))
            assert_no_events(r.stderr)
        finally:
            shutil.rmtree(d)

    def test_sqlite3(self):
        sql = ("create table t(a integer primary key, b text, c real);\n"
               "with recursive n(i) as (select 1 union all select i + 1 from n where i < 20000)\n"
               "insert into t select i, printf('row %d', i * 7), i / 3.0 from n;\n"
               "create index tb on t(b);\n"
               "select count(*), sum(c), max(b) from t where a % 3 = 0;\n"
               "select b from t where b like 'row 7%' order by b desc limit 3;\n")
        self.same_as_plain(["sqlite3", ":memory:"], input=sql)

    def test_git_session(self):
        # The same session plain and under the agent, each in a directory of
        # its own: fixed dates make the same commit ids.
        env = {"GIT_AUTHOR_NAME": "t", "GIT_AUTHOR_EMAIL": "t@e", "GIT_COMMITTER_NAME": "t",
               "GIT_COMMITTER_EMAIL": "t@e", "GIT_AUTHOR_DATE": "2026-01-01T00:00:00Z",
               "GIT_COMMITTER_DATE": "2026-01-01T00:00:00Z", "GIT_CONFIG_NOSYSTEM": "1"}
        script = ("git init -q -b main . && git add . && git commit -q -m first && "
                  "git log --format=%H%n%s && git fsck --no-progress && echo fsck ok")
        dirs = [tempfile.mkdtemp(), tempfile.mkdtemp()]
        try:
            for d in dirs:
                for i in range(200):
                    with open(os.path.join(d, "f%03d.txt" % i), "w") as f:
                        f.write("file %d\n" % i * (i % 13 + 1))
            import subprocess
            plain = subprocess.run(["bash", "-c", script], capture_output=True, text=True, cwd=dirs[0],
                                   env=dict(os.environ, HOME=dirs[0], **env))
            under = run_host(["bash", "-c", script], env=dict(env, HOME=dirs[1], **self.SETTINGS), cwd=dirs[1])
            assert_no_events(under.stderr)
            self.assertEqual((under.returncode, under.stdout), (plain.returncode, plain.stdout), under.stderr)
            self.assertIn("first", under.stdout)
        finally:
            for d in dirs:
                shutil.rmtree(d)


class RealProgramsProtected(RealPrograms):
    """The same programs with every block guarded and painted and every
    release hoarded: still no event and the same behaviour."""

    SETTINGS = PROTECTED

    def test_threads_exceptions_iostreams_and_fork(self):
        r = run([target("cxx_threads")], env=PROTECTED, timeout=600)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertEqual(r.stdout, "cxx_threads: total 3988, child 0\n")
        assert_no_events(r.stderr)


RED_ZONES = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "verbosity=2 enable_red_zones=true rz_detect_use_after_free=false"}
# For a program with more live blocks than the kernel gives a process
# mappings (two a block): red zones on the blocks of 256 bytes and more.
RED_ZONE_RANGE = {"QMHEAP_CONFIG_FILE": "",
                  "QMHEAP_ARGS": "verbosity=2 enable_red_zones=true enable_rz_size_ranges=true "
                                 "rz_size_range=0,256,0 rz_size_range_enable=0,true"}


class RealProgramsRedZones(RealPrograms):
    """The same programs with a red zone behind every block (where the
    mapping limit allows): a fault the program does not make is never
    reported, and the program's blocks work as without them."""

    SETTINGS = RED_ZONES

    def test_python_with_threads(self):
        self.SETTINGS = RED_ZONE_RANGE
        super().test_python_with_threads()

    def test_perl(self):
        self.SETTINGS = RED_ZONE_RANGE
        super().test_perl()


class TargetsRedZones(unittest.TestCase):
    """Both architectures: every heap function's edge cases and a threaded
    C++ program with a red zone behind every block."""

    def test_every_heap_function_in_every_combination(self):
        plain = run([target("allfuncs")], preload=False)
        under = run([target("allfuncs")], env=dict(RED_ZONES, QM_EXPECT_AGENT="1"))
        self.assertEqual((under.returncode, under.stdout), (0, plain.stdout), under.stderr)
        self.assertEqual(qmtest.without_frame(under.stderr), allfuncs_reports())

    def test_threads_exceptions_iostreams_and_fork(self):
        r = run([target("cxx_threads")], env=RED_ZONES, timeout=600)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertEqual(r.stdout, "cxx_threads: total 3988, child 0\n")
        assert_no_events(r.stderr)


if __name__ == "__main__":
    qmtest.main()
