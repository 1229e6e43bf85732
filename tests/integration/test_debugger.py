"""The debugger's side: the control functions, and the root block read from
outside the process by qmheap-inspect, which knows only the root block's
format. What the control functions answer inside the process must be what
the reader decodes from its memory, live and from a lightweight core; and
settings a debugger changes at the start-up event must govern the rest of
the run."""

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import qmtest
from qmtest import config, is_64, run, target

INSPECT = os.path.join(config()["source_dir"], "tools", "inspect", "qmheap-inspect")
NATIVE = config()["native_exec"]

# The root data table's items, in order, as a debugger looks them up by name.
ITEMS = """QM_qm_distribution stack_backtrace_root_block QM_HEAP_notify_breakpoint_here QM_HEAP_backtrace_get_trim
QM_HEAP_backtrace_depth QM_HEAP_backtrace_initial_trim QM_HEAP_backtrace_table
QM_HEAP_event_console_filter_master_switch QM_HEAP_event_console_filters QM_HEAP_event_filter_master_switch
QM_HEAP_event_filters QM_HEAP_generate_core_master_switch QM_HEAP_generate_core_filters
QM_HEAP_lwmdbg_generate_master_switch QM_HEAP_lwmdbg_generate_filters QM_HEAP_lwcore_generate_master_switch
QM_HEAP_lwcore_generate_filters QM_HEAP_exit_on_event_master_switch QM_HEAP_exit_on_event_filters
QM_HEAP_hoarding_enabled QM_HEAP_hoarding_all_blocks QM_HEAP_hoard_max_num_blocks QM_HEAP_hoard_max_kb
QM_HEAP_hoard_autoshrink_enabled QM_HEAP_hoard_autoshrink_threshold_kb QM_HEAP_hoard_autoshrink_threshold_trigger_count
QM_HEAP_hoard_num_blocks QM_HEAP_hoard_kb QM_HEAP_hoard_bytes QM_HEAP_hoard_table
QM_HEAP_event_core_is_valid QM_HEAP_event_core
QM_HEAP_guard_enabled QM_HEAP_guard_max_size QM_HEAP_guard_pre_size QM_HEAP_guard_post_size QM_HEAP_guard_pre_pattern
QM_HEAP_guard_post_pattern QM_HEAP_guard_pattern_alignment QM_HEAP_guard_payload_alignment QM_HEAP_guard_pattern_width
QM_HEAP_generation QM_HEAP_guard_table QM_HEAP_allocation_table QM_HEAP_deallocation_table
QM_HEAP_startup_config_done QM_HEAP_verbosity QM_HEAP_owner_purge_hoard
QM_HEAP_lwcore_sequence_number QM_HEAP_lwcore_pathname_specifier QM_HEAP_lwcore_pathname_specifier_max_length
QM_HEAP_lwmdbg_sequence_number QM_HEAP_lwmdbg_pathname_specifier QM_HEAP_lwmdbg_pathname_specifier_max_length
QM_HEAP_paint_paint_on_allocation QM_HEAP_paint_paint_on_deallocation QM_HEAP_paint_paint_over_zero
QM_HEAP_paint_pattern_allocation QM_HEAP_paint_pattern_deallocation QM_HEAP_paint_pattern_width
QM_HEAP_version_major QM_HEAP_version_minor QM_HEAP_version_point QM_HEAP_version_service
QM_HEAP_rz_table QM_HEAP_rz_enabled QM_HEAP_rz_alloc_mode QM_HEAP_rz_alignment QM_HEAP_rz_fence_size
QM_HEAP_rz_exit_val QM_HEAP_rz_want_end_aligned QM_HEAP_rz_want_pre_fence QM_HEAP_rz_want_post_fence
QM_HEAP_rz_want_use_after_free QM_HEAP_rz_size_ranges_enabled QM_HEAP_rz_size_ranges
QM_HEAP_rz_size_ranges_num_ranges""".split()

# What each getter answers, and the variable a reader finds it in.
GETTER_VARIABLES = {
    "verbosity": "QM_HEAP_verbosity", "backtrace_depth": "QM_HEAP_backtrace_depth",
    "backtrace_trim": "QM_HEAP_backtrace_initial_trim", "paint_on_alloc": "QM_HEAP_paint_paint_on_allocation",
    "paint_on_dealloc": "QM_HEAP_paint_paint_on_deallocation", "paint_on_zalloc": "QM_HEAP_paint_paint_over_zero",
    "alloc_pattern": "QM_HEAP_paint_pattern_allocation", "dealloc_pattern": "QM_HEAP_paint_pattern_deallocation",
    "hoarding_enabled": "QM_HEAP_hoarding_enabled", "hoarding_all_blocks": "QM_HEAP_hoarding_all_blocks",
    "hoard_max_num_blocks": "QM_HEAP_hoard_max_num_blocks", "hoard_max_kb": "QM_HEAP_hoard_max_kb",
    "guards_enabled": "QM_HEAP_guard_enabled", "max_guard_size": "QM_HEAP_guard_max_size",
    "pre_guard_size": "QM_HEAP_guard_pre_size", "post_guard_size": "QM_HEAP_guard_post_size",
    "pre_guard_pattern": "QM_HEAP_guard_pre_pattern", "post_guard_pattern": "QM_HEAP_guard_post_pattern",
    "core_enabled": "QM_HEAP_generate_core_master_switch", "lwmem_enabled": "QM_HEAP_lwcore_generate_master_switch",
    "generation": "QM_HEAP_generation",
}

PROBE_SETTINGS = "enable_guard_blocks=true guard_pre_size=16 guard_post_pattern=0x3c3c3c3c lwmem_double_dealloc=true"


def inspect(*args):
    r = subprocess.run([sys.executable, INSPECT, "--json"] + list(args), capture_output=True, text=True, timeout=120)
    if r.returncode != 0:
        raise AssertionError("qmheap-inspect failed:\n" + r.stderr)
    return json.loads(r.stdout)


def symbols(lib):
    """The library's symbol values by name, hidden ones included."""
    out = subprocess.run(["nm", lib], capture_output=True, text=True, check=True).stdout
    return {f[2]: int(f[0], 16) for f in (l.split() for l in out.splitlines()) if len(f) == 3}


class Probe:
    """hia_api probe under the agent: its answers, its lightweight core and,
    while it waits, its memory as the reader decodes it."""

    def __init__(self, tmp, live):
        self.core = os.path.join(tmp, "probe.lwmem")
        cmd = [config()["runner"], "--preload", config()["lib"], "--env", "QMHEAP_CONFIG_FILE=",
               "--env", "QMHEAP_ARGS=" + PROBE_SETTINGS, "--", target("hia_api"), "probe", self.core]
        p = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        try:
            line = p.stdout.readline()
            if not line:
                raise AssertionError("the probe ended early:\n" + p.stderr.read())
            self.api = json.loads(line)
            self.live = inspect("--pid", str(p.pid)) if live else None
        finally:
            out, err = p.communicate("\n", timeout=60)
        assert p.returncode == 0, err
        self.from_core = inspect("--core", self.core)


class RootBlockTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp()
        cls.probe = Probe(cls.tmp, live=NATIVE)
        cls.syms = symbols(config()["lib"])

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp)

    def views(self):
        yield "lightweight core", self.probe.from_core
        if self.probe.live is not None:
            yield "live process", self.probe.live

    @unittest.skipUnless(NATIVE, "the live process is the emulator's: its memory holds the program at another address")
    def test_the_live_process_reads_as_its_lightweight_core(self):
        live, core = self.probe.live, self.probe.from_core
        self.assertEqual(live["root"], core["root"])
        self.assertEqual(live["types"], core["types"])
        # The settings; the tables and counters moved on as the probe printed.
        def settings(res):
            return {k: v for k, v in res["data"].items() if not isinstance(v, dict) and "hoard_" not in k}
        self.assertEqual(settings(live), settings(core))

    def test_the_header_and_the_descriptor_layouts(self):
        psz = 8 if is_64() else 4
        for where, res in self.views():
            with self.subTest(where):
                root = res["root"]
                self.assertEqual((root["byte_order"], root["sizeof_int"], root["sizeof_pointer"]), ("little", 4, psz))
                self.assertEqual(root["me"], root["address"])
                self.assertEqual(root["data_table_entries"], 18)
                if not is_64():  # the 32-bit layouts a debugger reads by fixed offsets
                    self.assertEqual([root[k] for k in ("offsetof_me", "offsetof_td_meta_block",
                                                        "offsetof_data_table_type_descriptor_table",
                                                        "offsetof_type_table", "offsetof_data_table")],
                                     [148, 152, 156, 160, 164])
                    self.assertEqual(list(root["meta_offsets"].values()), [44, 56, 68, 80, 100, 116, 136, 140, 144])
                    self.assertEqual([v["size"] for v in root["descriptor_layouts"].values()], [8, 8, 8, 16, 12, 16])
                    self.assertEqual(res["types"]["heap_avl_node_t"]["size"], 64)
                    self.assertEqual(res["types"]["QM_ia_root_block_t"]["size"], 168)

    def test_every_field_type_resolves_and_every_item_names_its_variable(self):
        for where, res in self.views():
            with self.subTest(where):
                types = res["types"]

                def resolves(name):
                    name = re.sub(r"\[\d+\]$", "", name.strip())
                    if name.endswith("*"):
                        return resolves(name[:-1]) or name[:-1].strip() == "void"
                    t = types.get(name)
                    return t is not None and (t["kind"] != "alias" or resolves(t["target"]))

                bad = [(t["name"], f[0], f[1]) for t in types.values() if t["kind"] == "record"
                       for f in t["fields"] if not resolves(f[1])]
                self.assertEqual(bad, [])
                self.assertEqual(res["items"], ITEMS)
                # Each item's address is its variable's: the library's symbol
                # table, moved to where the root block lies.
                base = res["root"]["address"] - self.syms["QM_HEAP_QM"]
                data = res["data"]
                for name in ("stack_backtrace_root_block", "QM_HEAP_notify_breakpoint_here",
                             "QM_HEAP_backtrace_get_trim"):
                    self.assertEqual(data[name] - base, self.syms[name], name)
                self.assertEqual(res["constants"], sorted(
                    ["QM_qm_distribution", "QM_HEAP_guard_pattern_alignment", "QM_HEAP_guard_pattern_width",
                     "QM_HEAP_lwcore_pathname_specifier_max_length", "QM_HEAP_lwmdbg_pathname_specifier_max_length",
                     "QM_HEAP_paint_pattern_width", "QM_HEAP_version_major", "QM_HEAP_version_minor",
                     "QM_HEAP_version_point", "QM_HEAP_version_service"]))
                self.assertRegex(data["QM_qm_distribution"], r"^qmheap-\S+ (x86_64|i386) \S+$")
                self.assertEqual(res["backtrace_module"]["QM_qm_distribution"], data["QM_qm_distribution"])
                self.assertEqual(sorted(res["backtrace_module"]), sorted(
                    ["QM_qm_distribution", "QM_STACK_version_major", "QM_STACK_version_minor",
                     "QM_STACK_version_point", "QM_STACK_version_service"]))

    def test_settings_and_per_event_actions_agree_with_the_control_functions(self):
        api = self.probe.api
        for where, res in self.views():
            with self.subTest(where):
                data = res["data"]
                for getter, var in GETTER_VARIABLES.items():
                    self.assertEqual(api[getter], data[var], (getter, var))
                self.assertEqual(api["version"], [data["QM_HEAP_version_" + k]
                                                  for k in ("major", "minor", "point", "service")])
                self.assertEqual(api["inc_generation"], 2)
                self.assertEqual(api["lwmem_pathname"], data["QM_HEAP_lwcore_pathname_specifier"])
                self.assertEqual(api["lwmem_pathname_len"], len(api["lwmem_pathname"]))
                self.assertEqual(len(api["events"]), 38)  # the 37 defined and dealloc_mismatch
                self.assertEqual([e[1] for e in api["events"]], list(range(38)))
                # The probe set the core flag of index 4 and the lightweight
                # core flag of index 3, the configuration that of double
                # deallocation; a reader finds them at the events' values.
                tags = {v: n for n, v in res["types"]["QM_HEAP_event_e"]["members"]}
                for column, filters, flagged in ((2, "QM_HEAP_generate_core_filters", ["guard_corruption"]),
                                                 (3, "QM_HEAP_lwcore_generate_filters",
                                                  ["double_alloc", "double_dealloc"])):
                    self.assertEqual([e[0] for e in api["events"] if e[column]], flagged)
                    self.assertEqual(sorted(tags[i] for i, f in enumerate(data[filters]) if f),
                                     sorted("qm_heap_event_" + n for n in flagged))

    def test_blocks_agree_with_the_control_functions(self):
        api = self.probe.api
        for where, res in self.views():
            with self.subTest(where):
                allocs = {r["addr"]: r for r in res["allocations"]}
                guards = res["guard_settings"]
                for b in api["live"]:
                    self.assertEqual((b["allocated"], b["base"]), (1, b["p"]))
                    rec = allocs[b["base"]]
                    self.assertEqual(rec["len"], b["len"])
                    self.assertEqual(b["hoard"], 1 if rec["flags"] & 16 else 0)
                    g = guards[str(rec["guard_id"])]
                    self.assertEqual(b["guards"], [g["pre_size"], g["post_size"], g["pre_pattern"], g["post_pattern"]])
                    self.assertEqual(b["guards_ok"], [1, 1])
                self.assertEqual([b["len"] for b in api["live"]], [100, 300, 5000, 40])
                self.assertEqual([b["hoard"] for b in api["live"]], [0, 0, 0, 1])
                self.assertEqual(api["live"][0]["guards"][0], 16)
                self.assertEqual(api["live"][0]["guards"][3], 0x3c3c3c3c)
                gone = api["released"]
                self.assertEqual((gone["deallocated"], gone["base"], gone["len"], gone["allocated"]),
                                 (1, gone["p"], 77, 0))
                self.assertIn((gone["base"], 77), [(r["addr"], r["len"]) for r in res["deallocations"]])
                self.assertIn(api["hoarded"], [b["addr"] for b in res["hoard"]])


class ControlFunctionsTest(unittest.TestCase):
    def test_edge_cases(self):
        r = run([target("hia_api"), "edges"], env={"QMHEAP_CONFIG_FILE": ""})
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout.splitlines(), [
            "index guard_corruption 0 4", "index dealloc 0 13", "index double_dealloc 0 19",
            "index startup_config_done 5", "index null 4", "name 38 5", "name -1 5", "core_event 38 5",
            "lwmem_event -1 5", "verbosity null 0", "version nulls 0", "inc_generation null 0",
            "long specifier 5", "small buffer 5 19", "unknown block 0 0", "unknown hoard 0 0",
            "unknown set hoard 0", "unknown guards 0 -7"])

    def test_settings_from_the_environment_read_back_through_the_getters(self):
        settings = {
            "verbosity": ("1", 1), "display_allocations_on_exit": ("true", 1),
            "memalign_strict_alignment_even_multiple": ("true", 1), "backtrace_depth": ("9", 9),
            "backtrace_trim": ("4", 4), "paint_on_alloc": ("true", 1), "paint_on_dealloc": ("true", 1),
            "paint_on_zalloc": ("true", 1), "paint_alloc_pattern": ("0x01020304", 0x01020304),
            "paint_dealloc_pattern": ("0x05060708", 0x05060708), "enable_hoarding": ("true", 1),
            "hoard_all_blocks": ("false", 0), "hoard_maximum_num_blocks": ("11", 11),
            "hoard_maximum_kb": ("12", 12), "enable_guard_blocks": ("true", 1), "guard_max_size": ("128", 128),
            "guard_pre_size": ("32", 32), "guard_post_size": ("40", 40),
            "guard_pre_pattern": ("0x0a0b0c0d", 0x0a0b0c0d), "guard_post_pattern": ("0x0e0f1011", 0x0e0f1011),
            "enable_generate_core": ("true", 1), "enable_generate_lwmem": ("true", 1)}
        getters = ["verbosity", "dump_allocation_table_on_exit", "memalign_strict", "backtrace_depth",
                   "backtrace_trim", "paint_on_alloc", "paint_on_dealloc", "paint_on_zalloc", "alloc_pattern",
                   "dealloc_pattern", "hoarding_enabled", "hoarding_all_blocks", "hoard_max_num_blocks",
                   "hoard_max_kb", "guards_enabled", "max_guard_size", "pre_guard_size", "post_guard_size",
                   "pre_guard_pattern", "post_guard_pattern", "core_enabled", "lwmem_enabled"]
        args = " ".join("%s=%s" % (k, v[0]) for k, v in settings.items())
        r = run([target("hia_api"), "settings"], env={"QMHEAP_CONFIG_FILE": "", "QMHEAP_ARGS": args})
        self.assertEqual(r.returncode, 0, r.stderr)
        got = json.loads(r.stdout.splitlines()[0])
        self.assertEqual({g: got[g] for g in getters}, dict(zip(getters, (v[1] for v in settings.values()))))
        self.assertEqual((got["guards_supported"], got["core_supported"], got["lwmem_supported"]), (1, 1, 1))


@unittest.skipUnless(NATIVE and shutil.which("gdb"), "needs gdb on a natively run program")
class DebuggerAtStartupTest(unittest.TestCase):
    """gdb stops at the start-up event, before main, calls control functions,
    and lets the program run on."""

    def at_startup(self, calls, steps, settings="", cwd=None):
        script = ["set startup-with-shell off", "set breakpoint pending on",
                  "set environment LD_PRELOAD=%s" % config()["lib"], "set environment QMHEAP_CONFIG_FILE=",
                  "set environment QMHEAP_ARGS=%s" % settings, "break QM_HEAP_notify_breakpoint_here", "run",
                  "print event->event"] + ["print (int)QM_HIA_API_%s" % c for c in calls] + ["delete", "continue"]
        r = qmtest.gdb(script, [target("hia_api"), "workload"] + steps)
        self.assertIn("= qm_heap_event_startup_config_done", r.stdout)
        statuses = re.findall(r"^\$\d+ = (-?\d+)$", r.stdout, re.M)
        self.assertEqual(statuses, ["0"] * len(calls), r.stdout)
        self.assertIn("done", r.stdout)
        return r

    def test_console_and_guards(self):
        plain = self.at_startup([], ["overrun"])
        self.assertNotIn("guard corruption", plain.stdout + plain.stderr)
        r = self.at_startup(["set_verbosity(2)", "set_guards_enabled(1)", "set_guard_post_pattern(0x3c3c3c3c)"],
                            ["overrun"])
        self.assertRegex(r.stdout + r.stderr, r"QM_HEAP:  \w+ +: guard corruption")

    def test_painting(self):
        plain = self.at_startup([], ["paint"])
        self.assertNotIn("released bytes 44 33 22 11", plain.stdout)
        r = self.at_startup(["set_painting_on_dealloc(1)", "set_dealloc_pattern(0x11223344)"], ["paint"])
        self.assertIn("released bytes 44 33 22 11", r.stdout)

    def test_hoard_per_event_files_backtraces_generation_and_the_exit_list(self):
        """With the hoard a second release is held back and reported instead
        of reaching the C library; the lightweight core the double release
        now writes shows the depth and generation set at start-up; the exit
        list shows the block never released."""
        tmp = tempfile.mkdtemp()
        try:
            r = self.at_startup(["set_hoarding_enabled(1)", "set_verbosity(2)", "set_generate_lwmem_enabled(1)",
                                 "set_generate_lwmem_event(19, 1)",
                                 'set_lwmem_pathname_specifier("%s/at-double-%%p.lwmem")' % tmp,
                                 "set_backtrace_depth(0)", "inc_generation(0)", "inc_generation(0)",
                                 "inc_generation(0)", "set_dump_allocation_table_on_exit(1)"],
                                ["leak", "double"])
            out = r.stdout + r.stderr
            self.assertRegex(out, r"QM_HEAP:  \w+ +: double deallocation")
            cores = os.listdir(tmp)
            self.assertEqual(len(cores), 1, out)
            res = inspect("--core", os.path.join(tmp, cores[0]))
            leak = [a for a in res["allocations"] if a["len"] == 1234]
            self.assertEqual(len(leak), 1)
            self.assertEqual((leak[0]["backtrace_id"], leak[0]["generation"]), (0, 3))
            self.assertIn("ALLOCATION TABLE --- START", out)
            self.assertRegex(out, r"QM_HEAP:  +[0-9a-f]+ +1234\n")
        finally:
            shutil.rmtree(tmp)


if __name__ == "__main__":
    qmtest.main()
