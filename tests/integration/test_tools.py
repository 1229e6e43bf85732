"""The tools: the launcher (`qmheap [options] -- program args` runs the
program under the agent of its word size, with its options as settings, the
program's arguments and exit status passed through, and a clear word for a
bad option), and the gdb extension."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import qmtest
from qmtest import assert_no_events, config, target

LAUNCHER = config().get("launcher", "")


def launch(*argv, env=None):
    e = dict(os.environ)
    e.pop("LD_PRELOAD", None)
    e["QMHEAP_CONFIG_FILE"] = ""
    e.update(env or {})
    return subprocess.run([LAUNCHER] + list(argv), capture_output=True, text=True, env=e, timeout=120)


def environment(stdout):
    return dict(l.split("=", 1) for l in stdout.splitlines() if "=" in l)


@unittest.skipUnless(qmtest.is_64() and os.path.exists(LAUNCHER), "the launcher runs the host's programs")
class LauncherTest(unittest.TestCase):
    def test_options_become_settings_and_the_agent_goes_first(self):
        r = launch("--guards", "--leaks", "--backtrace-depth=3", "--red-zones", "--rz-size-range=1024-0",
                   "--hoard-maximum-kb=64", "--set=notify_double_dealloc=false", "--", "/usr/bin/env",
                   env={"LD_PRELOAD": "/nonexistent/libother.so", "QMHEAP_ARGS": "paint_on_alloc=true"})
        env = environment(r.stdout)
        self.assertEqual(env["LD_PRELOAD"], os.path.realpath(config()["lib"]) + ":/nonexistent/libother.so")
        self.assertEqual(env["QMHEAP_ARGS"].split(), [
            "paint_on_alloc=true", "verbosity=2", "enable_guard_blocks=true", "display_allocations_on_exit=true",
            "backtrace_depth=3", "enable_red_zones=true", "rz_mode=overrun", "enable_rz_size_ranges=true",
            "rz_size_range=0,1024,0", "rz_size_range_enable=0,true", "hoard_maximum_kb=64",
            "notify_double_dealloc=false"])
        self.assertIn("QM_HEAP:  STARTING", r.stderr)

    def test_arguments_and_exit_status_pass_through(self):
        r = launch("--", "sh", "-c", 'printf "%s|" "$@"; exit 7', "x", "a b", "--guards", "")
        self.assertEqual((r.returncode, r.stdout), (7, "a b|--guards||"))
        assert_no_events(r.stderr)
        r = launch("true")  # no "--" needed
        self.assertEqual(r.returncode, 0)

    def test_errors_are_reported_as_the_agent_sees_them(self):
        r = launch("--", target("families"), "new-free")
        self.assertEqual(r.stdout, "done\n")
        self.assertIn("mismatched deallocation: block made by new released by free", r.stderr)
        r = launch("--verbosity=0", "--", target("families"), "new-free")
        self.assertNotIn("mismatched", r.stderr)

    def test_a_script_takes_the_agent_of_its_interpreter(self):
        d = tempfile.mkdtemp()
        try:
            script = os.path.join(d, "s")
            with open(script, "w") as f:
                f.write("#!/bin/sh\necho LD_PRELOAD=$LD_PRELOAD\n")
            os.chmod(script, 0o755)
            r = launch("--", script)
            self.assertEqual(environment(r.stdout)["LD_PRELOAD"], os.path.realpath(config()["lib"]))
        finally:
            shutil.rmtree(d)

    def test_bad_options_and_programs_are_said_clearly(self):
        for argv, said in ((["--bogus", "--", "true"], "unknown option '--bogus'"),
                           (["--set=bogus=1", "--", "true"], "unknown agent setting 'bogus'"),
                           (["--guards=yes", "--", "true"], "--guards takes no value"),
                           (["--backtrace-depth", "--", "true"], "--backtrace-depth needs a value"),
                           (["--output=a b", "--", "true"], "a value cannot hold white space"),
                           (["--"], "no program to run"),
                           (["--", "no-such-program-here"], "no-such-program-here: command not found"),
                           (["--", "/etc/passwd"], "/etc/passwd: not a 32-bit or 64-bit ELF program")):
            with self.subTest(argv=argv):
                r = launch(*argv)
                self.assertEqual(r.returncode, 127)
                self.assertIn("qmheap: " + said, r.stderr)

    def test_help_lists_every_setting_and_event(self):
        r = launch("--help")
        self.assertEqual(r.returncode, 0)
        settings = os.path.join(config()["source_dir"], "src", "config", "settings.inc")
        with open(settings) as f:
            keys = [l.split('"')[1] for l in f if l.startswith("QM_SETTING(")]
        for k in keys:
            self.assertIn("--%s=" % k, r.stdout)
        self.assertIn("dealloc_mismatch", r.stdout)


def report(*argv):
    return subprocess.run([LAUNCHER, "report"] + list(argv), capture_output=True, text=True, timeout=300)


@unittest.skipUnless(os.path.exists(LAUNCHER), "the report is built with the x86-64 agent")
class ReportTest(unittest.TestCase):
    """qmheap report on snapshot files this build's agent wrote."""

    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp()
        settings = ("enable_generate_lwmdbg=true lwmdbg_termination=true lwmdbg_dealloc_mismatch=true "
                    "lwmdbg_pathname=%s/%s-%%6q.lwmdbg")
        # A stripped copy of the program: its frames can only be module and offset.
        cls.stripped = os.path.join(cls.tmp, "families-stripped")
        shutil.copy(target("families"), cls.stripped)
        subprocess.run(["strip", cls.stripped], check=True)
        for case, prog in (("new-free", target("families")), ("leaks", target("families")),
                           ("stripped", cls.stripped)):
            r = qmtest.run([prog, "leaks" if case == "stripped" else case],
                           env={"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": settings % (cls.tmp, case)})
            assert r.returncode == 0, r.stderr
        r = qmtest.run([target("families"), "leaks"],
                       env={"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "enable_generate_lwmem=true lwmem_termination=true "
                            "lwmem_pathname=%s/core-%%6q.lwmem" % cls.tmp})
        assert r.returncode == 0, r.stderr
        cls.files = {n: os.path.join(cls.tmp, n) for n in os.listdir(cls.tmp) if n.endswith((".lwmdbg", ".lwmem"))}

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp)

    def test_an_error_with_its_stacks_named_as_addr2line_names_them(self):
        r = report("--json", self.files["new-free-000000.lwmdbg"])
        self.assertEqual(r.returncode, 1, r.stderr)
        res = json.loads(r.stdout)
        self.assertEqual(res["summary"]["errors"], 1)
        err = res["errors"][0]
        self.assertEqual((err["event"], err["op"]), ("dealloc_mismatch", "free"))
        alloc = err["allocated"]
        self.assertEqual(alloc[0]["function"], "main")
        self.assertTrue(alloc[0]["file"].endswith("families.cpp"))
        self.assertEqual(err["at"][0]["function"], "main")
        # The same address through addr2line: function, file and line agree.
        f = alloc[0]
        out = subprocess.run(["addr2line", "-f", "-C", "-e", target("families"), "0x%x" % (f["offset"] - 1)],
                             capture_output=True, text=True).stdout.split("\n")
        self.assertEqual(out[0], f["function"])
        self.assertEqual(out[1].split(" ")[0], "%s:%d" % (f["file"], f["line"]))

    def test_blocks_still_allocated_grouped_by_stack_largest_first(self):
        path = self.files["leaks-000000.lwmdbg"]
        r = report(path)
        self.assertEqual(r.returncode, 0, r.stderr)
        groups = re.findall(r"^(\d+) bytes in (\d+) blocks allocated by:\n +#0 +0x[0-9a-f]+ (\S+)", r.stdout, re.M)
        ours = [g for g in groups if g[2] in ("leak_big()", "leak_small()")]
        self.assertEqual(ours, [("5000", "1", "leak_big()"), ("300", "3", "leak_small()")])
        sizes = [int(g[0]) for g in groups]
        self.assertEqual(sizes, sorted(sizes, reverse=True))
        self.assertRegex(r.stdout, r"summary: 0 errors, \d+ blocks \(\d+ bytes\) still allocated, 0 suppressed, 1 file\n$")
        sup = os.path.join(self.tmp, "suppressions")
        with open(sup, "w") as f:
            f.write("# known\nleak_small\n")
        r = report("--suppressions", sup, path)
        self.assertNotIn("leak_small", r.stdout)
        folded = report("--folded", path).stdout.splitlines()
        self.assertIn(True, [l.endswith(";main;leak_big() 5000") for l in folded], folded)

    @unittest.skipUnless(shutil.which("chromium"), "needs chromium")
    def test_the_flame_graph_opens_in_a_browser(self):
        svg = os.path.join(self.tmp, "leaks.svg")
        r = report("--flamegraph", svg, self.files["leaks-000000.lwmdbg"])
        self.assertEqual(r.returncode, 0, r.stderr)
        with open(svg) as f:
            text = f.read()
        self.assertIn("<title>leak_big() (5000 bytes)</title>", text)
        profile = tempfile.mkdtemp()
        try:
            dom = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                                  "--no-first-run", "--disable-background-networking", "--disable-component-update",
                                  "--disable-sync", "--user-data-dir=" + profile, "--dump-dom", "file://" + svg],
                                 capture_output=True, text=True, timeout=120).stdout
        finally:
            shutil.rmtree(profile, ignore_errors=True)
        # Parsed as the SVG it is (an XML error gives an error page) and its
        # script ran over every frame drawn.
        m = re.search(r'<svg [^>]*data-frames="(\d+)" data-ready="yes"', dom)
        self.assertIsNotNone(m, dom[:500])
        self.assertEqual(int(m.group(1)), text.count("<rect") - 1)
        self.assertGreater(int(m.group(1)), 3)

    @unittest.skipUnless(shutil.which("heaptrack_print"), "needs heaptrack_print")
    def test_heaptrack_print_reads_the_heaptrack_file_as_the_report_counts(self):
        out = os.path.join(self.tmp, "leaks.gz")
        res = json.loads(report("--json", "--heaptrack", out, self.files["leaks-000000.lwmdbg"]).stdout)
        printed = subprocess.run(["heaptrack_print", "-f", out], capture_output=True, text=True, timeout=120).stdout
        calls = int(re.search(r"calls to allocation functions: (\d+)", printed).group(1))
        leaked = re.search(r"total memory leaked: ([\d.]+)([KMG]?)B?", printed)
        scale = {"": 1, "K": 1e3, "M": 1e6, "G": 1e9}[leaked.group(2)]
        self.assertEqual(calls, res["summary"]["blocks"])
        self.assertAlmostEqual(float(leaked.group(1)) * scale, res["summary"]["bytes"], delta=res["summary"]["bytes"] / 500)
        self.assertIn("leak_big()", printed)

    def test_a_lightweight_core_reads_as_a_snapshot(self):
        r = report(self.files["core-000000.lwmem"])
        self.assertEqual(r.returncode, 0, r.stderr)
        groups = re.findall(r"^(\d+) bytes in (\d+) blocks allocated by:\n +#0 +0x[0-9a-f]+ (\S+)", r.stdout, re.M)
        ours = [g for g in groups if g[2] in ("leak_big()", "leak_small()")]
        self.assertEqual(ours, [("5000", "1", "leak_big()"), ("300", "3", "leak_small()")])
        self.assertRegex(r.stdout, r"^== \S+core-000000.lwmem: pid \d+, \S+families, %d-bit" % (64 if qmtest.is_64() else 32))

    @unittest.skipUnless(qmtest.is_64(), "real host programs are x86-64")
    def test_a_real_program_at_exit(self):
        snap = os.path.join(self.tmp, "python")
        os.mkdir(snap)
        r = subprocess.run([LAUNCHER, "--snapshot-at-exit", "--lwmdbg-pathname=%s/py-%%6q.lwmdbg" % snap, "--",
                            "python3", "-c", "import json, re; print(json.dumps([re.sub('a', 'b', 'abc')]))"],
                           capture_output=True, text=True, env=dict(os.environ, QMHEAP_CONFIG_FILE=""))
        self.assertEqual(r.stdout, '["bbc"]\n')
        res = json.loads(report("--json", os.path.join(snap, "py-000000.lwmdbg")).stdout)
        self.assertEqual(res["summary"]["errors"], 0)
        self.assertGreater(res["summary"]["blocks"], 100)
        frames = [f for l in res["still_allocated"] for f in l["stack"]]
        # Every frame is placed in its image; python's own are named.
        self.assertTrue(all(f["module"] for f in frames))
        self.assertIn(True, [f["function"].startswith("_Py") or f["function"].startswith("Py") for f in frames])

    def test_a_stripped_program_gets_module_and_offset(self):
        r = report(self.files["stripped-000000.lwmdbg"])
        self.assertRegex(r.stdout, r"5000 bytes in 1 blocks allocated by:\n +#0 +0x[0-9a-f]+ \(%s\+0x[0-9a-f]+\)"
                         % re.escape(self.stripped))

    def test_a_file_cut_short_gives_what_it_holds(self):
        with open(self.files["leaks-000000.lwmdbg"]) as f:
            lines = f.read().splitlines(True)
        cut = os.path.join(self.tmp, "cut.lwmdbg")
        with open(cut, "w") as f:
            f.writelines(lines[:len(lines) * 2 // 3])
        r = report(cut)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("(the file has no table of contents (cut short?): read by its section comments)", r.stdout)
        self.assertIn("5000 bytes in 1 blocks allocated by:", r.stdout)
        r = report(os.path.join(self.tmp, "missing.lwmdbg"))
        self.assertEqual(r.returncode, 2)
        self.assertIn("cannot be opened", r.stderr)


@unittest.skipUnless(qmtest.is_64() and os.path.exists(LAUNCHER), "installs from the x86-64 tree")
class InstallTest(unittest.TestCase):
    def test_installed_the_launcher_finds_both_agents_beside_it(self):
        d = tempfile.mkdtemp()
        try:
            for tree in ("x86_64", "i386"):
                b = os.path.join(config()["source_dir"], "build", tree)
                if os.path.exists(os.path.join(b, "cmake_install.cmake")):
                    subprocess.run(["cmake", "--install", b, "--prefix", d], check=True, capture_output=True)
            for f in ("bin/qmheap", "bin/qmheap-inspect", "lib/qmheap/libqmheap_64.so", "share/man/man1/qmheap.1"):
                self.assertTrue(os.path.exists(os.path.join(d, f)), f)
            e = dict(os.environ, QMHEAP_CONFIG_FILE="")
            e.pop("LD_PRELOAD", None)
            r = subprocess.run([os.path.join(d, "bin", "qmheap"), "--", "/usr/bin/env"], capture_output=True, text=True,
                               env=e)
            self.assertEqual(environment(r.stdout)["LD_PRELOAD"],
                             os.path.realpath(os.path.join(d, "lib", "qmheap", "libqmheap_64.so")))
            man = subprocess.run(["man", os.path.join(d, "share", "man", "man1", "qmheap.1")], capture_output=True,
                                 text=True) if shutil.which("man") else None
            if man is not None and man.returncode == 0:
                self.assertIn("run a program under the qmheap heap checker", man.stdout)
        finally:
            shutil.rmtree(d)


MPI_JOB = os.path.join(config()["targets"], "mpi_heap")


@unittest.skipUnless(qmtest.is_64() and os.path.exists(LAUNCHER) and os.path.exists(MPI_JOB) and shutil.which("mpirun"),
                     "needs Open MPI and the launcher")
class MpiTest(unittest.TestCase):
    def test_one_rank_in_error_the_others_unchanged_and_one_merged_report(self):
        d = tempfile.mkdtemp()
        try:
            e = dict(os.environ, QMHEAP_CONFIG_FILE="", OMPI_ALLOW_RUN_AS_ROOT="1", OMPI_ALLOW_RUN_AS_ROOT_CONFIRM="1")
            e.pop("LD_PRELOAD", None)
            mpirun = ["mpirun", "-np", "4", "--oversubscribe"]
            plain = subprocess.run(mpirun + [MPI_JOB], capture_output=True, text=True, env=e, cwd=d, timeout=300,
                                   stdin=subprocess.DEVNULL)
            r = subprocess.run(mpirun + [LAUNCHER, "--guards", "--snapshot-on-error", "--snapshot-at-exit", "--",
                                         MPI_JOB], capture_output=True, text=True, env=e, cwd=d, timeout=300,
                               stdin=subprocess.DEVNULL)
            self.assertEqual(r.returncode, 0, r.stderr[-2000:])
            self.assertEqual(sorted(r.stdout.splitlines()), sorted(plain.stdout.splitlines()))
            self.assertEqual(len(plain.stdout.splitlines()), 4)
            self.assertEqual(r.stderr.count("guard corruption"), 1, r.stderr[-2000:])
            files = sorted(n for n in os.listdir(d) if n.endswith(".lwmdbg"))
            self.assertEqual([re.sub(r"-rank(\d)-.*-(\d+)\.lwmdbg", r" \1 \2", f) for f in files],
                             ["mpi_heap 0 000000", "mpi_heap 1 000000", "mpi_heap 2 000000", "mpi_heap 2 000001",
                              "mpi_heap 3 000000"])
            rep = subprocess.run([LAUNCHER, "report", "--json"] + [os.path.join(d, f) for f in files],
                                 capture_output=True, text=True, timeout=300)
            self.assertEqual(rep.returncode, 1, rep.stderr)
            res = json.loads(rep.stdout)
            self.assertEqual([(x["event"], x["rank"]) for x in res["errors"]], [("guard_corruption", 2)])
            self.assertEqual(res["errors"][0]["allocated"][0]["function"], "main")
            self.assertIn([0, 1, 2, 3], [g["ranks"] for g in res["still_allocated"]])
        finally:
            shutil.rmtree(d)


EXTENSION = os.path.join(config()["source_dir"], "tools", "gdb", "qmheap.py")


@unittest.skipUnless(config()["native_exec"] and shutil.which("gdb"), "needs gdb on a natively run program")
class GdbExtensionTest(unittest.TestCase):
    def test_stop_at_an_event_read_the_block_its_stack_and_the_settings(self):
        d = tempfile.mkdtemp()
        try:
            snap = os.path.join(d, "at-event.lwmdbg")
            script = ["set breakpoint pending on", "source " + EXTENSION,
                      "set environment LD_PRELOAD=%s" % config()["lib"], "set environment QMHEAP_CONFIG_FILE=",
                      "qmheap stop", "run", "qmheap block event->addr", "qmheap status", "qmheap blocks 3",
                      "qmheap get verbosity", "qmheap set verbosity 2", "qmheap snapshot " + snap, "continue"]
            r = qmtest.gdb(script, [target("families"), "new-free"])
            out = r.stdout
            self.assertRegex(out, r"qmheap: dealloc mismatch in free at 0x[0-9a-f]+")
            self.assertRegex(out, r"the block 0x[0-9a-f]+, 4 bytes")
            # The block's stack, named: frame 0 is the new in main.
            self.assertRegex(out, r"allocated \(backtrace \d+\):\n +#0 +0x[0-9a-f]+ main(\(int, char\*\*\))? "
                                  r"\(\S*families\.cpp:\d+\)")
            self.assertRegex(out, r"live block 0x[0-9a-f]+, 4 bytes")
            self.assertRegex(out, r"qmheap \d+\.\d+, 64-bit agent\nlive blocks: \d+, released ranges: \d+")
            self.assertIn("verbosity = 0", out)
            self.assertIn("verbosity = 2", out)
            self.assertIn("snapshot written", out)
            self.assertTrue(os.path.exists(snap))
            self.assertIn("done", out)
        finally:
            shutil.rmtree(d)


if __name__ == "__main__":
    qmtest.main()
