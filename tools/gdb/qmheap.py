"""gdb extension for programs run under the qmheap agent.

    (gdb) source /path/to/qmheap.py
    (gdb) qmheap status                 the agent's settings and table sizes
    (gdb) qmheap blocks [N]             the first N live blocks (default 20)
    (gdb) qmheap block ADDRESS          the block holding ADDRESS, live or released, with its stacks
    (gdb) qmheap get NAME               a setting through the control functions (verbosity, guards_enabled, ...)
    (gdb) qmheap set NAME VALUE         change it (QM_HIA_API_set_NAME)
    (gdb) qmheap snapshot [TEMPLATE]    write a snapshot file now
    (gdb) qmheap leaks                  search the program's memory for pointers now: the lost
                                        blocks, by allocation stack, on the program's console
    (gdb) qmheap stop [on|off]          stop at every agent event, told in words with the block's stack

The tables are read from the process's memory (the agent's own debugging
information gives their layout); settings change through the exported
QM_HIA_API_ control functions, which is what the agent offers a debugger.
"""

import gdb

GETTERS = {
    "verbosity": "get_verbosity", "dump_allocation_table_on_exit": "is_dump_allocation_table_on_exit",
    "backtrace_depth": "get_backtrace_depth", "backtrace_trim": "get_backtrace_trim",
    "painting_on_alloc": "is_painting_on_alloc", "painting_on_dealloc": "is_painting_on_dealloc",
    "painting_on_zalloc": "is_painting_on_zalloc", "alloc_pattern": "get_alloc_pattern",
    "dealloc_pattern": "get_dealloc_pattern", "hoarding_enabled": "is_hoarding_enabled",
    "hoarding_all_blocks": "is_hoarding_all_blocks", "hoard_max_num_blocks": "get_hoard_max_num_blocks",
    "hoard_max_kb": "get_hoard_max_kb", "guards_enabled": "is_guards_enabled",
    "max_guard_size": "get_max_guard_size", "guard_pre_size": "get_pre_guard_size",
    "guard_post_size": "get_post_guard_size", "guard_pre_pattern": "get_pre_guard_pattern",
    "guard_post_pattern": "get_post_guard_pattern", "generate_core_enabled": "is_generate_core_enabled",
    "generate_lwmem_enabled": "is_generate_lwmem_enabled", "generation": "get_generation",
}
SETTERS = {name: "set_" + g.split("_", 1)[1] for name, g in GETTERS.items() if name != "generation"}
SETTERS.update({"guard_pre_size": "set_guard_pre_size", "guard_post_size": "set_guard_post_size",
                "guard_pre_pattern": "set_guard_pre_pattern", "guard_post_pattern": "set_guard_post_pattern"})


def value(expr):
    return gdb.parse_and_eval(expr)


def call(expr):
    """Calls a function of the agent in the stopped process."""
    return int(gdb.parse_and_eval(expr))


def walk(table):
    """The records of a table (QM_HEAP_allocation_table or
    QM_HEAP_deallocation_table), in address order."""
    stack, node = [], value(table)["root"]
    while stack or int(node) != 0:
        while int(node) != 0:
            stack.append(node)
            node = node["left"]
        node = stack.pop()
        yield node["allocation_record"]
        node = node["right"]


def frames(backtrace_id):
    """The program counters of a stored stack."""
    t = value("QM_HEAP_backtrace_table")
    if backtrace_id <= 0 or backtrace_id >= int(t["next_backtrace_id"]):
        return []
    per = int(t["info_table"]["units_per_chunk"])
    info_type = gdb.lookup_type("stack_backtrace_info_t").pointer()
    info = t["info_table"]["table"][backtrace_id // per].cast(info_type)[backtrace_id % per]
    pcs = t["pcs_table"]["table"][int(info["pcs_chunk_no"])].cast(gdb.lookup_type("void").pointer().pointer())
    return [int(pcs[int(info["pcs_chunk_offset"]) + i]) for i in range(int(info["num_pcs"]))]


def describe_pc(pc):
    """function (file:line) of a return address, the call's own line."""
    look = pc - 1 if pc > 0 else pc
    block = gdb.block_for_pc(look)
    fn = block.function if block is not None else None
    while block is not None and fn is None:
        block = block.superblock
        fn = block.function if block is not None else None
    name = fn.print_name if fn is not None else (gdb.execute("info symbol 0x%x" % look, to_string=True).split(" in ")[0]
                                                   .strip())
    sal = gdb.find_pc_line(look)
    where = " (%s:%d)" % (sal.symtab.filename, sal.line) if sal.symtab is not None else ""
    return "0x%x %s%s" % (pc, name, where)


def print_stack(title, backtrace_id):
    pcs = frames(backtrace_id)
    if not pcs:
        return
    gdb.write("  %s (backtrace %d):\n" % (title, backtrace_id))
    for i, pc in enumerate(pcs):
        gdb.write("    #%-2d %s\n" % (i, describe_pc(pc)))


def print_record(rec, what):
    addr, length = int(rec["addr"]), int(rec["len"])
    gdb.write("%s block 0x%x, %d bytes (to 0x%x), flags 0x%x, generation %d, guard id %d\n" %
              (what, addr, length, addr + length, int(rec["flags"]), int(rec["generation"]), int(rec["guard_id"])))


def find(table, p):
    for rec in walk(table):
        a, n = int(rec["addr"]), int(rec["len"])
        if a <= p < a + max(n, 1):
            return rec
    return None


class QmheapCommand(gdb.Command):
    """The qmheap agent in this process: qmheap status|blocks|block|get|set|snapshot|stop."""

    def __init__(self):
        super().__init__("qmheap", gdb.COMMAND_DATA, prefix=True)


class Status(gdb.Command):
    """The agent's version, settings and table sizes."""

    def __init__(self):
        super().__init__("qmheap status", gdb.COMMAND_DATA)

    def invoke(self, arg, from_tty):
        bits = int(value("QM_HEAP_QM")["header"]["sizeof_pointer"]) * 8
        gdb.write("qmheap %d.%d, %d-bit agent\n" % (int(value("QM_HEAP_version_major")),
                                                    int(value("QM_HEAP_version_minor")), bits))
        gdb.write("live blocks: %d, released ranges: %d, hoarded: %d, stacks stored: %d\n" %
                  (int(value("QM_HEAP_allocation_table")["num_records"]),
                   int(value("QM_HEAP_deallocation_table")["num_records"]), int(value("QM_HEAP_hoard_num_blocks")),
                   int(value("QM_HEAP_backtrace_table")["next_backtrace_id"]) - 1))
        for name in GETTERS:
            gdb.write("  %-32s %d\n" % (name, get_setting(name)))


def get_setting(name):
    fn = GETTERS.get(name)
    if fn is None:
        raise gdb.GdbError("qmheap: no setting %r (one of: %s)" % (name, ", ".join(GETTERS)))
    slot = value("QM_HEAP_debug_search_addr").address  # a word of the agent's for the answer
    old = int(value("QM_HEAP_debug_search_addr"))
    call("(int)QM_HIA_API_%s((int*)0x%x)" % (fn, int(slot)))
    v = int(value("*(int*)0x%x" % int(slot)))
    gdb.execute("set var QM_HEAP_debug_search_addr = (void*)0x%x" % old, to_string=True)
    return v


class Blocks(gdb.Command):
    """qmheap blocks [N]: the first N live blocks in address order."""

    def __init__(self):
        super().__init__("qmheap blocks", gdb.COMMAND_DATA)

    def invoke(self, arg, from_tty):
        n = int(arg) if arg.strip() else 20
        total = int(value("QM_HEAP_allocation_table")["num_records"])
        for i, rec in enumerate(walk("QM_HEAP_allocation_table")):
            if i == n:
                gdb.write("... %d more\n" % (total - n))
                break
            gdb.write("0x%x %10d  backtrace %d\n" % (int(rec["addr"]), int(rec["len"]), int(rec["backtrace_id"])))


class Block(gdb.Command):
    """qmheap block ADDRESS: the block holding ADDRESS, live or released, with its stacks."""

    def __init__(self):
        super().__init__("qmheap block", gdb.COMMAND_DATA)

    def invoke(self, arg, from_tty):
        p = int(gdb.parse_and_eval(arg))
        rec = find("QM_HEAP_allocation_table", p)
        if rec is not None:
            print_record(rec, "live")
            print_stack("allocated", int(rec["backtrace_id"]))
            if int(rec["org_backtrace_id"]) != int(rec["backtrace_id"]):
                print_stack("first allocated", int(rec["org_backtrace_id"]))
            return
        rec = find("QM_HEAP_deallocation_table", p)
        if rec is not None:
            print_record(rec, "released")
            print_stack("released", int(rec["backtrace_id"]))
            print_stack("allocated", int(rec["org_backtrace_id"]))
            return
        gdb.write("0x%x is in no block the agent knows\n" % p)


class Get(gdb.Command):
    """qmheap get NAME: a setting, through the control functions."""

    def __init__(self):
        super().__init__("qmheap get", gdb.COMMAND_DATA)

    def invoke(self, arg, from_tty):
        gdb.write("%s = %d\n" % (arg.strip(), get_setting(arg.strip())))


class Set(gdb.Command):
    """qmheap set NAME VALUE: change a setting through the control functions."""

    def __init__(self):
        super().__init__("qmheap set", gdb.COMMAND_DATA)

    def invoke(self, arg, from_tty):
        parts = arg.split()
        if len(parts) != 2 or parts[0] not in SETTERS:
            raise gdb.GdbError("usage: qmheap set NAME VALUE, NAME one of: %s" % ", ".join(SETTERS))
        v = int(gdb.parse_and_eval(parts[1]))
        status = call("(int)QM_HIA_API_%s(%d)" % (SETTERS[parts[0]], v))
        if status != 0:
            raise gdb.GdbError("qmheap: the agent answered %d" % status)
        gdb.write("%s = %d\n" % (parts[0], get_setting(parts[0])))


class Snapshot(gdb.Command):
    """qmheap snapshot [TEMPLATE]: write a snapshot file now (the agent's template by default)."""

    def __init__(self):
        super().__init__("qmheap snapshot", gdb.COMMAND_DATA)

    def invoke(self, arg, from_tty):
        t = '"%s"' % arg.strip() if arg.strip() else "0"
        r = call('(int)QM_HEAP_lwmdbg_generate_file(%s, "gdb", "")' % t)
        gdb.write("snapshot %s\n" % ("written" if r == 0 else "failed (%d)" % r))


class Leaks(gdb.Command):
    """qmheap leaks: a reachability scan now; the agent reports the lost blocks on the program's console
    and keeps the result for the next snapshot file."""

    def __init__(self):
        super().__init__("qmheap leaks", gdb.COMMAND_DATA)

    def invoke(self, arg, from_tty):
        # The agent stops the other threads with signal 62 while it scans:
        # they must get it, without gdb stopping for it.
        gdb.execute("handle SIG62 nostop noprint pass", to_string=True)
        r = call("(int)QM_HIA_API_scan_reachability(1, (long*)0)")
        gdb.write("qmheap: %s\n" % ("scan done: the report is on the program's console" if r == 0 else
                                     "the scan could not run (a table lock is held by a stopped thread)"))


class EventBreakpoint(gdb.Breakpoint):
    """Stops at every agent event and tells it in words."""

    def __init__(self):
        super().__init__("QM_HEAP_notify_breakpoint_here", internal=False)

    def stop(self):
        e = gdb.parse_and_eval("event").dereference()
        kind = str(e["event"])
        if kind in ("qm_heap_event_startup_config_done", "qm_heap_event_termination_notification"):
            return False
        op = str(e["op"]).replace("qm_heap_op_", "")
        gdb.write("qmheap: %s in %s at 0x%x\n" % (kind.replace("qm_heap_event_", "").replace("_", " "), op,
                                                   int(e["addr"]) or int(e["allocation_record"]["addr"])))
        rec = e["allocation_record"]
        if int(rec["addr"]) != 0:
            print_record(rec, "the")
            print_stack("allocated", int(rec["org_backtrace_id"]) or int(rec["backtrace_id"]))
        return True


class Stop(gdb.Command):
    """qmheap stop [on|off]: stop at every agent event (on by default)."""

    bp = None

    def __init__(self):
        super().__init__("qmheap stop", gdb.COMMAND_RUNNING)

    def invoke(self, arg, from_tty):
        if arg.strip() == "off":
            if Stop.bp is not None:
                Stop.bp.delete()
                Stop.bp = None
            return
        if Stop.bp is None:
            Stop.bp = EventBreakpoint()


QmheapCommand()
Status()
Blocks()
Block()
Get()
Set()
Snapshot()
Leaks()
Stop()
