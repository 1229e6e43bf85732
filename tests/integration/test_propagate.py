"""Following the program: every way a watched process starts another program
hands on the agent (the library of the new program's word size, first in
LD_PRELOAD) and its settings, also through an explicit environment; failures
are the C library's own; and a library opened with RTLD_DEEPBIND still has
its heap calls reach the agent, through a generated wrapper whose bytes are
checked here."""

import os
import re
import shutil
import struct
import subprocess
import tempfile
import unittest

import qmtest
from qmtest import assert_no_events, config, is_64, target

ARCH_LIB = os.path.basename(config()["lib"])
OTHER_LIB = os.path.normpath(os.path.join(config()["binary_dir"], "..", "i386" if is_64() else "x86_64",
                                          "libqmheap.so" if is_64() else "libqmheap_64.so"))
SETTINGS = "verbosity=2"
STARTING = "QM_HEAP:  STARTING"


class LibDir:
    """Both agent libraries in one directory, as they are installed."""

    def __init__(self):
        self.dir = tempfile.mkdtemp()
        os.symlink(config()["lib"], os.path.join(self.dir, ARCH_LIB))
        if os.path.exists(OTHER_LIB):
            os.symlink(OTHER_LIB, os.path.join(self.dir, os.path.basename(OTHER_LIB)))
        self.lib = os.path.join(self.dir, ARCH_LIB)

    def run(self, argv, env=None, timeout=300):
        cmd = [config()["runner"], "--preload", self.lib, "--env", "QMHEAP_CONFIG_FILE=",
               "--env", "QMHEAP_ARGS=" + SETTINGS]
        for k, v in (env or {}).items():
            cmd += ["--env", "%s=%s" % (k, v)]
        return subprocess.run(cmd + ["--"] + list(argv), capture_output=True, text=True, timeout=timeout,
                              errors="replace")

    def close(self):
        shutil.rmtree(self.dir)


def child_environment(stdout):
    return dict(l.split("=", 1) for l in stdout.splitlines() if re.match(r"^[A-Za-z_][A-Za-z0-9_]*=", l))


class ExecTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.libs = LibDir()

    @classmethod
    def tearDownClass(cls):
        cls.libs.close()

    def test_every_way_of_starting_a_program_hands_on_the_agent_and_its_settings(self):
        """The child is the host's env (x86-64): from the i386 agent it gets
        the 64-bit library from the same directory."""
        if not os.path.exists(os.path.join(self.libs.dir, "libqmheap_64.so")):
            self.skipTest("the x86-64 agent is not built beside this one")
        explicit = {"execve", "execle", "execvpe", "fexecve", "posix_spawn", "posix_spawnp"}
        for method in ("execve", "execle", "execv", "execvp", "execvpe", "execlp", "fexecve", "posix_spawn",
                       "posix_spawnp", "system"):
            with self.subTest(method):
                prog = "env" if method in ("execvp", "execvpe", "execlp", "posix_spawnp") else "/usr/bin/env"
                r = self.libs.run([target("spawn"), method, prog])
                self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
                env = child_environment(r.stdout)
                self.assertEqual(env.get("LD_PRELOAD"), os.path.join(self.libs.dir, "libqmheap_64.so"), r.stdout)
                self.assertEqual((env.get("QMHEAP_ARGS"), env.get("QMHEAP_CONFIG_FILE")), (SETTINGS, ""))
                if method in explicit:
                    self.assertEqual(env.get("A"), "1")
                # Watched: the child's agent started and said nothing else.
                self.assertGreaterEqual(r.stderr.count(STARTING), 2, r.stderr)
                assert_no_events(r.stderr)

    def test_a_script_runs_with_the_agent_of_its_interpreter(self):
        d = tempfile.mkdtemp()
        try:
            script = os.path.join(d, "script")
            with open(script, "w") as f:
                f.write("#! /bin/sh\necho LD_PRELOAD=$LD_PRELOAD\n")
            os.chmod(script, 0o755)
            r = self.libs.run([target("spawn"), "execve", script])
            self.assertEqual(r.returncode, 0, r.stderr)
            if os.path.exists(os.path.join(self.libs.dir, "libqmheap_64.so")):
                self.assertEqual(child_environment(r.stdout)["LD_PRELOAD"],
                                 os.path.join(self.libs.dir, "libqmheap_64.so"))
            assert_no_events(r.stderr)
        finally:
            shutil.rmtree(d)

    def test_failures_are_exactly_the_c_librarys(self):
        d = tempfile.mkdtemp()
        try:
            with open(os.path.join(d, "text"), "w") as f:
                f.write("echo from a script without its line\n")
            with open(os.path.join(d, "plain"), "w") as f:
                f.write("x\n")
            os.chmod(os.path.join(d, "text"), 0o755)
            os.mkdir(os.path.join(d, "bin"))
            for n in ("text", "plain"):
                shutil.copy2(os.path.join(d, n), os.path.join(d, "bin", n))
            plain = qmtest.run([target("spawn"), "errors", d], preload=False)
            watched = self.libs.run([target("spawn"), "errors", d])
            self.assertEqual(watched.stdout, plain.stdout)
            self.assertIn("execvp not executable: -1 EACCES", plain.stdout)
            self.assertIn("execve text: -1 ENOEXEC", plain.stdout)
            assert_no_events(watched.stderr)
        finally:
            shutil.rmtree(d)

    @unittest.skipUnless(is_64(), "the 64-bit agent starting a 32-bit program")
    def test_a_32_bit_program_gets_the_32_bit_agent(self):
        d = tempfile.mkdtemp()
        try:
            prog = os.path.join(d, "show32")
            src = prog + ".c"
            with open(src, "w") as f:
                f.write('#include <stdio.h>\n#include <stdlib.h>\n'
                        'int main(void) { printf("LD_PRELOAD=%s\\n", getenv("LD_PRELOAD")); return 0; }\n')
            if subprocess.run(["gcc", "-m32", "-o", prog, src], capture_output=True).returncode != 0:
                self.skipTest("no 32-bit compiler")
            try:
                runs = subprocess.run([prog], capture_output=True).returncode == 0
            except OSError:
                runs = False
            if not runs:
                self.skipTest("skipped: the kernel does not run 32-bit programs here")
            if not os.path.exists(os.path.join(self.libs.dir, "libqmheap.so")):
                self.skipTest("the i386 agent is not built beside this one")
            r = self.libs.run([target("spawn"), "execve", prog])
            self.assertEqual(child_environment(r.stdout)["LD_PRELOAD"], os.path.join(self.libs.dir, "libqmheap.so"))
            self.assertEqual(r.stderr.count(STARTING), 2, r.stderr)
            assert_no_events(r.stderr)
        finally:
            shutil.rmtree(d)


@unittest.skipUnless(is_64(), "real host programs are x86-64")
class RealProgramsTest(unittest.TestCase):
    """Real programs that start others, watched end to end: every process
    starts the agent, none reports anything."""

    def watched(self, argv, processes, cwd=None, env=None):
        e = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": SETTINGS}
        e.update(env or {})
        r = qmtest.run_host(argv, env=e, cwd=cwd)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr[-3000:])
        self.assertGreaterEqual(r.stderr.count(STARTING), processes, r.stderr[-3000:])
        assert_no_events(r.stderr)
        return r

    def test_python_subprocesses_with_and_without_an_environment(self):
        code = ("import os, subprocess\n"
                "print(subprocess.run(['sh', '-c', 'echo $QMHEAP_ARGS'], env={'PATH': '/usr/bin:/bin'},"
                " stdout=subprocess.PIPE, text=True).stdout.strip())\n"
                "print(subprocess.run(['python3', '-c', 'print(1)'], stdout=subprocess.PIPE, text=True).stdout.strip())\n"
                "os.system('true')\n")
        r = self.watched(["python3", "-c", code], 4)
        self.assertEqual(r.stdout.split(), [SETTINGS, "1"])

    def test_perl_system_and_exec_with_an_emptied_environment(self):
        code = 'system("sh", "-c", "true"); { local %ENV = (); system("/bin/echo", "x"); } exec "/bin/true"'
        self.watched(["perl", "-e", code], 4)

    def test_a_shell_pipeline(self):
        r = self.watched(["bash", "-c", "seq 1 2000 | sort -rn | head -1"], 4)
        self.assertEqual(r.stdout.strip(), "2000")

    def test_make_running_the_compiler(self):
        d = tempfile.mkdtemp()
        try:
            with open(os.path.join(d, "hello.c"), "w") as f:
                f.write('#include <stdio.h>\nint main(void) { puts("hello"); return 0; }\n')
            with open(os.path.join(d, "Makefile"), "w") as f:
                f.write("run: hello\n\t./hello\nhello: hello.c\n\tcc -O1 -o $@ $<\n")
            r = self.watched(["make", "-s"], 5, cwd=d)
            self.assertEqual(r.stdout.strip(), "hello")
        finally:
            shutil.rmtree(d)


def read_wrapper(path):
    """The wrapper file decoded by its layout: (header fields, program
    headers, section headers, dynamic entries, .dynstr)."""
    with open(path, "rb") as f:
        data = f.read()
    wide = data[4] == 2
    if wide:
        eh = struct.unpack_from("<16sHHIQQQIHHHHHH", data, 0)
        ph = [struct.unpack_from("<IIQQQQQQ", data, eh[5] + 56 * i) for i in range(eh[10])]
        ph = [(p[0], p[2], p[3], p[4], p[5], p[6], p[1], p[7]) for p in ph]  # type offset vaddr paddr filesz memsz flags align
        sh = [struct.unpack_from("<IIQQQQIIQQ", data, eh[6] + 64 * i) for i in range(eh[12])]
        dyn_fmt, dyn_size = "<qQ", 16
    else:
        eh = struct.unpack_from("<16sHHIIIIIHHHHHH", data, 0)
        ph = [struct.unpack_from("<IIIIIIII", data, eh[5] + 32 * i) for i in range(eh[10])]
        sh = [struct.unpack_from("<IIIIIIIIII", data, eh[6] + 40 * i) for i in range(eh[12])]
        dyn_fmt, dyn_size = "<iI", 8
    dynamic = sh[3]
    dyn = [struct.unpack_from(dyn_fmt, data, dynamic[4] + dyn_size * i) for i in range(dynamic[5] // dyn_size)]
    dynstr = data[sh[1][4]:sh[1][4] + sh[1][5]]
    return data, wide, eh, ph, sh, dyn, dynstr


class DeepbindTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp()
        self.lib = os.path.join(config()["targets"], "libqmdeep.so")

    def tearDown(self):
        shutil.rmtree(self.tmp)

    def deepbind(self, deep_settings=None, env=None, args=None):
        e = {"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": SETTINGS}
        if deep_settings is not None:
            e["QMHEAP_DEEPBIND"] = deep_settings
        e.update(env or {})
        return qmtest.run([target("deepbind")] + (args or [self.lib]), env=e)

    def test_blocks_cross_a_deep_bound_library_in_both_directions_without_a_report(self):
        r = self.deepbind(env={"TMPDIR": self.tmp})
        self.assertEqual(r.stdout, "ok\n", r.stderr)
        assert_no_events(r.stderr)
        self.assertEqual(os.listdir(self.tmp), [], "the wrapper is deleted once opened")
        # Without the wrapper the library's heap calls bypass the agent, and
        # its blocks look foreign: what the wrapper is for.
        r = self.deepbind("pass_through=true")
        self.assertEqual(r.stdout, "ok\n")
        self.assertRegex(r.stderr, r"QM_HEAP:  \w+ +: (allocated block|double deallocation|already allocated)")

    def test_the_wrapper_file_byte_for_byte(self):
        r = self.deepbind("keep_wrapper=true tmpdir=%s verbose=true" % self.tmp)
        self.assertEqual(r.stdout, "ok\n", r.stderr)
        self.assertIn("DEEPBIND (or equivalent) specified for dlopen ( %s )" % self.lib, r.stderr)
        names = os.listdir(self.tmp)
        self.assertEqual(len(names), 1)
        self.assertRegex(names[0], r"^qm_elfwrapper_libqmdeep\.so_[A-Za-z0-9]{6}$")
        path = os.path.join(self.tmp, names[0])
        self.assertIn("DEEPBIND (or equivalent) successfully generated wrapper %s" % path, r.stderr)
        data, wide, eh, ph, sh, dyn, dynstr = read_wrapper(path)
        page = os.sysconf("SC_PAGE_SIZE")
        self.assertEqual(wide, is_64())
        ehsize, phsize, shsize, symsize, dsize, align = (64, 56, 64, 24, 16, 8) if wide else (52, 32, 40, 16, 8, 4)
        first = ehsize + 3 * phsize + 6 * shsize
        if not wide:
            self.assertEqual(first, 388)
        self.assertEqual(eh[0][:7], b"\x7fELF" + bytes([2 if wide else 1, 1, 1]))
        self.assertEqual(eh[0][7:], bytes(9))
        self.assertEqual(eh[1:], (3, 62 if wide else 3, 1, 0, ehsize, ehsize + 3 * phsize, 0, ehsize, phsize, 3,
                                  shsize, 6, 2))
        # .dynstr: a NUL, the agent's path, the library as the caller named it.
        agent = os.path.realpath(config()["lib"])
        self.assertEqual(dynstr, b"\0" + agent.encode() + b"\0" + self.lib.encode() + b"\0")
        S = len(dynstr)
        rnd = lambda x: (x + align - 1) // align * align
        dynsym = rnd(first + S)
        hsh = rnd(dynsym + symsize)
        shstr = rnd(hsh + 16)
        D = rnd(shstr + 42)
        A = (D + page - 1) // page * page + D % page
        self.assertEqual(data[dynsym:dynsym + symsize], bytes(symsize))
        self.assertEqual(struct.unpack_from("<4I", data, hsh), (1, 1, 0, 0))
        self.assertEqual(data[shstr:shstr + 42], b"\0.dynstr\0.shstrtab\0.dynamic\0.dynsym\0.hash\0")
        self.assertEqual(dyn, [(1, 1), (1, 2 + len(agent)), (5, first), (10, S), (6, dynsym), (11, symsize),
                               (4, hsh), (0, 0)])
        self.assertEqual(len(data), D + 8 * dsize)
        gaps = [(first + S, dynsym), (dynsym + symsize, hsh), (hsh + 16, shstr), (shstr + 42, D)]
        self.assertTrue(all(data[a:b] == bytes(b - a) for a, b in gaps))
        # Sections: name, type, flags, address, offset, size, link, info, align, entry size.
        def section(s):
            return s if not wide else (s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7], s[8], s[9])
        self.assertEqual([section(s) for s in sh], [
            (0,) * 10,
            (1, 3, 2, first, first, S, 0, 0, 1, 0),
            (9, 3, 0, 0, shstr, 42, 0, 0, 1, 0),
            (19, 6, 3, A, D, 8 * dsize, 1, 0, align, dsize),
            (28, 11, 2, dynsym, dynsym, symsize, 1, 1, align, symsize),
            (36, 5, 2, hsh, hsh, 16, 4, 0, align, 4)])
        # Program headers: type, offset, address, physical address, sizes, flags, align.
        self.assertEqual([tuple(p) for p in ph], [(1, 0, 0, 0, shstr + 42, shstr + 42, 4, page),
                                                  (1, D, A, 0, 8 * dsize, 8 * dsize, 6, page),
                                                  (2, D, A, A, 8 * dsize, 8 * dsize, 6, 4)])

    def test_an_unusable_directory_is_said_and_the_library_still_opens(self):
        r = self.deepbind("tmpdir=/nonexistent/qmheap")
        self.assertEqual(r.stdout, "ok\n")
        self.assertIn("DEEPBIND (or equivalent) error generating wrapper /nonexistent/qmheap/qm_elfwrapper_libqmdeep.so_",
                      r.stderr)
        self.assertIn("No such file or directory; opening %s without it" % self.lib, r.stderr)

    def test_settings_errors_and_a_null_name(self):
        r = self.deepbind("bogus=1 keep_wrapper=maybe verbose=true", args=["null"])
        self.assertEqual(r.stdout, "ok null\n")
        self.assertNotIn("specified for dlopen", r.stderr)
        r = self.deepbind("bogus=1 verbose=true tmpdir=%s" % self.tmp)
        self.assertIn("QMHEAP_DEEPBIND: unrecognized setting: bogus", r.stderr)
        self.assertIn("specified for dlopen", r.stderr)
        self.assertEqual(os.listdir(self.tmp), [])


if __name__ == "__main__":
    qmtest.main()
