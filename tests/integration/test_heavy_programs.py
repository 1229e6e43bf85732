"""Heavy programs run under the 64-bit agent exactly as without it: the
python3 standard library's tests of json, re and threading (dozens of child
processes, forks and threads), a make -j2 build of a generated C project
(42 units, a static and a shared library and a program that is then run),
and sqlite3 building, checking and querying a database file of 200,000
rows. Each runs plain, then under the agent at its defaults and with guards,
painting and the hoard, at verbosity 2: any event is a false report.

The agent's lines of every process in the tree go to one FIFO
(output_file), not to the processes' standard error: python's tests check
that their children's standard error is empty, which the agent's start-up
lines at verbosity 2 would break; the processes' own standard error is
then compared with the plain run's as well."""

import hashlib
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
import xml.etree.ElementTree as ET

import qmtest
from qmtest import assert_no_events
from test_programs import PROTECTED

SETTINGS = {"defaults": "verbosity=2", "guards+paint+hoard": PROTECTED["QMHEAP_ARGS"]}
WORKLOADS = os.path.join(qmtest.config().get("source_dir", ""), "bench", "workloads")
PYTHON = "/usr/bin/python3"


def run_tree(argv, settings=None, env=None, cwd=None):
    """Runs argv plain (settings None) or under the agent with the given
    QMHEAP_ARGS; returns the CompletedProcess and the agent's lines of every
    process of the tree (None for a plain run)."""
    e = dict(os.environ, LC_ALL="C", **(env or {}))
    for k in ("LD_PRELOAD", "QMHEAP_ARGS", "MAKEFLAGS", "MFLAGS", "MAKELEVEL"):
        e.pop(k, None)
    if settings is None:
        return subprocess.run(argv, capture_output=True, text=True, env=e, cwd=cwd,
                              timeout=600, errors="replace"), None
    d = tempfile.mkdtemp()
    fifo = os.path.join(d, "reports")
    os.mkfifo(fifo)
    # Opened for reading and writing: no end of file between writers, and
    # no writer's open ever waits for a reader.
    fd = os.open(fifo, os.O_RDWR)
    chunks = []

    def read():
        while not chunks or b"\0" not in chunks[-1]:
            chunks.append(os.read(fd, 65536))

    reader = threading.Thread(target=read)
    reader.start()
    try:
        e.update(LD_PRELOAD=qmtest.config()["lib"], QMHEAP_CONFIG_FILE="",
                 QMHEAP_ARGS="%s output_file=%s" % (settings, fifo))
        r = subprocess.run(argv, capture_output=True, text=True, env=e, cwd=cwd,
                           timeout=900, errors="replace")
    finally:
        os.write(fd, b"\0")
        reader.join()
        os.close(fd)
        shutil.rmtree(d)
    return r, b"".join(chunks).replace(b"\0", b"").decode(errors="replace")


@unittest.skipUnless(qmtest.is_64(), "real host programs are x86-64")
class HeavyPrograms(unittest.TestCase):

    def setUp(self):
        self.dir = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.dir)

    def same_as_plain(self, run, check_plain, min_processes):
        """Runs run(settings) plain, checks that with check_plain, then runs
        it under each setting: at least min_processes agents must report
        (their lines did reach the FIFO), none an event, and the result must
        be the plain one."""
        plain, _ = run(None)
        check_plain(plain)
        for name, settings in SETTINGS.items():
            with self.subTest(settings=name):
                result, reports = run(settings)
                assert_no_events(reports)
                self.assertGreaterEqual(reports.count("STARTING malloc interposition"), min_processes, reports)
                self.assertEqual(result, plain)

    def test_python_test_suite(self):
        def suite(settings):
            xml = os.path.join(self.dir, "results.xml")
            # Every object through malloc, so that the agent sees them all.
            r, reports = run_tree([PYTHON, "-m", "test", "--junit-xml", xml, "test_json", "test_re",
                                   "test_threading"], settings, cwd=self.dir,
                                  env={"PYTHONMALLOC": "malloc", "PYTHONHASHSEED": "0"})
            cases = sorted((c.get("name"), c.get("status"), c.get("result"),
                            tuple((x.tag, x.get("message")) for x in c))
                           for c in ET.parse(xml).getroot().iter("testcase"))
            # The summary, less the progress and timing lines.
            summary = [l for l in r.stdout.splitlines()
                       if "load avg" not in l and not l.startswith("Total duration")]
            return (r.returncode, summary, cases), reports

        def check(plain):
            self.assertEqual(plain[0], 0, plain[1])
            self.assertGreater(len(plain[2]), 500)

        # test_threading's cases that wait with timeouts stay within them
        # under the agent's slowdown on 2 cores: none is left out.
        self.same_as_plain(suite, check, 10)

    def test_make_j2_builds_a_c_project_and_runs_it(self):
        source = os.path.join(self.dir, "source")
        subprocess.run([sys.executable, os.path.join(WORKLOADS, "cproject.py"), source], check=True)
        builds = []

        def build(settings):
            tree = os.path.join(self.dir, "build%d" % len(builds))
            builds.append(tree)
            shutil.copytree(source, tree)
            r, reports = run_tree(["make", "-s", "-j2", "all", "check"], settings, cwd=tree)
            products = {}
            for top, _, files in os.walk(tree):
                for f in files:
                    if f.endswith((".o", ".a", ".so")) or f == "prog":
                        with open(os.path.join(top, f), "rb") as fh:
                            products[os.path.relpath(os.path.join(top, f), tree)] = \
                                hashlib.sha256(fh.read()).hexdigest()
            # Every object and product, byte for byte.
            return (r.returncode, r.stdout, r.stderr, products), reports

        def check(plain):
            self.assertEqual(plain[0], 0, plain[2])
            self.assertIn("units 40, sum ", plain[1])
            self.assertEqual(len(plain[3]), 42 + 3)  # the units, main, report, two libraries, prog

        self.same_as_plain(build, check, 42)

    def test_sqlite3_builds_and_queries_a_database_file(self):
        session = os.path.join(self.dir, "session.sql")
        with open(session, "w") as f:
            subprocess.run([sys.executable, os.path.join(WORKLOADS, "sqlite_gen.py"), "200000"],
                           stdout=f, check=True)
        script = ("sqlite3 -batch db < %s && sqlite3 -batch db 'PRAGMA integrity_check; VACUUM; "
                  "SELECT count(*), count(DISTINCT note), max(day) FROM orders; "
                  "SELECT region, count(*) FROM customer GROUP BY region ORDER BY 2 DESC, 1 LIMIT 3;'"
                  % session)
        runs = []

        def query(settings):
            runs.append(os.path.join(self.dir, "run%d" % len(runs)))
            os.mkdir(runs[-1])
            r, reports = run_tree(["bash", "-c", script], settings, cwd=runs[-1])
            return (r.returncode, r.stdout, r.stderr), reports

        def check(plain):
            self.assertEqual(plain[0], 0, plain[2])
            self.assertIn("\nok\n", plain[1])

        self.same_as_plain(query, check, 3)


if __name__ == "__main__":
    qmtest.main()
