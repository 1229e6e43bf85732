"""The built library: its banner when run as a program, and the discipline
that lets it live inside any process (checked on the ELF file itself)."""

import glob
import os
import re
import subprocess
import unittest

import qmtest
from qmtest import config


def tool(*argv):
    return subprocess.run(argv, capture_output=True, text=True, check=True).stdout


def read_list(name):
    """A list of names; {size} is std::size_t's code in C++ names."""
    path = os.path.join(config()["source_dir"], "src", name)
    size = "m" if qmtest.is_64() else "j"
    with open(path) as f:
        return {l.strip().replace("{size}", size) for l in f if l.strip() and not l.startswith("#")}


class Banner(unittest.TestCase):
    def test_run_as_program_prints_the_banner_only(self):
        r = qmtest.run([config()["lib"]], preload=False)
        bits = "64" if qmtest.is_64() else "32"
        expected = [
            "QM_HEAP:  Quillmark Heap Interposition Agent",
            "QM_HEAP:    hia version: 1.2",
            None,
            "QM_HEAP:    ARCH_SIZE: " + bits,
            "QM_HEAP:    is 32-bit?: " + ("no" if qmtest.is_64() else "yes"),
            "QM_HEAP:    is 64-bit?: " + ("yes" if qmtest.is_64() else "no"),
        ]
        lines = r.stderr.splitlines()
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout, "")
        self.assertEqual(len(lines), 6, r.stderr)
        for got, want in zip(lines, expected):
            if want is not None:
                self.assertEqual(got, want)
        self.assertRegex(lines[2], r"^QM_HEAP:    Quillmark distribution: qmheap-\S+ %s \S+$" % config()["arch"])


class Discipline(unittest.TestCase):
    def setUp(self):
        self.lib = config()["lib"]

    def test_dynamic_section(self):
        d = tool("readelf", "-dW", self.lib)
        needed = re.findall(r"\(NEEDED\)\s+Shared library: \[(.*)\]", d)
        self.assertEqual(needed, ["libdl.so.2"])
        self.assertRegex(d, r"\(INIT\)")
        self.assertRegex(d, r"\(FINI\)")
        self.assertNotRegex(d, r"INIT_ARRAY|PREINIT_ARRAY")
        sections = tool("readelf", "-SW", self.lib)
        self.assertNotRegex(sections, r"\.init_array|\.ctors")

    def test_program_interpreter_of_its_own_architecture(self):
        h = tool("readelf", "-lW", self.lib)
        interp = "/lib64/ld-linux-x86-64.so.2" if qmtest.is_64() else "/lib/ld-linux.so.2"
        self.assertIn("[Requesting program interpreter: %s]" % interp, h)

    def test_undefined_symbols_are_the_reviewed_c_library_list(self):
        out = tool("nm", "-D", "--undefined-only", self.lib)
        undefined = {l.split()[-1].split("@")[0] for l in out.splitlines() if l.strip()}
        cxx = {s for s in undefined
               if s.startswith(("_Z", "__cxa_", "_Unwind_Resume", "__gxx_personality"))}
        self.assertEqual(cxx, set())
        allowed = read_list("libc_allow.txt")
        self.assertEqual(undefined - allowed, set(), "new C library calls: review and list them")
        # The reverse is not checked: the compiler itself may or may not
        # introduce calls such as strlen, depending on the optimisation level.

    def test_exports_are_exactly_the_interface(self):
        out = tool("nm", "-D", "--defined-only", self.lib)
        defined = {l.split()[-1].split("@")[0] for l in out.splitlines() if l.strip()}
        self.assertEqual(defined, read_list("exports.txt"))

    def test_no_global_constructors_in_any_object(self):
        objs = glob.glob(os.path.join(config()["binary_dir"], "src", "CMakeFiles", "*", "**", "*.o"),
                         recursive=True)
        self.assertTrue(objs)
        for o in objs:
            syms = tool("nm", o)
            self.assertNotIn("_GLOBAL__sub_I_", syms, o)
            self.assertNotIn("__cxa_guard_acquire", syms, o)


if __name__ == "__main__":
    qmtest.main()
