"""Configuration: which file is read, precedence of QMHEAP_ARGS, messages for
bad settings, the output channel, commentary, exit on event, and a debugger
stopping at the start-up event."""

import os
import shutil
import subprocess
import tempfile
import unittest

import qmtest
from qmtest import config, run, target

STARTING = "QM_HEAP:  STARTING malloc interposition (version 1.002)\n"


def without_distribution(text):
    """The distribution line names the build; drop it."""
    return "".join(l for l in text.splitlines(True) if not l.startswith("QM_HEAP:  QM distribution: qmheap-"))


class Files(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp()
        self.home = os.path.join(self.dir, "home")
        self.cwd = os.path.join(self.dir, "cwd")
        os.makedirs(os.path.join(self.home, ".quillmark", "hia"))
        os.makedirs(self.cwd)

    def tearDown(self):
        shutil.rmtree(self.dir)

    def write(self, path, text):
        with open(path, "w") as f:
            f.write(text)
        return path

    def run_in_cwd(self, env, *args):
        e = {"HOME": self.home}
        e.update(env)
        return run([target("exit_status")] + list(args), env=e, cwd=self.cwd)

    def test_current_directory_file_wins_over_the_per_user_file(self):
        self.write(os.path.join(self.home, ".quillmark", "hia", "default.hiarc"), "verbosity=2\n")
        self.write(os.path.join(self.cwd, "default.hiarc"), "# quiet here\ncommentary=announce_starting\nverbosity=1\n")
        r = self.run_in_cwd({})
        self.assertTrue(r.stderr.startswith(STARTING), r.stderr)
        self.assertNotIn("finished processing startup configuration", r.stderr)

    def test_per_user_file_is_read_when_there_is_no_other(self):
        self.write(os.path.join(self.home, ".quillmark", "hia", "default.hiarc"),
                   "  verbosity = 2   # a comment\n")
        r = self.run_in_cwd({})
        self.assertIn(STARTING, r.stderr)
        self.assertIn("QM_HEAP:               : finished processing startup configuration\n", r.stderr)
        qmtest.assert_no_events(r.stderr)

    def test_empty_config_variable_reads_no_file_but_still_the_environment(self):
        self.write(os.path.join(self.cwd, "default.hiarc"), "verbosity=2\n")
        r = self.run_in_cwd({"QMHEAP_CONFIG_FILE": ""})
        self.assertEqual(r.stderr, "")
        r = self.run_in_cwd({"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": "commentary=announce_terminating verbosity=1"})
        self.assertEqual(r.stderr, "QM_HEAP:  FINISHING malloc interposition\n")

    def test_environment_overrides_the_file(self):
        f = self.write(os.path.join(self.dir, "my.hiarc"), "verbosity=2\n")
        r = self.run_in_cwd({"QMHEAP_CONFIG_FILE": f, "QMHEAP_ARGS": "verbosity=0"})
        self.assertEqual(r.stderr, "")

    def test_unopenable_named_file_is_reported_and_the_next_candidate_read(self):
        self.write(os.path.join(self.cwd, "default.hiarc"), "commentary=announce_starting\nverbosity=1\n")
        missing = os.path.join(self.dir, "nope.hiarc")
        r = self.run_in_cwd({"QMHEAP_CONFIG_FILE": missing})
        self.assertEqual(without_distribution(r.stderr),
                         "QM_HEAP:  Error attempting to open configuration file %s (No such file or directory)\n"
                         "QM_HEAP:    continuing without this file\n" % missing + STARTING)

    def test_a_directory_as_configuration_file_is_reported_once(self):
        r = self.run_in_cwd({"QMHEAP_CONFIG_FILE": self.dir, "QMHEAP_ARGS": "verbosity=0"}, "3")
        self.assertEqual((r.returncode, r.stderr), (3, "QM: Error reading settings from file (Is a directory)\n"))

    def test_file_continuations_and_bad_settings_never_stop_the_parse(self):
        self.write(os.path.join(self.cwd, "default.hiarc"),
                   "verbo\\\nsity=1\n"
                   "verbosity=-1\n"
                   "9lives=1\n"
                   "paint_on_alloc=True\n"
                   "no_such_key=1\n"
                   "core_startup_config_done=true\n"
                   "commentary=announce_starting,bogus\n"
                   "rz_mode=fenced\n"
                   "rz_size_range=3,100\n"
                   "hoard_maximum_kb=12 junk\n")
        r = self.run_in_cwd({}, "5")
        self.assertEqual(r.returncode, 5)
        self.assertEqual(r.stdout, "exit_status: 5\n")
        self.assertEqual(without_distribution(r.stderr),
                         "QM: verbosity: ERROR value may not be less than zero (found -1)\n"
                         "QM: syntax error in setting: setting name must begin with alpha character\n"
                         "QM_HEAP:  syntax error in configuration setting: 9lives=1\n"
                         "QM: paint_on_alloc: ERROR true or false expected for value\n"
                         "QM_HEAP:  unrecognized setting: no_such_key\n"
                         "QM_HEAP:  unrecognized setting: core_startup_config_done\n"
                         "QM_HEAP:  unrecognized commentary setting: bogus\n"
                         "QM_HEAP:  WANRING: unrecognized Red Zones mode: fenced\n"
                         "QM_HEAP:  rz_size_range: ERROR missing or invalid end of size range\n"
                         "QM_HEAP:  rz_size_range: ERROR end of range must be 0, or greater or equal to the start of range\n"
                         "QM_HEAP:  rz_size_range: ERROR expected rz_size_range=[0..15],start_size,end_size\n"
                         "QM_HEAP:  hoard_maximum_kb: WARNING ignoring unexpected characters found following value.\n"
                         + STARTING)


class Environment(unittest.TestCase):
    def run_args(self, args, *argv, env=None):
        e = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": args}
        e.update(env or {})
        return run([target("exit_status")] + list(argv), env=e)

    def test_output_file_receives_the_agent_output(self):
        d = tempfile.mkdtemp()
        try:
            out = os.path.join(d, "agent.out")
            r = self.run_args("output_file=%s verbosity=2" % out)
            self.assertEqual(r.stderr, "")
            with open(out) as f:
                text = f.read()
            self.assertTrue(text.startswith(STARTING), text)
            self.assertIn("finalizer    : process termination\n", text)
            qmtest.assert_no_events(text)
            r = self.run_args("output_file=%s/no/such/dir verbosity=1" % d)
            self.assertEqual(r.stderr, "QM_HEAP:  error opening `%s/no/such/dir' for output\n" % d)
        finally:
            shutil.rmtree(d)

    def test_exit_on_event_ends_the_process_with_status_zero(self):
        r = self.run_args("verbosity=1 commentary=exit_on_event enable_exit_on_event=true "
                          "exit_on_event_termination=true", "7")
        self.assertEqual(r.stdout, "exit_status: 7\n")
        self.assertEqual(r.stderr, "QM_HEAP:  termination notification --- exiting on event\n")
        self.assertEqual(r.returncode, 0)
        # Without the master switch the flag does nothing.
        r = self.run_args("exit_on_event_termination=true", "7")
        self.assertEqual(r.returncode, 7)

    def test_console_filter_is_per_event(self):
        r = self.run_args("verbosity=2 enable_event_console_filtering=true notify_console_termination=false")
        self.assertIn("finished processing startup configuration", r.stderr)
        self.assertNotIn("process termination", r.stderr)
        qmtest.assert_no_events(r.stderr)
        # notify_ (the debugger's filter) does not touch the console.
        r = self.run_args("verbosity=2 enable_event_filtering=true notify_termination=false")
        self.assertIn("process termination", r.stderr)
        qmtest.assert_no_events(r.stderr)


@unittest.skipUnless(config()["native_exec"] and shutil.which("gdb"), "needs gdb on a natively run program")
class Debugger(unittest.TestCase):
    def test_gdb_stops_at_the_startup_event(self):
        script = "\n".join([
            "set startup-with-shell off",
            "set breakpoint pending on",
            "set environment LD_PRELOAD=%s" % config()["lib"],
            "set environment QMHEAP_CONFIG_FILE=",
            "break QM_HEAP_notify_breakpoint_here",
            "run",
            "finish",
            "print QM_HEAP_event.event",
            "print QM_HEAP_event.op",
            "kill",
        ])
        d = tempfile.mkdtemp()
        try:
            path = os.path.join(d, "commands")
            with open(path, "w") as f:
                f.write(script + "\n")
            r = subprocess.run(["gdb", "-batch", "-nx", "-x", path, "--args", target("exit_status")],
                               capture_output=True, text=True, timeout=120)
        finally:
            shutil.rmtree(d)
        self.assertIn("Breakpoint 1, QM_HEAP_notify_breakpoint_here", r.stdout)
        self.assertIn("= qm_heap_event_startup_config_done", r.stdout)
        self.assertIn("= qm_heap_op_nop", r.stdout)


if __name__ == "__main__":
    qmtest.main()
