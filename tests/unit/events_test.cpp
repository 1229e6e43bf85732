// Heap events: short messages, long console reports, field trimming, the
// dispatch order with its switches and flags, and the output channel with its
// commentary keys. Expected texts are written out by hand.
#include "events/events.h"

#include <gtest/gtest.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/assert.h"
#include "events/output.h"

namespace {

// The six consumers: console, debugger, core, lwmem, lightweight core, exit.
int (*const kSetters[])(QM_HEAP_event_e, int, int*) = {
    QM_HEAP_set_event_console_filter,   QM_HEAP_set_event_filter,           QM_HEAP_set_generate_core_filter,
    QM_HEAP_lwmdbg_set_generate_filter, QM_HEAP_lwcore_set_generate_filter, QM_HEAP_exit_on_event_set_filter};
int (*const kGetters[])(QM_HEAP_event_e, int*) = {
    QM_HEAP_get_event_console_filter,   QM_HEAP_get_event_filter,           QM_HEAP_get_generate_core_filter,
    QM_HEAP_lwmdbg_get_generate_filter, QM_HEAP_lwcore_get_generate_filter, QM_HEAP_exit_on_event_get_filter};
int (*const kSwitches[])(int) = {QM_HEAP_set_event_console_filter_enabled, QM_HEAP_set_event_filter_master_switch,
                                 QM_HEAP_set_generate_core_enabled,        QM_HEAP_lwmdbg_set_generate_enabled,
                                 QM_HEAP_lwcore_set_generate_enabled,      QM_HEAP_exit_on_event_set_enabled};

QM_HEAP_event_e ev(int v) { return static_cast<QM_HEAP_event_e>(v); }

void reset_all() {
  for (int i = 0; i < 6; ++i) {
    kSwitches[i](0);
    for (int e = 0; e < 41; ++e) kSetters[i](ev(e), 0, nullptr);
  }
  QM_HEAP_set_verbosity(0);
  for (int k = 0; k < co_num_keys; ++k) QM_HEAP_co_set_key(k, 0);
  QM_HEAP_set_output_to_fd(2);
}

// Points the agent's output at an anonymous temporary file.
struct Capture {
  int fd = -1;
  Capture() {
    char path[] = "/tmp/qm_events_XXXXXX";
    fd = mkstemp(path);
    unlink(path);
    QM_stderr = fd;
  }
  ~Capture() { QM_stderr = 2, close(fd); }
  std::string take() {  // everything written so far, then starts afresh
    std::string s;
    char buf[4096];
    lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) s.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(0, ftruncate(fd, 0));
    lseek(fd, 0, SEEK_SET);
    return s;
  }
};

QM_HEAP_event_info_t make(int event, QM_HEAP_heap_op_e op, size_t len = 16) {
  QM_HEAP_event_info_t e = {};
  e.event = ev(event), e.op = op, e.len = len, e.alignment = 8, e.backtrace_id = 7, e.owner_id = 5;
  e.addr = reinterpret_cast<void*>(0x1000);
  allocation_record_t& r = e.allocation_record;
  r.addr = reinterpret_cast<void*>(0x2000), r.len = 32, r.owner_id = 3;
  r.org_addr = reinterpret_cast<void*>(0x3000), r.org_len = 48;
  e.allocation_record_2.addr = reinterpret_cast<void*>(0x4000), e.allocation_record_2.len = 64;
  return e;
}

// Tokens: # op name, $ op name in its column, | prefix, ^ & ~ block lines of
// the record, of its original form and of the second record, ! the note, ?
// the op name's address (the message of event 9 prints it).
std::string expand(const char* t, QM_HEAP_heap_op_e op) {
  const std::string name = QM_HEAP_get_op_name(op);
  std::string s;
  for (; *t; ++t) {
    char b[32];
    switch (*t) {
      case '#': s += name; break;
      case '$': s += name + std::string(name.size() < 13 ? 13 - name.size() : 0, ' '); break;
      case '|': s += "QM_HEAP:  "; break;
      case '^': s += "0x00002000--0x00002020           32 [0x20]\n"; break;
      case '&': s += "0x00003000--0x00003030           48 [0x30]\n"; break;
      case '~': s += "0x00004000--0x00004040           64 [0x40]\n"; break;
      case '!':
        s += "(this may indicate that the application is not synchronizing its heap operations correctly)";
        break;
      case '?':
        snprintf(b, sizeof b, "%lx", (unsigned long)reinterpret_cast<uintptr_t>(QM_HEAP_get_op_name(op)));
        s += b;
        break;
      default: s += *t;
    }
  }
  return s;
}

struct Row {
  int event;
  const char* brief;   // short message; nullptr: result -1
  const char* report;  // console report; '@' stands for the red-zone record dump
  QM_HEAP_heap_op_e op = qm_heap_op_realloc;
  size_t len = 16;
};
#define AT_START "|$: address is not the start of an allocated block:\n|^|$:   address:      0x1000\n"
#define IN_MIDDLE "#: deallocating or reallocating address 1000 in middle of block starting at 2000 and length 32"
#define RZ_HEAD "|illegal address: 1000\n|red zone allocation information\n@"
const Row kRows[] = {
    {0, "#: empty event", ""},
    {1, "#: deallocating unknown address 1000", "|$: address does not match any allocated block:      0x1000\n"},
    {2, "#: deallocating unknown address 1000", "|$: address does not match any allocated block:      0x1000\n"},
    {3, IN_MIDDLE, AT_START "|$:   requested length: 16 (0x10)\n"},
    {3, IN_MIDDLE, AT_START "|$:   requested length: 16 (0x10)\n", qm_heap_op_malloc_zone_realloc},
    {3, IN_MIDDLE, AT_START, qm_heap_op_free},
    {4, "#: memory manager returned address 1000 for allocation request of length 16 in already allocated block "
        "starting at 2000 and length 32",
     "|$: memory manager returned the address of an already allocated block:\n$:   existing block:|^"
     "|$:   returned address:      0x1000\n$:   requested length: 16 (0x10)\n"},
    {5, "", ""},
    {6, "#: heap manager returned NULL for allocation request of size 16",
     "|$: null returned for allocation request: 16 (0x10)\n"},
    {7, "#: block 1000 returned for allocation request of size 16 does not have expected alignment of 8",
     "|$: returned block does not have expected alignment\n$: returned address:       0x1000\n"
     "$: requested length:   16 (0x10)\n$: expected alignment: 8 (0x8)\n"},
    {8, "#: bad alignment 8 supplied for request", "|$: bad alignment argument received (8)\n"},
    {9, "s: attempting an operation on a block starting at ? and length 8192 whilst another operation is in progress",
     "|$: attempting an operation on a block whilst another operation on the same block is in progress !\n|^"},
    {10, "#: a record for a block starting at 2000 and length 8192 was added whilst this operation was in progress",
     "|$: an allocation record was added whilst this operation was in progress !\n|^"},
    {11, "#: allocation record for lock starting at 2000 and length 8192 was deleted whilst an operation on it was "
         "in progress",
     "|$: an allocation record for a block was deleted whilst an operation on it was in progress !\n|^"},
    {12, "#: allocation record for block starting at 2000 and length 8192 was changed whilst an operation on it was "
         "in progress.  Record now describes a block starting at 4000 and length 16384",
     "|$: an allocation record for a block was changed whilst an operation on it was in progress !\n"
     "|$: original record for the operation\n|^|$: record found\n|~"},
    {13, "#: deallocation notification for block starting at 2000 and length 8192",
     "|$: deallocation notification\n|^"},
    {14, "#: reallocation notification for block starting at 2000 and length 8192",
     "|$: reallocation notification\n|^|$: requested length:   16 (0x10)\n"},
    {15, "#: deletion error for block starting at 2000 and length 8192", "|$: allocation record deletion error\n|^"},
    {16, "#: insertion error for block starting at 2000 and length 8192", "|$: allocation record insertion error\n|^"},
    {17, "#: modification error for block starting at 2000 and length 8192",
     "|$: allocation record modification error\n|^"},
    {18, "#: record for block starting at 1000 and length 16 not found when expected",
     "|$: allocation record not found when expected\n|$:   address:      0x1000\n"},
    {19, "startup configuration done", "|$: finished processing startup configuration\n"},
    {20, "#: double deallocation for block starting at 1000",
     "|$: double deallocation\n|$: original allocation\n|&|$: entry in deallocation table\n|^"
     "|$:   address:      0x1000\n"},
    {21, "#: corrupted guards detected for block starting at 2000 and length 8192",
     "|$: guard corruption\n|$: original allocation\n|&"},
    {22, "termination notification", "|$: process termination\n"},
    {23, "unknown error", "|$: unknown error\n"},
    {24, "address not in heap", "|$: address     0x1000 supplied by application is  not in the heap\n"},
    {25, "unknown dmz zone", "|$: unknown zone (    0x1000)\n"},
    {26, "operation on dmz being destroyed",
     "|$: operation attempted on zone     0x1000 whilst it is in the process of being destroyed\n"},
    {27, "operation on dmz zone awaiting finalization",
     "|$: operation attempted on zone     0x1000 whilst its destruction is pending\n"},
    {28, "dmz zone in unknown state", "|$: zone     0x1000 is in unknown state 16\n"},
    {29, "error creating dmz zone", "|$: error creating zone\n               size: 16\n               alignment: 8\n"},
    {30, "duplicate dmz zone created",
     "|$: duplicate zone created\n               size: 16\n               alignment: 8\n"},
    {31, "attempting to delete default dmz zone", "|$: attempting to delete default zone     0x1000\n"},
    {32, "incorrect api or api instance used in operation",
     "|$: incorrect api or api instance used for operation\n|^|original owner: 3\noperation owner: 5\n"},
    {33, "unknown red zone error", "|$: unknown red zone error\n"},
    {34, "underrun bounds error", "|$: underrun bounds error\n" RZ_HEAD "|allocation record\n|^"},
    {35, "overrun bounds error", "|$: overrun bounds error\n" RZ_HEAD "|allocation record\n|^"},
    {36, "attempt to access freed block",
     "|$: access to block after it has been freed\n" RZ_HEAD "|deallocation record\n|^"},
    {37, "underrun bounds error on freed block",
     "|$: underrun bounds error on freed block\n" RZ_HEAD "|deallocation record\n|^"},
    {38, "underrun bounds error on freed block",
     "|$: overrun bounds error on freed block\n" RZ_HEAD "|deallocation record\n|^"},
    {39, "hoard autoshrink threshold crossed",
     "|$: hoard autoshrink threshold crossed\n|$: hoard size is 3145728 bytes (3072kb) (3mb)\n", qm_heap_op_free,
     3u << 20},
    {40, "#: mismatched deallocation for block starting at 1000",
     "|$: mismatched deallocation: size 16 given for a block of length 32\n|^|$:   address:      0x1000\n"},
    {41, "", "|$: ** unrecognized QM_HEAP_event_e (41) **\n"},
    {45, nullptr, "|$: ** unrecognized QM_HEAP_event_e (45) **\n"},
};

TEST(EventShortMessage, EveryEvent) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(testing::Message() << "event " << row.event << " op " << row.op);
    QM_HEAP_event_info_t e = make(row.event, row.op, row.len);
    char buf[241];
    memset(buf, 'x', sizeof buf);
    int n = QM_HEAP_get_event_short_message(&e, buf, sizeof buf);
    std::string want = row.brief ? expand(row.brief, row.op) : "";
    EXPECT_EQ(row.brief ? static_cast<int>(want.size()) : -1, n);
    if (row.brief) EXPECT_EQ(want, std::string(buf));
  }
}

TEST(EventShortMessage, BufferLimitsAndRefusals) {
  QM_HEAP_event_info_t e = make(13, qm_heap_op_free);
  char buf[32];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(9, QM_HEAP_get_event_short_message(&e, buf, 10));  // buffer_len - 1 characters
  EXPECT_STREQ("free: dea", buf);
  EXPECT_EQ('x', buf[10]);
  EXPECT_EQ(0, QM_HEAP_get_event_short_message(&e, buf, 1));
  EXPECT_STREQ("", buf);
  EXPECT_EQ(-1, QM_HEAP_get_event_short_message(&e, nullptr, 32));
  EXPECT_EQ(-1, QM_HEAP_get_event_short_message(&e, buf, 0));
  EXPECT_EQ(-1, QM_HEAP_get_event_short_message(&e, buf, -5));
  e.event = ev(42);
  EXPECT_EQ(-1, QM_HEAP_get_event_short_message(&e, buf, 32));
}

TEST(ConsoleReport, EveryEvent) {
  Capture cap;
  for (const Row& row : kRows) {
    SCOPED_TRACE(testing::Message() << "event " << row.event << " op " << row.op);
    QM_HEAP_event_info_t e = make(row.event, row.op, row.len);
    QM_HEAP_console_notify(&e);
    std::string got = cap.take(), want = expand(row.report, row.op);
    size_t dump = want.find('@');
    if (dump == std::string::npos) {
      EXPECT_EQ(want, got);
      continue;
    }
    // The red-zone record dump has no fixed form: check what surrounds it.
    std::string head = want.substr(0, dump), tail = want.substr(dump + 1);
    ASSERT_GE(got.size(), head.size() + tail.size()) << got;
    EXPECT_EQ(head, got.substr(0, head.size()));
    EXPECT_EQ(tail, got.substr(got.size() - tail.size()));
    e.allocation_record.addr = nullptr;  // then nothing follows the dump
    QM_HEAP_console_notify(&e);
    got = cap.take();
    EXPECT_EQ(head, got.substr(0, head.size()));
    EXPECT_EQ(std::string::npos, got.find("allocation record\n", head.size())) << got;
  }
}

// Field masks, bit n for field n.
constexpr unsigned E = 1, OP = 2, AR = 4, AR2 = 8, AD = 16, LN = 32, AL = 64, BT = 256, OW = 512, RZ = 2048;
constexpr unsigned OA = E | OP | AD, ORec = E | OP | AR, ORz = E | OP | AD | AR | RZ;
const unsigned kUsed[42] = {
    /* 0-7 */ E, OA, E, OA | LN | AR, OA | LN | AR, E, E | OP | LN, OA | LN | AR | AL,
    /* 8-18 */ E | OP | AL, OA | AR, E, ORec, ORec | AR2, ORec, ORec | LN, ORec, ORec, ORec, ORec,
    /* 19-29 */ E | OP, OA | AR, ORec, E | OP, E | OP, OA, OA, OA, OA, OA | LN, E | OP | AL | LN,
    /* 30-40 */ OA | LN | AL | BT, OA, ORec | OW, OA | RZ, ORz, ORz, ORz, ORz, ORz, E | OP | LN, OA | AR | LN | AL,
    /* 41 */ E};

std::vector<uint64_t> words(const allocation_record_t& r) {
  return {(uintptr_t)r.addr, r.len, (uint64_t)r.backtrace_id, (uint64_t)r.thread_id, (uint64_t)r.flags,
          (uintptr_t)r.org_addr, r.org_len, (uint64_t)r.org_backtrace_id, (uintptr_t)r.control_info,
          (uint64_t)r.guard_id, r.generation, (uint64_t)r.allocator_id, (uint64_t)r.owner_id};
}
std::vector<uint64_t> words(const rz_record_t& r) {
  return {(uintptr_t)r.payload, (uintptr_t)r.alloc_addr, r.payload_len, r.alloc_len, r.fence_size,
          (uint64_t)r.flags, (uint64_t)r.alignment, (uint64_t)r.state};
}
template <typename T>
bool kept_or_zero(bool used, const T& now, const T& was) {
  return words(now) == (used ? words(was) : std::vector<uint64_t>(words(was).size(), 0));
}

TEST(EventFields, ClearingKeepsExactlyTheUsedFields) {
  for (int event = 0; event <= 41; ++event) {
    SCOPED_TRACE(testing::Message() << "event " << event);
    const unsigned u = kUsed[event];
    EXPECT_EQ(u, QM_HEAP_get_event_fields_used(ev(event)));
    QM_HEAP_event_info_t e, o;
    memset(&e, 0x5a, sizeof e);
    e.event = ev(event);
    o = e;
    QM_HEAP_clear_unused_event_fields(&e);
    EXPECT_EQ(o.event, e.event);
    EXPECT_EQ((u & OP) ? o.op : qm_heap_op_nop, e.op);
    EXPECT_TRUE(kept_or_zero(u & AR, e.allocation_record, o.allocation_record));
    EXPECT_TRUE(kept_or_zero(u & AR2, e.allocation_record_2, o.allocation_record_2));
    EXPECT_EQ((u & AD) ? o.addr : nullptr, e.addr);
    EXPECT_EQ((u & LN) ? o.len : 0, e.len);
    EXPECT_EQ((u & AL) ? o.alignment : 0, e.alignment);
    EXPECT_EQ(o.timestamp, e.timestamp);
    EXPECT_EQ((u & BT) ? o.backtrace_id : 0, e.backtrace_id);
    EXPECT_EQ((u & OW) ? o.owner_id : 0, e.owner_id);
    EXPECT_EQ(0, e.allocator_id);
    EXPECT_TRUE(kept_or_zero(u & RZ, e.rz_record, o.rz_record));
  }
}

class EventDispatch : public testing::Test {
 protected:
  void SetUp() override { reset_all(); }
  void TearDown() override { reset_all(); }
  static void mark_breakpoint() {
    memset(const_cast<QM_HEAP_event_info_t*>(&QM_HEAP_event), 0, sizeof(QM_HEAP_event_info_t));
    QM_HEAP_event.event = ev(45);
  }
  static bool reached(int event) { return QM_HEAP_event.event == ev(event); }
};

TEST_F(EventDispatch, QuietByDefaultAndTrimmedAtTheBreakpoint) {
  Capture cap;
  mark_breakpoint();
  QM_HEAP_event_info_t e = make(6, qm_heap_op_malloc);
  time_t before = time(nullptr);
  QM_HEAP_notify_event(&e);
  time_t after = time(nullptr);
  EXPECT_EQ("", cap.take());
  ASSERT_TRUE(reached(6));
  EXPECT_EQ(qm_heap_op_malloc, QM_HEAP_event.op);
  EXPECT_EQ(16u, QM_HEAP_event.len);
  EXPECT_EQ(nullptr, QM_HEAP_event.addr);  // unused by event 6: cleared
  EXPECT_EQ(nullptr, QM_HEAP_event.allocation_record.addr);
  EXPECT_EQ(0u, QM_HEAP_event.alignment);
  EXPECT_GE(QM_HEAP_event.timestamp, before);
  EXPECT_LE(QM_HEAP_event.timestamp, after);
  EXPECT_EQ(nullptr, e.addr);  // the caller's record is trimmed too
}

TEST_F(EventDispatch, ConsoleNeedsVerbosityTwoAndHonoursItsFilter) {
  Capture cap;
  const std::string report = "QM_HEAP:  malloc       : null returned for allocation request: 16 (0x10)\n";
  QM_HEAP_event_info_t e = make(6, qm_heap_op_malloc);
  QM_HEAP_set_verbosity(1);
  QM_HEAP_notify_event(&e);
  EXPECT_EQ("", cap.take());
  EXPECT_EQ(0, QM_HEAP_allow_console_notification);
  EXPECT_EQ(1, QM_HEAP_set_verbosity(2));
  EXPECT_EQ(1, QM_HEAP_allow_console_notification);
  QM_HEAP_notify_event(&e);
  EXPECT_EQ(report, cap.take());
  QM_HEAP_set_event_console_filter(ev(6), 1, nullptr);  // flag without master switch
  QM_HEAP_notify_event(&e);
  EXPECT_EQ(report, cap.take());
  QM_HEAP_set_event_console_filter_enabled(1);
  QM_HEAP_notify_event(&e);
  EXPECT_EQ("", cap.take());
  e = make(18, qm_heap_op_free);  // not filtered; its unused addr prints as zero
  QM_HEAP_notify_event(&e);
  EXPECT_EQ("QM_HEAP:  free         : allocation record not found when expected\n"
            "QM_HEAP:  free         :   address:         0x0\n", cap.take());
}

TEST_F(EventDispatch, DebuggerFilterSparesStartupEvent) {
  QM_HEAP_set_event_filter(ev(6), 1, nullptr);
  QM_HEAP_set_event_filter(ev(19), 1, nullptr);
  mark_breakpoint();
  QM_HEAP_event_info_t e = make(6, qm_heap_op_malloc);
  QM_HEAP_notify_event(&e);
  EXPECT_TRUE(reached(6));  // master switch off: flags ignored
  EXPECT_EQ(0, QM_HEAP_set_event_filter_master_switch(1));
  mark_breakpoint();
  QM_HEAP_notify_event(&e);
  EXPECT_TRUE(reached(45));
  e = make(19, qm_heap_op_init);
  QM_HEAP_notify_event(&e);
  EXPECT_TRUE(reached(19));
}

TEST_F(EventDispatch, FlagAndSwitchAccessors) {
  for (int i = 0; i < 6; ++i) {
    SCOPED_TRACE(i);
    int old = 77;
    EXPECT_EQ(0, kSetters[i](ev(3), 5, &old));  // stored as given
    EXPECT_EQ(0, old);
    EXPECT_EQ(0, kSetters[i](ev(39), 1, nullptr));
    for (int bad : {41, 42, 45}) {
      EXPECT_EQ(-1, kSetters[i](ev(bad), 1, &old));
      EXPECT_EQ(-1, kGetters[i](ev(bad), &old));
      EXPECT_EQ(0, old);
    }
    for (int e = 0, v = -1; e < 41; ++e)
      EXPECT_TRUE(kGetters[i](ev(e), &v) == 0 && v == (e == 3 ? 5 : e == 39 ? 1 : 0)) << "event " << e;
    EXPECT_EQ(0, kSetters[i](ev(3), 0, &old));
    EXPECT_EQ(5, old);
  }
  for (int i = 1; i < 6; ++i) {  // master setters answer with the old value
    EXPECT_EQ(0, kSwitches[i](3));
    EXPECT_EQ(3, kSwitches[i](0));
  }
  // The console master setter answers with the debugger switch's old value.
  EXPECT_EQ(0, QM_HEAP_set_event_console_filter_enabled(1));
  EXPECT_EQ(1, QM_HEAP_event_console_filter_is_enabled());
  EXPECT_EQ(0, QM_HEAP_set_event_console_filter_enabled(0));
  QM_HEAP_set_event_filter_master_switch(1);
  EXPECT_EQ(1, QM_HEAP_set_event_console_filter_enabled(1));
  EXPECT_EQ(1, QM_HEAP_get_event_filter_master_switch());
}

using EventDispatchDeathTest = EventDispatch;

// Raises event with the action consumer i (2 core, 5 exit) switched on and
// flagged for it, and the commentary key given.
[[noreturn]] void raise_with_action(int i, int event, int key, int key_val) {
  struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  QM_HEAP_set_verbosity(1);
  QM_HEAP_co_set_key(key, key_val);
  kSwitches[i](1);
  kSetters[i](ev(event), 1, nullptr);
  QM_HEAP_event_info_t e = make(event, event == 1 ? qm_heap_op_free : qm_heap_op_malloc);
  QM_HEAP_notify_event(&e);
  _exit(3);
}

TEST_F(EventDispatchDeathTest, ExitAndCorePrintTheShortMessage) {
  EXPECT_EXIT(raise_with_action(5, 1, co_exit_on_event, 1), testing::ExitedWithCode(0),
              "QM_HEAP:  free: deallocating unknown address 1000 --- exiting on event\n");
  EXPECT_EXIT(raise_with_action(5, 1, co_exit_on_event, 0), testing::ExitedWithCode(0), "^$");
  EXPECT_EXIT(raise_with_action(2, 6, co_generate_core, 1), testing::KilledBySignal(SIGABRT),
              "QM_HEAP:  malloc: heap manager returned NULL for allocation request of size 16 --- dumping core\n");
}

TEST_F(EventDispatchDeathTest, ActionsNeverTakeStartupEvent) {
  auto raise = [] {
    QM_HEAP_set_verbosity(1);
    QM_HEAP_co_set_key(co_exit_on_event, 1);
    QM_HEAP_co_set_key(co_generate_core, 1);
    for (int i = 1; i < 6; ++i) kSwitches[i](1), kSetters[i](ev(19), 1, nullptr);
    QM_HEAP_event.event = ev(45);
    QM_HEAP_event_info_t e = make(19, qm_heap_op_init);
    QM_HEAP_notify_event(&e);
    _exit(QM_HEAP_event.event == ev(19) ? 7 : 8);
  };
  EXPECT_EXIT(raise(), testing::ExitedWithCode(7), "^$");
}

using ConsoleOutput = EventDispatch;

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1 || errno != EBADF; }

TEST_F(ConsoleOutput, FilesAreClosedOnlyWhenTheAgentOpenedThem) {
  char dir[] = "/tmp/qm_events_XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  const std::string a = std::string(dir) + "/a", b = std::string(dir) + "/b";
  int fa = open(a.c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_EQ(7, write(fa, "garbage", 7));
  close(fa);
  ASSERT_EQ(0, QM_HEAP_set_output_to_file(a.c_str()));
  int first = QM_stderr;
  EXPECT_TRUE(QM_HEAP_is_output_to_file() == 1 && QM_HEAP_is_output_to_fd() == 0);
  EXPECT_EQ(13, QM_HEAP_printf("ab%d", 5));  // prefix and message counted
  struct stat st;
  ASSERT_EQ(0, stat(a.c_str(), &st));
  EXPECT_EQ(13, st.st_size);  // truncated on open
  EXPECT_EQ(-1, QM_HEAP_set_output_to_file("/nonexistent-dir/qm/out"));  // channel unchanged
  EXPECT_TRUE(QM_stderr == first && QM_HEAP_is_output_to_file() == 1 && is_open(first));
  mode_t mask = umask(022);
  ASSERT_EQ(0, QM_HEAP_set_output_to_file(b.c_str()));  // file replaced by file
  umask(mask);
  ASSERT_EQ(0, stat(b.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 0777u);
  int second = QM_stderr;
  EXPECT_FALSE(is_open(first));
  EXPECT_EQ(0, QM_HEAP_set_output_to_fd(1));
  EXPECT_FALSE(is_open(second));
  EXPECT_TRUE(QM_stderr == 1 && QM_HEAP_is_output_to_file() == 0 && QM_HEAP_is_output_to_fd() == 1);
  unlink(a.c_str()), unlink(b.c_str()), rmdir(dir);
  int five = fcntl(2, F_DUPFD, 5);  // a descriptor the agent did not open stays open
  ASSERT_GE(five, 5);
  QM_HEAP_set_output_to_fd(five);
  QM_HEAP_set_output_to_fd(1);
  EXPECT_TRUE(is_open(five));
  close(five);
  EXPECT_EQ(-1, QM_HEAP_set_output_to_file("/nonexistent-dir/qm/out"));
  EXPECT_TRUE(QM_stderr == 1 && QM_HEAP_is_output_to_file() == 0);
}

TEST_F(ConsoleOutput, CommentaryKeys) {
  const char* names[] = {"announce_starting", "announce_terminating", "exit_on_event", "generate_lwmem",
                         "generate_core",     "rz_trace",             "rz_signal",     "tt_dump_descriptors"};
  for (int k = 0; k < co_num_keys; ++k) {  // names[k] names key k
    int v = -1;
    EXPECT_EQ(0, QM_HEAP_co_set_key_by_string(names[k], static_cast<int>(strlen(names[k])), 10 + k));
    EXPECT_EQ(0, QM_HEAP_co_get_key(k, &v));
    EXPECT_EQ(10 + k, v) << names[k];
    QM_HEAP_co_set_key(k, 0);
  }
  EXPECT_EQ(0, QM_HEAP_co_set_key_by_string("rz_trace_more", 8, 1));
  EXPECT_EQ(-1, QM_HEAP_co_set_key_by_string("rz_trace_more", 7, 1));
  EXPECT_EQ(-1, QM_HEAP_co_set_key_by_string("rz_trace_more", 13, 1));
  for (int k = 0; k < co_num_keys; ++k) EXPECT_EQ(k == co_rz_trace ? 1 : 0, QM_HEAP_co_settings[k]) << "key " << k;
  int v = 77;
  EXPECT_EQ(-1, QM_HEAP_co_set_key(8, 1));
  EXPECT_EQ(-1, QM_HEAP_co_set_key(-1, 1));
  EXPECT_EQ(-1, QM_HEAP_co_get_key(8, &v));
  EXPECT_EQ(77, v);
  EXPECT_EQ(0, QM_HEAP_co_get_key(3, nullptr));
  for (int k = 0; k < co_num_keys; ++k) QM_HEAP_co_set_key(k, 3);
  for (int k = 0; k <= co_num_keys; ++k) EXPECT_EQ(0, QM_HEAP_co_is_emit_for_key(k)) << "verbosity 0, key " << k;
  QM_HEAP_set_verbosity(1);
  for (int k = 0; k < co_num_keys; ++k) EXPECT_EQ(3, QM_HEAP_co_is_emit_for_key(k)) << "key " << k;
  EXPECT_TRUE(QM_HEAP_co_is_emit_for_key(8) == 0 && QM_HEAP_co_is_emit_for_key(1000) == 0);
}

}  // namespace
