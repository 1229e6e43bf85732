#!/usr/bin/env python3
"""The whole-process benchmark: real programs run plain and under the agent in
interleaved pairs, with heaptrack and valgrind (memcheck) measured the same
way as peer columns where they are installed.

For every workload: one warm-up run (plain, not counted), then PAIRS rounds;
a round runs the program plain, then under the agent, then under each peer.
Each run's wall time, CPU time (user + system of the whole process tree, as
wait4 reports it for the child and every descendant it waited for) and peak
resident set (the largest process of the tree) are taken, each tool's figure
divided by the same round's plain figure, and the median of those per-round
ratios reported. The agent runs at its default settings with no
configuration file (QMHEAP_CONFIG_FILE set empty).

The workloads: an allocation churn (1, 2 and 4 threads; i386), python3 on
lists of dicts, perl on hashes, a sqlite3 session, a gcc compile, a git
session, the python3 standard library's tests of json, re and threading
(`python3 -m test`), and a make -j2 build of a generated C project of 40
units (bench/workloads/cproject.py: two libraries and a program, then run).

Before the timed runs every workload is checked: its output (checksum,
digest, query results, object files, commit ids, each test case's outcome,
the built program's output) must be the same plain and under the agent, and
the agent at verbosity 2 must report no heap event (for the python tests,
which check that their children's standard error is empty, the agent's
lines of the whole process tree go to a FIFO instead).

Knobs (environment, or the options of the same meaning):
  QMHEAP_BENCH_PAIRS=N     rounds per workload (default 5)              --pairs N
  QMHEAP_BENCH_QUICK=1     tiny inputs and one round: checks this script --quick
  QMHEAP_BENCH_ONLY=a,b    only the workloads whose names are listed     --only a,b
  QMHEAP_BENCH_PEERS=list  peers to measure: heaptrack,valgrind (default
                           both where installed; "none" for neither)     --peers list
  QMHEAP_BENCH_VARIANTS=l  the agent with protections on, as columns:
                           guards,protect,redzones,rzrange (default all;
                           "none")                                      --variants l
  QMHEAP_BENCH_MICRO=1     then run the Google Benchmark micro benchmarks --micro

After the table, the reachability scan of a million live blocks (all
reachable, then all lost) is timed through the agent's control function.

The table goes to standard output and, with the machine and tool versions,
to bench/results/<date>-<revision>.md (-quick.md for quick runs); progress
and time estimates go to standard error.
"""
import argparse
import datetime
import fcntl
import hashlib
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import xml.etree.ElementTree as ET

BENCH = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(BENCH)
WORKLOADS = os.path.join(BENCH, "workloads")
RESULTS = os.path.join(BENCH, "results")
BUILD64 = os.path.join(ROOT, "build", "x86_64")
BUILD32 = os.path.join(ROOT, "build", "i386")
LOCK = os.path.join(tempfile.gettempdir(), "qmheap-bench.lock")

# The agent with protections on, measured as columns of their own: the
# settings added to QMHEAP_ARGS and the column's heading.
VARIANTS = {
    "guards": ("enable_guard_blocks=true", "qmheap guards"),
    "protect": ("enable_guard_blocks=true paint_on_alloc=true paint_on_dealloc=true enable_hoarding=true",
                "qmheap guards+paint+hoard"),
    "redzones": ("enable_red_zones=true", "qmheap red zones, every block"),
    "rzrange": ("enable_red_zones=true enable_rz_size_ranges=true rz_size_range=0,1024,0 rz_size_range_enable=0,true",
                "qmheap red zones, blocks >= 1 KiB"),
}

# A red-zone variant whose workload has more live blocks than the kernel
# gives a process mappings says so (and is not measured).
MAPPING_LIMIT = "vm.max_map_count"

# The agent's start-up and shut-down lines at verbosity 2; anything else it
# prints is an event report.
FRAME = ("QM_HEAP:  STARTING", "QM_HEAP:  QM distribution", "QM_HEAP:  FINISHING",
         "QM_HEAP:               : finished processing startup configuration",
         "QM_HEAP:  finalizer    : process termination")

# Seconds one round of each workload (plain, agent, heaptrack, valgrind) took
# on the reference machine (2 cores, AMD EPYC, i386 through qemu); scaled by
# how fast this machine turns out to be, they give the estimates printed
# along the way. Checks and the warm-up cost about half a round more.
REFERENCE_ROUND_SECONDS = {
    "churn-1t": 11, "churn-1t-deep": 12, "churn-2t": 18, "churn-4t": 19, "churn-i386": 31,
    "python": 18, "perl": 8, "sqlite": 23, "gcc": 18, "git": 16, "pytests": 160, "make": 80,
}


def log(msg):
    print(msg, file=sys.stderr, flush=True)


# ---------------------------------------------------------------------------
# Running one program and measuring its process tree

class Run:
    """What one run of a process tree cost, and what it printed."""

    def __init__(self, wall, cpu, rss_kib, status, stdout, stderr):
        self.wall, self.cpu, self.rss_kib = wall, cpu, rss_kib
        self.status, self.stdout, self.stderr = status, stdout, stderr


# A process's peak RSS starts from that of the process it was forked from (the
# kernel carries the high-water mark across fork and exec), so a program
# started straight from this interpreter would never show less than the
# interpreter's own size. GNU time is small: the program is started from it
# and its %M (the largest process of the tree it waited for) is the peak RSS.
TIME = "/usr/bin/time" if os.access("/usr/bin/time", os.X_OK) else None


def run_tree(argv, env, cwd, stdin_path=None, keep_output=True):
    """Runs argv to completion. wait4 on the child gives the user and system
    time of the child and of every descendant that was waited for, summed;
    the peak RSS is that of the tree's largest process."""
    with tempfile.TemporaryFile() as out, tempfile.TemporaryFile() as err, \
            tempfile.NamedTemporaryFile("r") as rss:
        stdin = open(stdin_path, "rb") if stdin_path else subprocess.DEVNULL
        if TIME:
            argv = [TIME, "-q", "-f", "%M", "-o", rss.name, "--"] + list(argv)
        try:
            t0 = time.perf_counter()
            p = subprocess.Popen(argv, stdin=stdin, stdout=out, stderr=err, env=env, cwd=cwd)
            _, status, ru = os.wait4(p.pid, 0)
            wall = time.perf_counter() - t0
        finally:
            if stdin_path:
                stdin.close()
        p.returncode = os.waitstatus_to_exitcode(status)  # already reaped
        peak = ru.ru_maxrss
        if TIME:
            try:
                peak = int(rss.read().split()[-1])
            except (ValueError, IndexError):
                pass
        text_out = text_err = ""
        if keep_output:
            out.seek(0)
            err.seek(0)
            text_out = out.read().decode("utf-8", "replace")
            text_err = err.read().decode("utf-8", "replace")
        return Run(wall, ru.ru_utime + ru.ru_stime, peak, p.returncode, text_out, text_err)


class Reports:
    """A FIFO that the agents of a whole process tree write their lines to
    (output_file), read as they come; close() gives what was written."""

    def __init__(self, tmp):
        self.path = os.path.join(tmp, "qmheap-reports")
        os.mkfifo(self.path)
        # Opened for reading and writing: no end of file between writers,
        # and no writer's open waits for a reader.
        self.fd = os.open(self.path, os.O_RDWR)
        self.chunks = []
        self.reader = threading.Thread(target=self.read)
        self.reader.start()

    def read(self):
        while not self.chunks or b"\0" not in self.chunks[-1]:
            self.chunks.append(os.read(self.fd, 65536))

    def close(self):
        os.write(self.fd, b"\0")
        self.reader.join()
        os.close(self.fd)
        os.remove(self.path)
        return b"".join(self.chunks).replace(b"\0", b"").decode("utf-8", "replace")


def clean_env():
    env = dict(os.environ)
    for k in ("LD_PRELOAD", "QMHEAP_ARGS", "QMHEAP_CONFIG_FILE", "MALLOC_CHECK_", "MALLOC_PERTURB_",
              "MAKEFLAGS", "MFLAGS", "MAKELEVEL"):
        env.pop(k, None)
    env["LC_ALL"] = "C"
    return env


# ---------------------------------------------------------------------------
# Workloads

class Workload:
    """One program with its inputs. argv(size) gives the command for a size
    ("full", "quick" or "valgrind"); prepare() makes its inputs once and
    reset() puts them back before every run, neither of them timed."""

    name = ""
    label = ""
    arch = "x86_64"
    env = {}
    heaptrack_note = None  # why heaptrack is not measured here, if it is not
    valgrind_note = None   # how the valgrind figures differ, if they do
    reports_apart = False  # the agent's lines at verbosity 2 go to a FIFO, not to standard error

    def __init__(self, tmp, quick, tools):
        self.tmp = os.path.join(tmp, self.name)
        os.makedirs(self.tmp, exist_ok=True)
        self.quick = quick
        self.tools = tools

    def prepare(self):
        pass

    def reset(self, size):
        pass

    def argv(self, size):
        raise NotImplementedError

    def stdin(self, size):
        return None

    def describe(self, size):
        return " ".join(os.path.basename(a) if i == 0 else a for i, a in enumerate(self.argv(size)))

    def output(self, run):
        """The text that must be the same plain and under the agent."""
        return run.stdout


class Churn(Workload):
    OPS = 6000000
    SLOTS = 20000

    def __init__(self, tmp, quick, tools, threads, name=None, depth=0):
        self.threads = threads
        self.depth = depth
        self.name = name or "churn-%dt" % threads + ("-deep" if depth else "")
        self.label = "churn, %d thread%s" % (threads, "s" if threads > 1 else "") + \
            (", %d more frames per operation" % depth if depth else "")
        super().__init__(tmp, quick, tools)
        self.valgrind_note = ("valgrind runs churn with {:,} operations (plain and valgrind alike; "
                              "the other columns use {:,})".format(self.OPS // 10, self.OPS))

    def ops(self, size):
        if self.quick:
            return 60000
        return self.OPS // 10 if size == "valgrind" else self.OPS

    def argv(self, size):
        return [self.tools["churn64"], str(self.ops(size)), str(self.SLOTS), str(self.threads), str(self.depth)]


class ChurnI386(Churn):
    arch = "i386"

    def __init__(self, tmp, quick, tools):
        super().__init__(tmp, quick, tools, 1, "churn-i386")
        self.label = "churn, 1 thread, i386%s" % (" (qemu-i386)" if tools["emulated32"] else "")

    def argv(self, size):
        # qm-run runs it natively or through the emulator; the agent's preload is
        # added by the caller (see Bench.command).
        return [self.tools["churn32"], str(self.ops(size)), str(self.SLOTS), "1"]


class Python(Workload):
    name = "python"
    label = "python3: lists of dicts"
    env = {"PYTHONMALLOC": "malloc", "PYTHONHASHSEED": "0", "PYTHONDONTWRITEBYTECODE": "1"}
    valgrind_note = "valgrind runs python3 on 5,000 records (plain and valgrind alike; the other columns use 50,000)"

    def argv(self, size):
        n = 2000 if self.quick else 5000 if size == "valgrind" else 50000
        return [self.tools["python3"], "-s", os.path.join(WORKLOADS, "records.py"), str(n)]


class Perl(Workload):
    name = "perl"
    label = "perl: hashes of arrays and hashes"
    env = {"PERL_HASH_SEED": "0", "PERL_PERTURB_KEYS": "0"}
    valgrind_note = "valgrind runs perl on 6,000 records (plain and valgrind alike; the other columns use 60,000)"

    def argv(self, size):
        n = 2000 if self.quick else 6000 if size == "valgrind" else 60000
        return [self.tools["perl"], os.path.join(WORKLOADS, "hashes.pl"), str(n)]


class Sqlite(Workload):
    name = "sqlite"
    label = "sqlite3: 200k inserts, indexes, queries, join"
    valgrind_note = "valgrind runs sqlite3 on 20,000 rows (plain and valgrind alike; the other columns use 200,000)"

    def sizes(self):
        return {"quick": 2000} if self.quick else {"full": 200000, "valgrind": 20000}

    def prepare(self):
        for size, rows in self.sizes().items():
            with open(os.path.join(self.tmp, "session-%s.sql" % size), "w") as f:
                subprocess.run([sys.executable, os.path.join(WORKLOADS, "sqlite_gen.py"), str(rows)],
                               stdout=f, check=True)

    def reset(self, size):
        for f in os.listdir(self.tmp):
            if f.startswith("db"):
                os.remove(os.path.join(self.tmp, f))

    def argv(self, size):
        return [self.tools["sqlite3"], "-batch", os.path.join(self.tmp, "db")]

    def stdin(self, size):
        return os.path.join(self.tmp, "session-%s.sql" % ("quick" if self.quick else size))


class Gcc(Workload):
    name = "gcc"
    label = "gcc -O1 -c, 5000-line C file"
    heaptrack_note = "does not follow child processes (cc1, as)"
    valgrind_note = "valgrind compiles a 500-line file (plain and valgrind alike; the other columns 5,000 lines)"

    def lines(self, size):
        return 200 if self.quick else 500 if size == "valgrind" else 5000

    def prepare(self):
        for size in ("quick",) if self.quick else ("full", "valgrind"):
            with open(os.path.join(self.tmp, "unit-%d.c" % self.lines(size)), "w") as f:
                subprocess.run([sys.executable, os.path.join(WORKLOADS, "cgen.py"), str(self.lines(size))],
                               stdout=f, check=True)

    def reset(self, size):
        obj = os.path.join(self.tmp, "unit.o")
        if os.path.exists(obj):
            os.remove(obj)

    def argv(self, size):
        return [self.tools["gcc"], "-O1", "-c", os.path.join(self.tmp, "unit-%d.c" % self.lines(size)),
                "-o", os.path.join(self.tmp, "unit.o")]

    def output(self, run):
        with open(os.path.join(self.tmp, "unit.o"), "rb") as f:
            return run.stdout + "unit.o sha256 " + hashlib.sha256(f.read()).hexdigest()


class Git(Workload):
    name = "git"
    label = "git: init, add 2000 files, commit, log, fsck"
    heaptrack_note = "does not follow child processes (the git commands)"
    valgrind_note = "valgrind runs the git session on 200 files (plain and valgrind alike; the other columns 2,000)"

    def files(self, size):
        return 100 if self.quick else 200 if size == "valgrind" else 2000

    def tree(self, size):
        return os.path.join(self.tmp, "tree-%d" % self.files(size))

    def reset(self, size):
        # The session edits files: every run starts from a freshly written tree.
        d = self.tree(size)
        shutil.rmtree(d, ignore_errors=True)
        subprocess.run(["bash", os.path.join(WORKLOADS, "git_session.sh"), "prepare", d,
                        str(self.files(size))], check=True)

    def argv(self, size):
        return [self.tools["bash"], os.path.join(WORKLOADS, "git_session.sh"), "run", self.tree(size)]


class PyTests(Workload):
    name = "pytests"
    label = "python3 -m test: json, re, threading"
    env = {"PYTHONMALLOC": "malloc", "PYTHONHASHSEED": "0", "PYTHONDONTWRITEBYTECODE": "1"}
    # Its tests check that their children's standard error is empty.
    reports_apart = True
    valgrind_note = "valgrind runs test_json alone (plain and valgrind alike; the other columns all three)"

    def tests(self, size):
        return ["test_json"] if self.quick or size == "valgrind" else ["test_json", "test_re", "test_threading"]

    def argv(self, size):
        return [self.tools["python3"], "-m", "test", "--junit-xml", os.path.join(self.tmp, "results.xml")] + \
            self.tests(size)

    def reset(self, size):
        if os.path.exists(os.path.join(self.tmp, "results.xml")):
            os.remove(os.path.join(self.tmp, "results.xml"))

    def output(self, run):
        # Each test case's outcome, and the summary less progress and timing lines.
        cases = sorted(" ".join([c.get("name"), c.get("result")] + [x.tag for x in c])
                       for c in ET.parse(os.path.join(self.tmp, "results.xml")).getroot().iter("testcase"))
        summary = [l for l in run.stdout.splitlines() if "load avg" not in l and not l.startswith("Total duration")]
        return "\n".join(cases + summary + ["%d test cases" % len(cases)])


class Make(Workload):
    name = "make"
    label = "make -j2: 40-unit C project, two libraries, a program run"
    heaptrack_note = "does not follow child processes (the compilers)"
    valgrind_note = "valgrind builds 6 units of 200 lines (plain and valgrind alike; the other columns 40 of 400)"

    def shape(self, size):
        return (6, 150) if self.quick else (6, 200) if size == "valgrind" else (40, 400)

    def source(self, size):
        return os.path.join(self.tmp, "source-%d-%d" % self.shape(size))

    def prepare(self):
        for size in ("quick",) if self.quick else ("full", "valgrind"):
            subprocess.run([sys.executable, os.path.join(WORKLOADS, "cproject.py"), self.source(size)]
                           + [str(n) for n in self.shape(size)], check=True)

    def reset(self, size):
        # Every build starts from the bare sources.
        shutil.rmtree(os.path.join(self.tmp, "tree"), ignore_errors=True)
        shutil.copytree(self.source(size), os.path.join(self.tmp, "tree"))

    def argv(self, size):
        return [self.tools["make"], "-s", "--no-print-directory", "-j2", "-C", os.path.join(self.tmp, "tree"),
                "all", "check"]

    def output(self, run):
        # The program's output and every object and product, byte for byte.
        tree = os.path.join(self.tmp, "tree")
        digests = []
        for top, _, files in sorted(os.walk(tree)):
            for f in sorted(files):
                if f.endswith((".o", ".a", ".so")) or f == "prog":
                    with open(os.path.join(top, f), "rb") as fh:
                        digests.append("%s %s" % (os.path.relpath(os.path.join(top, f), tree),
                                                  hashlib.sha256(fh.read()).hexdigest()))
        return run.stdout + "\n".join(digests) + "\n%d products" % len(digests)


# ---------------------------------------------------------------------------
# The benchmark

def median(xs):
    return statistics.median(xs) if xs else None


class Cell:
    """The per-round ratios of one tool on one workload."""

    def __init__(self):
        self.wall, self.cpu, self.rss = [], [], []
        self.note = None  # text shown instead of figures

    def add(self, run, base):
        self.wall.append(run.wall / base.wall)
        self.cpu.append(run.cpu / base.cpu if base.cpu > 0 else float("nan"))
        self.rss.append(run.rss_kib / base.rss_kib if base.rss_kib > 0 else float("nan"))

    def text(self, mark=""):
        if self.note:
            return self.note
        if not self.wall:
            return "—"
        return "%.2fx (%.2fx) [%.2fx]%s" % (median(self.wall), median(self.cpu), median(self.rss), mark)


class Bench:
    def __init__(self, args):
        self.args = args
        self.quick = args.quick
        self.pairs = 1 if self.quick else args.pairs
        self.tmp = tempfile.mkdtemp(prefix="qmheap-bench-")
        self.revision = git_revision()  # of the tree whose build is copied next
        self.tools = self.find_tools()
        self.env = clean_env()
        self.failures = []
        self.checks = []
        self.over_limit = set()
        self.timed_outputs = {}  # workload: timed pairs whose outputs were compared

    # -- the programs and libraries this run uses

    def find_tools(self):
        # Copies of the agents and churn binaries: a rebuild during the run
        # does not change what is measured.
        t = {}
        stage = os.path.join(self.tmp, "build")
        os.makedirs(stage)
        for key, arch, src in (("agent64", "x86_64", "libqmheap_64.so"), ("churn64", "x86_64", "bench/churn"),
                               ("agent32", "i386", "libqmheap.so"), ("churn32", "i386", "bench/churn"),
                               ("qmrun32", "i386", "qm-run")):
            src = os.path.join(ROOT, "build", arch, src)
            if os.path.exists(src):
                dst = os.path.join(stage, arch, os.path.basename(src))
                os.makedirs(os.path.dirname(dst), exist_ok=True)
                shutil.copy2(src, dst)
                t[key] = dst
            else:
                t[key] = None
        if not t["agent64"] or not t["churn64"]:
            sys.exit("bench: build/x86_64 is not built (run make)")
        t["emulated32"] = False
        try:
            with open(os.path.join(BUILD32, "integration.json")) as f:
                t["emulated32"] = '"emulated": 1' in f.read()
        except OSError:
            pass
        # The interpreters themselves, not wrapper scripts in front of them.
        py = "/usr/bin/python3" if os.path.exists("/usr/bin/python3") else sys.executable
        t["python3"] = os.path.realpath(py)
        for name in ("perl", "sqlite3", "gcc", "bash", "make", "heaptrack", "valgrind"):
            p = shutil.which(name)
            t[name] = os.path.realpath(p) if p and name not in ("heaptrack",) else p
        return t

    def peers(self):
        wanted = [p for p in self.args.peers.split(",") if p and p != "none"]
        return [p for p in ("heaptrack", "valgrind") if p in wanted and self.tools[p]]

    def workloads(self):
        q, t = self.quick, self.tools
        ws = [Churn(self.tmp, q, t, 1), Churn(self.tmp, q, t, 1, depth=20), Churn(self.tmp, q, t, 2),
              Churn(self.tmp, q, t, 4)]
        if t["agent32"] and t["churn32"] and t["qmrun32"]:
            ws.append(ChurnI386(self.tmp, q, t))
        else:
            log("bench: build/i386 is not built; the i386 row is left out")
        ws.append(Python(self.tmp, q, t))
        for cls, tool in ((Perl, "perl"), (Sqlite, "sqlite3"), (Gcc, "gcc"), (Git, "bash"), (PyTests, "python3"),
                          (Make, "make")):
            if tool == "bash" and not shutil.which("git"):
                log("bench: git is not installed; the git row is left out")
                continue
            if cls is PyTests and subprocess.run([t["python3"], "-c", "import test.support"],
                                                 capture_output=True).returncode != 0:
                log("bench: python3's test package is not installed; the pytests row is left out")
                continue
            if cls is Make and not t["gcc"]:
                log("bench: gcc is not installed; the make row is left out")
                continue
            if not t[tool]:
                log("bench: %s is not installed; its row is left out" % tool)
                continue
            ws.append(cls(self.tmp, q, t))
        if self.args.only:
            keep = self.args.only.split(",")
            ws = [w for w in ws if w.name in keep]
        return ws

    # -- commands

    def command(self, w, tool, size, agent_args=None):
        """argv and environment of workload w run plain or under a tool."""
        if tool in VARIANTS:
            agent_args = " ".join(a for a in (VARIANTS[tool][0], agent_args) if a)
            tool = "agent"
        argv = w.argv(size)
        env = dict(self.env)
        env.update(w.env)
        if w.arch == "i386":
            run = [self.tools["qmrun32"]]
            if tool == "agent":
                run += ["--preload", self.tools["agent32"], "--env", "QMHEAP_CONFIG_FILE="]
                if agent_args:
                    run += ["--env", "QMHEAP_ARGS=" + agent_args]
            return run + argv, env
        if tool == "agent":
            env["LD_PRELOAD"] = self.tools["agent64"]
            env["QMHEAP_CONFIG_FILE"] = ""
            if agent_args:
                env["QMHEAP_ARGS"] = agent_args
        elif tool == "heaptrack":
            argv = [self.tools["heaptrack"], "-o", os.path.join(self.tmp, "heaptrack-out")] + argv
        elif tool == "valgrind":
            argv = [self.tools["valgrind"], "-q", "--trace-children=yes"] + argv
        return argv, env

    def run(self, w, tool, size, agent_args=None, keep_output=True):
        """One run; with keep_output, r.output is what must not change under the agent."""
        argv, env = self.command(w, tool, size, agent_args)
        w.reset(size)
        reports = None
        if w.reports_apart and "verbosity=" in env.get("QMHEAP_ARGS", ""):
            reports = Reports(self.tmp)
            env["QMHEAP_ARGS"] += " output_file=" + reports.path
        try:
            r = run_tree(argv, env, w.tmp, w.stdin(size), keep_output)
        except OSError as e:
            r = Run(0.0, 0.0, 0, 127, "", "%s: %s" % (argv[0], e))
        finally:
            lines = reports.close() if reports else ""
        r.stderr += lines  # the checks look for the agent's lines in standard error
        r.output = w.output(r) if keep_output and r.status == 0 else None
        if tool == "heaptrack":
            for f in os.listdir(self.tmp):
                if f.startswith("heaptrack-out"):
                    os.remove(os.path.join(self.tmp, f))
        return r

    # -- checks, before anything is timed

    def check(self, w):
        size = "quick" if self.quick else "valgrind"  # the reduced inputs: a check, not a measurement
        plain = self.run(w, "plain", size)
        if plain.status != 0:
            self.fail(w, "plain run failed (exit %d): %s" % (plain.status, plain.stderr.strip()[-500:]))
            return False
        expected = plain.output
        under = self.run(w, "agent", size)
        if under.status != 0:
            self.fail(w, "run under the agent failed (exit %d): %s" % (under.status, under.stderr.strip()[-500:]))
            return False
        same = under.output == expected
        events = []
        for tool in ["agent"] + self.variants():
            verbose = self.run(w, tool, size, agent_args="verbosity=2")
            if tool != "agent" and MAPPING_LIMIT in verbose.stderr:
                self.over_limit.add((w.name, tool))
                log("  check %-10s %s: over the mapping limit, not measured" % (w.name, tool))
                continue
            events += [l for l in verbose.stderr.splitlines()
                       if l.startswith("QM_HEAP") and not l.startswith(FRAME)]
            same = same and verbose.output == expected
        self.checks.append((w, same, events, expected))
        log("  check %-10s output %s plain and under the agent; verbosity 2: %s"
            % (w.name, "the same" if same else "DIFFERS", "%d event lines" % len(events) if events else "no event"))
        if not same:
            self.fail(w, "output differs under the agent:\n  plain: %r\n  agent: %r"
                      % (expected[-300:], (under.output or "")[-300:]))
        if events:
            self.fail(w, "the agent at verbosity 2 reported:\n    " + "\n    ".join(events[:20]))
        return True

    def fail(self, w, msg):
        self.failures.append("%s: %s" % (w.name, msg))
        log("  FAILED %s: %s" % (w.name, msg))

    # -- timed rounds

    def variants(self):
        wanted = [v for v in self.args.variants.split(",") if v and v != "none"]
        return [v for v in VARIANTS if v in wanted]

    def measure(self, w, peers):
        cells = {"agent": Cell()}
        for v in self.variants():
            cells[v] = Cell()
        for p in peers:
            cells[p] = Cell()
        for v in self.variants():
            if (w.name, v) in self.over_limit:
                cells[v].note = "n/a (over the mapping limit)"
        if w.arch == "i386":
            for p in peers:
                cells[p].note = "n/a (x86-64 only here)"
            if self.tools["emulated32"]:
                for v in self.variants():
                    cells[v].note = "not measured (emulated)"
        if "heaptrack" in cells and w.heaptrack_note:
            cells["heaptrack"].note = w.heaptrack_note
        base = {"wall": [], "cpu": [], "rss": []}
        size = "quick" if self.quick else "full"
        warm = self.run(w, "plain", size, keep_output=False)
        log("  %-10s warm-up (plain) %.2f s" % (w.name, warm.wall))
        for rnd in range(1, self.pairs + 1):
            t0 = time.perf_counter()
            plain = self.run(w, "plain", size)
            if plain.status != 0:
                self.fail(w, "plain run failed in round %d (exit %d)" % (rnd, plain.status))
                return cells, base
            base["wall"].append(plain.wall)
            base["cpu"].append(plain.cpu)
            base["rss"].append(plain.rss_kib)
            line = "plain %.2fs" % plain.wall
            for tool in ["agent"] + self.variants() + peers:
                c = cells[tool]
                if c.note:
                    continue
                ref = plain
                if tool == "valgrind" and w.valgrind_note and not self.quick:
                    ref = self.run(w, "plain", "valgrind", keep_output=False)
                    tsize = "valgrind"
                else:
                    tsize = size
                under_agent = tool == "agent" or tool in VARIANTS
                r = self.run(w, tool, tsize, keep_output=under_agent)
                if tool in VARIANTS and MAPPING_LIMIT in r.stderr:
                    c.note = "n/a (over the mapping limit)"
                    continue
                if r.status != 0:
                    c.note = "failed (exit %d)" % r.status
                    self.fail(w, "%s run failed in round %d (exit %d)" % (tool, rnd, r.status))
                    continue
                if under_agent:
                    self.timed_outputs[w.name] = self.timed_outputs.get(w.name, 0) + 1
                    if r.output != plain.output:
                        self.fail(w, "output differs under the agent in round %d:\n  plain: %r\n  agent: %r"
                                  % (rnd, plain.output[-300:], (r.output or "")[-300:]))
                c.add(r, ref)
                line += "  %s %.2fs %.2fx" % (tool, r.wall, c.wall[-1])
            spent = time.perf_counter() - t0
            left = spent * (self.pairs - rnd)
            log("  %-10s round %d/%d: %s  (round %.0f s; about %.0f s more for this workload)"
                % (w.name, rnd, self.pairs, line, spent, left))
        return cells, base

    # -- the whole run

    def estimate(self, names, factor=1.0):
        """Seconds the named workloads should take on this machine."""
        return sum(REFERENCE_ROUND_SECONDS.get(n, 20) for n in names) * (self.pairs + 0.5) * factor

    def go(self):
        peers = self.peers()
        ws = self.workloads()
        started = time.perf_counter()
        self.load_start = os.getloadavg()[0]
        log("bench: %d workloads, %d round%s each, %s; peers: %s"
            % (len(ws), self.pairs, "" if self.pairs == 1 else "s", "quick inputs" if self.quick else "full inputs",
               ", ".join(peers) or "none"))
        if not self.quick:
            log("bench: estimate about %.0f min (reference machine: 2 cores)"
                % (self.estimate([w.name for w in ws], 1.0) / 60))
        rows = []
        factor = 1.0  # this machine's speed relative to the reference
        done_ref = done_real = 0.0
        for i, w in enumerate(ws):
            t0 = time.perf_counter()
            log("bench: [%d/%d] %s: %s" % (i + 1, len(ws), w.name, w.describe("quick" if self.quick else "full")))
            w.prepare()
            if not self.check(w):
                rows.append((w, None, None))
                continue
            cells, base = self.measure(w, peers)
            rows.append((w, cells, base))
            took = time.perf_counter() - t0
            if not self.quick:
                done_ref += self.estimate([w.name])
                done_real += took
                factor = done_real / done_ref
                rest = [x.name for x in ws[i + 1:]]
                log("bench: %s took %.0f s; elapsed %.0f s, about %.0f s to go"
                    % (w.name, took, time.perf_counter() - started, self.estimate(rest, factor)))
            shutil.rmtree(w.tmp, ignore_errors=True)
        elapsed = time.perf_counter() - started
        report = self.report(rows, peers, elapsed)
        print(report)
        path = self.save(report)
        log("bench: %s (%.0f s in all)" % (os.path.relpath(path, ROOT), elapsed))
        self.leak_scan(path)
        if self.args.micro:
            self.micro(path)
        return 1 if self.failures else 0

    # -- the report

    def report(self, rows, peers, elapsed):
        variants = self.variants()
        heads = ["workload", "plain: wall (CPU) [peak RSS]", "qmheap"] + [VARIANTS[v][1] for v in variants] + peers
        out = ["| " + " | ".join(heads) + " |", "|" + "---|" * len(heads)]
        notes = []

        def mark(text):
            if text not in notes:
                notes.append(text)
            return "<sup>%d</sup>" % (notes.index(text) + 1)

        for w, cells, base in rows:
            if cells is None or not base["wall"]:
                out.append("| %s | failed, see below |%s" % (w.label, " |" * (len(heads) - 2)))
                continue
            plain = "%.2f s (%.2f s) [%.0f MiB]" % (median(base["wall"]), median(base["cpu"]),
                                                   median(base["rss"]) / 1024)
            row = [w.label, plain, cells["agent"].text()] + [cells[v].text() for v in variants]
            for p in peers:
                m = ""
                if p == "valgrind" and w.valgrind_note and not self.quick and not cells[p].note:
                    m = mark(w.valgrind_note)
                row.append(cells[p].text(m))
            out.append("| " + " | ".join(row) + " |")
        table = "\n".join(out)
        if notes:
            table += "\n\n" + "\n".join("%d. %s" % (i + 1, n) for i, n in enumerate(notes))

        rev, dirty = self.revision
        checks = []
        for w, same, events, expected in self.checks:
            shown = expected.strip().splitlines()[-1] if expected.strip() else "(no output)"
            pairs = self.timed_outputs.get(w.name, 0)
            checks.append("- %s: output %s plain and under the agent (`%s`)%s; verbosity 2: %s"
                          % (w.name, "identical" if same else "DIFFERS", shown[:80],
                             ", compared again in the %d timed pair%s" % (pairs, "" if pairs == 1 else "s")
                             if pairs else "",
                             "no event" if not events else "%d event lines" % len(events)))
        size_note = ("reduced inputs (the valgrind sizes)" if not self.quick else "the quick inputs")
        lines = [
            "# qmheap whole-process benchmark%s" % (" (quick check, not a measurement)" if self.quick else ""),
            "",
            "- date: %s" % datetime.datetime.now().strftime("%Y-%m-%d %H:%M"),
            "- revision: %s%s; agent: %s" % (rev, " (with uncommitted changes)" if dirty else "",
                                             distribution(self.tools["agent64"])),
            "- machine: %s, %d CPUs (nproc), kernel %s" % (cpu_model(), os.cpu_count() or 0, platform.release()),
            "- C library: %s" % glibc_version(),
            "- programs: %s" % "; ".join(tool_versions(self.tools, peers)),
            "- rounds: %d per workload after one warm-up; %.0f s in all" % (self.pairs, elapsed),
            "- load average (1 min) at start %.2f, at end %.2f: other work on the machine skews wall times"
            % (self.load_start, os.getloadavg()[0]),
            "",
            "Each cell: median over the rounds of the per-round ratio tool/plain of wall time, "
            "(CPU time: user + system of the whole process tree) and [peak RSS: the largest process of the tree]. "
            "The plain column gives the medians of the plain runs themselves. "
            "qmheap runs at its default settings with no configuration file"
            + (" (the variant columns add " + "; ".join("%s: `%s`" % (VARIANTS[v][1], VARIANTS[v][0])
                                                       for v in self.variants()) + ")" if self.variants() else "")
            + "; heaptrack writes its trace "
            "to a temporary file (removed); valgrind is memcheck, `-q --trace-children=yes`.",
            "",
            table,
        ]
        if any(w.arch == "i386" for w, _, _ in rows) and self.tools["emulated32"]:
            lines += ["", "The i386 row runs through qemu-i386 (this kernel cannot run 32-bit programs): "
                          "plain and agent both emulated, so its ratio is that of the emulated programs."]
        lines += ["", "Checks (on %s, before the timed runs):" % size_note, ""] + checks
        if self.failures:
            lines += ["", "Failures:", ""] + ["- " + f.replace("\n", "\n  ") for f in self.failures]
        return "\n".join(lines) + "\n"

    def save(self, report):
        os.makedirs(RESULTS, exist_ok=True)
        rev, _ = self.revision
        name = "%s-%s%s.md" % (datetime.date.today().isoformat(), rev, "-quick" if self.quick else "")
        path = os.path.join(RESULTS, name)
        with open(path, "w") as f:
            f.write(report)
        return path

    def leak_scan(self, path):
        """The reachability scan of a million live blocks (all reachable; all
        lost, in lists of 100), through the control function: the median of
        three runs of the scan's own time."""
        exe = os.path.join(BUILD64, "bench", "leakscan")
        if not os.path.exists(exe):
            return
        n = 100000 if self.quick else 1000000
        lines = []
        for mode in ("kept", "lost"):
            times, last = [], ""
            for _ in range(1 if self.quick else 3):
                r = subprocess.run([exe, str(n), mode], capture_output=True, text=True,
                                   env=dict(os.environ, LD_PRELOAD=os.path.join(BUILD64, "libqmheap_64.so"),
                                            QMHEAP_CONFIG_FILE="", QMHEAP_ARGS="verbosity=0"))
                if r.returncode != 0 or not r.stdout.startswith("scan "):
                    self.failures.append("leakscan %s: %s" % (mode, (r.stdout + r.stderr).strip()[-300:]))
                    return
                last = r.stdout.split()
                times.append(float(last[1]))
            lines.append("- %d live blocks, %s: %.2f s (reachable %s, lost %s)"
                         % (n, "all reachable" if mode == "kept" else "all lost", statistics.median(times),
                            last[3], last[5]))
        text = "\n## Reachability scan\n\nOne scan through `QM_HIA_API_scan_reachability`, median of the runs:\n\n" + \
               "\n".join(lines) + "\n"
        print(text)
        with open(path, "a") as f:
            f.write(text)

    def micro(self, path):
        exe = os.path.join(BUILD64, "bench", "qmheap_micro")
        if not os.path.exists(exe):
            log("bench: no micro benchmarks (build/x86_64/bench/qmheap_micro: Google Benchmark not installed)")
            return
        log("bench: micro benchmarks")
        r = subprocess.run([exe, "--benchmark_min_time=%s" % ("0.01" if self.quick else "0.2")],
                           capture_output=True, text=True)
        print(r.stdout)
        with open(path, "a") as f:
            f.write("\n## Micro benchmarks\n\n```\n%s```\n" % r.stdout)


# ---------------------------------------------------------------------------
# Facts about the machine and the build

def git_revision():
    try:
        rev = subprocess.run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"],
                             capture_output=True, text=True, check=True).stdout.strip()
        dirty = subprocess.run(["git", "-C", ROOT, "status", "--porcelain", "--untracked-files=no"],
                               capture_output=True, text=True).stdout.strip() != ""
        return rev, dirty
    except (OSError, subprocess.CalledProcessError):
        return "unrevisioned", False


def distribution(lib):
    try:
        r = subprocess.run([lib], capture_output=True, text=True, timeout=30)
        for l in (r.stdout + r.stderr).splitlines():
            if "distribution:" in l:
                return l.split("distribution:", 1)[1].strip()
    except (OSError, subprocess.SubprocessError):
        pass
    return "unknown"


def cpu_model():
    try:
        r = subprocess.run(["lscpu"], capture_output=True, text=True)
        for l in r.stdout.splitlines():
            if l.startswith("Model name:"):
                return l.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or "unknown CPU"


def glibc_version():
    try:
        return os.confstr("CS_GNU_LIBC_VERSION")
    except (ValueError, OSError):
        return " ".join(platform.libc_ver())


def tool_versions(tools, peers):
    def first(argv):
        try:
            r = subprocess.run(argv, capture_output=True, text=True, timeout=30)
            text = (r.stdout or r.stderr).strip().splitlines()
            return text[0] if text else "?"
        except (OSError, subprocess.SubprocessError):
            return "?"
    v = ["python3 " + first([tools["python3"], "-c", "import platform; print(platform.python_version())"])]
    if tools["perl"]:
        v.append("perl " + first([tools["perl"], "-e", "print $^V"]))
    if tools["sqlite3"]:
        v.append("sqlite3 " + first([tools["sqlite3"], "--version"]).split()[0])
    if tools["gcc"]:
        v.append("gcc " + first([tools["gcc"], "-dumpfullversion"]))
    if tools["make"]:
        v.append(first([tools["make"], "--version"]))
    if shutil.which("git"):
        v.append(first(["git", "--version"]))
    for p in peers:
        v.append(first([tools[p], "--version"]))
    return v


def main():
    env = os.environ.get
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--pairs", type=int, default=int(env("QMHEAP_BENCH_PAIRS") or 5))
    ap.add_argument("--quick", action="store_true", default=env("QMHEAP_BENCH_QUICK", "") not in ("", "0"))
    ap.add_argument("--only", default=env("QMHEAP_BENCH_ONLY", ""))
    ap.add_argument("--peers", default=env("QMHEAP_BENCH_PEERS") or "heaptrack,valgrind")
    ap.add_argument("--variants", default=env("QMHEAP_BENCH_VARIANTS") or "guards,protect,redzones,rzrange")
    ap.add_argument("--micro", action="store_true", default=env("QMHEAP_BENCH_MICRO", "") not in ("", "0"))
    args = ap.parse_args()
    if args.pairs < 1:
        ap.error("--pairs must be at least 1")
    # One benchmark at a time on this machine: a second run waits for the first.
    with open(LOCK, "w") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            log("bench: another benchmark run holds %s; waiting for it" % LOCK)
            fcntl.flock(lock, fcntl.LOCK_EX)
        bench = Bench(args)
        try:
            status = bench.go()
        finally:
            shutil.rmtree(bench.tmp, ignore_errors=True)
        sys.exit(status)


if __name__ == "__main__":
    main()
