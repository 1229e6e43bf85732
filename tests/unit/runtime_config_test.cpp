// Runtime configuration: every key reaches its owner's setter, every
// per-event prefix works for every configurable event, list settings and
// their messages, and the MPI rank.
#include "config/runtime_config.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "base/assert.h"
#include "core/binding.h"
#include "events/events.h"
#include "events/output.h"
#include "heap/controls.h"
#include "redzone/rz_controls.h"
#include "snapshot/snapshot.h"

extern "C" {
extern volatile int QM_HEAP_backtrace_depth;
extern volatile int QM_HEAP_backtrace_initial_trim;
}

namespace {

// Parses settings with the agent's output captured; returns what it printed.
std::string parse(const std::string& settings) {
  char path[] = "/tmp/qm_cfg_XXXXXX";
  int fd = mkstemp(path);
  int saved = QM_stderr;
  QM_stderr = fd;
  std::vector<char> text(settings.begin(), settings.end());
  text.push_back('\0');
  QM_HEAP_parse_config_string(text.data());
  QM_stderr = saved;
  std::string out(8192, '\0');
  ssize_t n = pread(fd, out.data(), out.size(), 0);
  close(fd);
  unlink(path);
  out.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return out;
}

struct KeyCase {
  const char* setting;
  std::function<long()> read;
  long expected;
};

TEST(RuntimeConfig, EveryKeyReachesItsSetter) {
  const std::vector<KeyCase> cases = {
      {"display_allocations_on_exit=true", [] { return QM_HEAP_dump_allocation_table_on_exit; }, 1},
      {"backtrace_depth=7", [] { return QM_HEAP_backtrace_depth; }, 7},
      {"backtrace_trim=0x3", [] { return QM_HEAP_backtrace_initial_trim; }, 3},
      {"memalign_strict_alignment_even_multiple=true", [] { return QM_HEAP_memalign_strict_even_multiple_of_alignment; }, 1},
      {"paint_on_alloc=true", [] { return QM_HEAP_paint_paint_on_allocation; }, 1},
      {"paint_on_dealloc=true", [] { return QM_HEAP_paint_paint_on_deallocation; }, 1},
      {"paint_on_zalloc=true", [] { return QM_HEAP_paint_paint_over_zero; }, 1},
      {"paint_alloc_pattern=-2", [] { return QM_HEAP_paint_pattern_allocation; }, -2},
      {"paint_dealloc_pattern=010", [] { return QM_HEAP_paint_pattern_deallocation; }, 8},
      {"enable_hoarding=true", [] { return QM_HEAP_hoarding_enabled; }, 1},
      {"hoard_all_blocks=false", [] { return QM_HEAP_hoarding_all_blocks; }, 0},
      {"hoard_maximum_num_blocks=5", [] { return QM_HEAP_hoard_max_num_blocks; }, 5},
      {"hoard_maximum_kb=6", [] { return QM_HEAP_hoard_max_kb; }, 6},
      {"enable_hoard_autoshrink=true", [] { return QM_HEAP_hoard_autoshrink_enabled; }, 1},
      {"hoard_autoshrink_threshold_kb=9", [] { return QM_HEAP_hoard_autoshrink_threshold_kb; }, 9},
      {"hoard_autoshrink_trigger_count=4", [] { return QM_HEAP_hoard_autoshrink_threshold_trigger_count; }, 4},
      {"enable_guard_blocks=true", [] { return QM_HEAP_guard_enabled; }, 1},
      {"guard_max_size=64", [] { return QM_HEAP_guard_max_size; }, 64},
      {"guard_pre_size=16", [] { return QM_HEAP_guard_pre_size; }, 16},
      {"guard_post_size=24", [] { return QM_HEAP_guard_post_size; }, 24},
      {"guard_pre_pattern=0x11", [] { return QM_HEAP_guard_pre_pattern; }, 0x11},
      {"guard_post_pattern=0x22", [] { return QM_HEAP_guard_post_pattern; }, 0x22},
      {"enable_red_zones=true", [] { return QM_HEAP_rz_enabled; }, 1},
      {"rz_mode=manual", [] { return QM_HEAP_rz_alloc_mode; }, rzam_manual},
      {"rz_alignment=32", [] { return QM_HEAP_rz_alignment; }, 32},
      {"rz_exit_val=-5", [] { return QM_HEAP_rz_exit_val; }, -5},
      {"rz_fence_size=8192", [] { return QM_HEAP_rz_fence_size; }, 8192},
      {"rz_end_aligned=true", [] { return QM_HEAP_rz_want_end_aligned; }, 1},
      {"rz_detect_underrun=true", [] { return QM_HEAP_rz_want_pre_fence; }, 1},
      {"rz_detect_overrun=true", [] { return QM_HEAP_rz_want_post_fence; }, 1},
      {"rz_detect_use_after_free=true", [] { return QM_HEAP_rz_want_use_after_free; }, 1},
      {"enable_rz_size_ranges=true", [] { return QM_HEAP_rz_size_ranges_enabled; }, 1},
      {"rz_size_range=2,100,200", [] { return static_cast<long>(QM_HEAP_rz_size_ranges[2].end); }, 200},
      {"rz_size_range_enable=2,true", [] { return QM_HEAP_rz_size_ranges[2].flags; }, rzsrf_in_use | rzsrf_is_active},
      {"enable_event_console_filtering=true", [] { return QM_HEAP_event_console_filter_master_switch; }, 1},
      {"enable_event_filtering=true", [] { return QM_HEAP_event_filter_master_switch; }, 1},
      {"enable_generate_core=true", [] { return QM_HEAP_generate_core_master_switch; }, 1},
      {"enable_generate_lwmdbg=true", [] { return QM_HEAP_lwmdbg_generate_master_switch; }, 1},
      {"enable_generate_lwmem=true", [] { return QM_HEAP_lwcore_generate_master_switch; }, 1},
      {"enable_exit_on_event=true", [] { return QM_HEAP_exit_on_event_master_switch; }, 1},
      {"commentary=rz_trace,generate_core", [] { return QM_HEAP_co_settings[co_rz_trace] + QM_HEAP_co_settings[co_generate_core]; }, 2},
      {"verbosity=3", [] { return QM_HEAP_verbosity; }, 3},
  };
  for (const KeyCase& c : cases) {
    EXPECT_EQ(parse(c.setting), "") << c.setting;
    EXPECT_EQ(c.read(), c.expected) << c.setting;
  }
  char buf[64];
  EXPECT_EQ(parse("lwmdbg_pathname=run-%p.dbg lwmem_pathname=core-%p"), "");
  int len = 0;
  ASSERT_EQ(QM_HEAP_lwmdbg_get_pathname_specifier(buf, sizeof buf, &len), 0);
  EXPECT_STREQ(buf, "run-%p.dbg");
  ASSERT_EQ(QM_HEAP_lwcore_get_pathname_specifier(buf, sizeof buf, &len), 0);
  EXPECT_STREQ(buf, "core-%p");
  EXPECT_EQ(parse("qm_stop_on_event=true"), "");
  EXPECT_EQ(parse("qm_stop_on_event=yes"), "QM: qm_stop_on_event: ERROR true or false expected for value\n");
  parse("verbosity=0 enable_event_console_filtering=false enable_event_filtering=false enable_generate_core=false "
        "enable_generate_lwmdbg=false enable_generate_lwmem=false enable_exit_on_event=false");
}

TEST(RuntimeConfig, EveryEventFilterPrefixForEveryEvent) {
  struct Prefix {
    const char* name;
    event_filters_t* flags;
    bool inverted;
  };
  const Prefix prefixes[] = {{"core_", &QM_HEAP_generate_core_filters, false},
                             {"notify_console_", &QM_HEAP_event_console_filters, true},
                             {"notify_", &QM_HEAP_event_filters, true},
                             {"lwmdbg_", &QM_HEAP_lwmdbg_generate_filters, false},
                             {"lwmem_", &QM_HEAP_lwcore_generate_filters, false},
                             {"exit_on_event_", &QM_HEAP_exit_on_event_filters, false}};
  int names = 0;
  for (const event_config_name_mapping_t* m = QM_HEAP_event_config_name_mappings; m->config_name; ++m, ++names) {
    for (const Prefix& p : prefixes) {
      std::string on = std::string(p.name) + m->config_name + "=" + (p.inverted ? "false" : "true");
      std::string off = std::string(p.name) + m->config_name + "=" + (p.inverted ? "true" : "false");
      EXPECT_EQ(parse(on), "") << on;
      EXPECT_EQ((*p.flags)[m->event], 1) << on;
      EXPECT_EQ(parse(off), "") << off;
      EXPECT_EQ((*p.flags)[m->event], 0) << off;
    }
  }
  EXPECT_EQ(names, QM_HEAP_NUM_EVENT_CONFIG_NAMES);
  EXPECT_EQ(parse("core_startup_config_done=true"), "QM_HEAP:  unrecognized setting: core_startup_config_done\n");
  EXPECT_EQ(parse("notify_=true"), "QM_HEAP:  unrecognized setting: notify_\n");
  EXPECT_EQ(parse("exit_on_event_alloc_null=maybe"), "QM: alloc_null: ERROR true or false expected for value\n");
  EXPECT_EQ(QM_HEAP_exit_on_event_filters[qm_heap_event_alloc_null], 0);
}

TEST(RuntimeConfig, BadSettingsAreReportedAndTheRestApplied) {
  int before = QM_HEAP_hoard_max_kb;
  EXPECT_EQ(parse("hoard_maximum_kb=-1 hoard_maximum_num_blocks=12k verbosity=2junk"),
            "QM: hoard_maximum_kb: ERROR value may not be less than zero (found -1)\n"
            "QM: hoard_maximum_num_blocks: ERROR integer expected in place of `12k'\n"
            "QM: verbosity: ERROR integer expected in place of `2junk'\n");
  EXPECT_EQ(QM_HEAP_hoard_max_kb, before);
  EXPECT_EQ(parse("rz_size_range=16,1,2"),
            "QM_HEAP:  rz_size_range: ERROR missing or invalid range id\n"
            "QM_HEAP:  rz_size_range: ERROR end of range must be 0, or greater or equal to the start of range\n"
            "QM_HEAP:  rz_size_range: ERROR expected rz_size_range=[0..15],start_size,end_size\n");
  EXPECT_EQ(parse("rz_size_range=1,50,20"),
            "QM_HEAP:  rz_size_range: ERROR end of range must be 0, or greater or equal to the start of range\n"
            "QM_HEAP:  rz_size_range: ERROR expected rz_size_range=[0..15],start_size,end_size\n");
  EXPECT_EQ(parse("rz_size_range_enable=3,maybe"),
            "QM_HEAP:  rz_size_range_enable: ERROR missing or invalid boolean setting\n"
            "QM_HEAP:  rz_size_range_enable: ERROR expected rz_size_range_enable=[0..15],bool_val\n");
  EXPECT_EQ(parse("rz_mode=" + std::string(1024, 'x')),
            "QM_HEAP:  WARNING rz_mode is too long (greater than 1024); ignoring\n");
  EXPECT_EQ(parse("commentary=announce_starting,,x"),
            "QM_HEAP:  unrecognized commentary setting: \n"
            "QM_HEAP:  unrecognized commentary setting: x\n");
  QM_HEAP_co_set_key(co_announce_starting, 0);
  QM_HEAP_co_set_key(co_rz_trace, 0);
  QM_HEAP_co_set_key(co_generate_core, 0);
}

TEST(RuntimeConfig, MpiRank) {
  unsetenv("QMHEAP_MPI_RANK_DISCOVERY_METHOD");
  setenv("QMHEAP_MPI_RANK", "7", 1);
  EXPECT_EQ(QM_HEAP_mpi_get_rank(), 0);
  setenv("QMHEAP_MPI_RANK_DISCOVERY_METHOD", "value", 1);
  EXPECT_EQ(QM_HEAP_mpi_get_rank(), 7);
  setenv("QMHEAP_MPI_RANK", "  -3 trailing", 1);
  EXPECT_EQ(QM_HEAP_mpi_get_rank(), -3);
  setenv("QMHEAP_MPI_RANK", "x", 1);
  EXPECT_EQ(QM_HEAP_mpi_get_rank(), 0);
  setenv("QMHEAP_MPI_RANK_DISCOVERY_METHOD", "variable", 1);
  setenv("QMHEAP_MPI_RANK", "QM_TEST_RANK", 1);
  setenv("QM_TEST_RANK", "12", 1);
  EXPECT_EQ(QM_HEAP_mpi_get_rank(), 12);
  unsetenv("QM_TEST_RANK");
  EXPECT_EQ(QM_HEAP_mpi_get_rank(), 0);
  setenv("QMHEAP_MPI_RANK_DISCOVERY_METHOD", "Value", 1);
  EXPECT_EQ(QM_HEAP_mpi_get_rank(), 0);
  unsetenv("QMHEAP_MPI_RANK_DISCOVERY_METHOD");
  unsetenv("QMHEAP_MPI_RANK");
}

}  // namespace
