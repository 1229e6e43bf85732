// Reentrancy counting: the single-threaded counter, the one-way switch to the
// per-thread table with a call in progress, and the table under many threads.
//
// The switch is process-wide and permanent, so every table-mode test lives in
// this file, in a suite defined after the simple-mode one; later tests only
// see balanced enters and leaves.
#include "threads/reentrancy.h"

#include <gtest/gtest.h>
#include <errno.h>
#include <pthread.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/memory_manager.h"
#include "base/page.h"
#include "threads/thread_utils.h"

namespace {

int outer_a, outer_b;

TEST(ReentrancySimple, CountsAndCarriesTheOuterInfo) {
  void* p = &outer_b;
  EXPECT_EQ(QM_get_num_times_entered_ia(), 0);
  EXPECT_EQ(QM_get_reentry_info(&p), -1);
  EXPECT_EQ(p, &outer_b);  // untouched on failure

  void* info = &outer_a;
  EXPECT_EQ(QM_enter_ia(&info), 1);
  void* inner = nullptr;
  EXPECT_EQ(QM_enter_ia(&inner), 2);
  EXPECT_EQ(inner, &outer_a);
  EXPECT_EQ(QM_enter_ia(nullptr), 3);
  EXPECT_EQ(QM_has_thread_reentered_ia(), 1);
  EXPECT_TRUE(QM_get_reentry_info(&p) == 0 && p == &outer_a);
  EXPECT_EQ(QM_leave_ia(), 2);
  EXPECT_EQ(QM_leave_ia(), 1);
  EXPECT_EQ(QM_has_thread_reentered_ia(), 0);
  EXPECT_EQ(QM_leave_ia(), 0);
  EXPECT_EQ(QM_get_reentry_info(&p), -1);

  EXPECT_EQ(QM_enter_ia(nullptr), 1);  // an outermost entry without info stores none
  EXPECT_TRUE(QM_get_reentry_info(&p) == 0 && p == nullptr);
  EXPECT_EQ(QM_leave_ia(), 0);
}

int reentrancy_regions(size_t* len) {
  struct Acc {
    int n;
    size_t len;
  } acc{0, 0};
  QM_MM_iterator_callbacks_t cb{};
  cb.arg = &acc;
  cb.f = [](QM_MM_iterator_callbacks_t* c) {
    Acc* a = static_cast<Acc*>(c->arg);
    if (c->region.tag == mmt_threads_reentrancy_table) ++a->n, a->len = c->region.len > a->len ? c->region.len : a->len;
    return 0;
  };
  QM_MM_iterate_regions(&cb);
  if (len != nullptr) *len = acc.len;
  return acc.n;
}

// Runs f on a fresh thread and returns its result.
template <typename F>
int on_other_thread(F f) {
  int r = 0;
  std::thread([&] { r = f(); }).join();
  return r;
}

TEST(ReentrancyTable, SwitchCarriesACallInProgress) {
  QM_thread_bind_library();
  std::thread([] {}).join();
  ASSERT_EQ(QM_thread_is_multi_threaded(), 1);

  void* info = &outer_a;
  ASSERT_EQ(QM_enter_ia(&info), 1);
  EXPECT_EQ(QM_thread_switch_to_multi_threaded_reentrancy(), 0);
  EXPECT_EQ(reentrancy_regions(nullptr), 1);
  void* inner = nullptr;
  EXPECT_EQ(QM_enter_ia(&inner), 2);
  EXPECT_EQ(inner, &outer_a);

  // Other threads have counts and infos of their own.
  EXPECT_EQ(on_other_thread([] { return QM_get_num_times_entered_ia(); }), 0);
  EXPECT_EQ(on_other_thread([] {
              void* q = &outer_b;
              return QM_get_reentry_info(&q) == -ENOENT && q == &outer_b;
            }),
            1);

  EXPECT_EQ(QM_leave_ia(), 1);
  EXPECT_EQ(QM_leave_ia(), 0);
  void* p = &outer_b;
  EXPECT_EQ(QM_get_reentry_info(&p), -ENOENT);
  EXPECT_EQ(p, &outer_b);
  EXPECT_EQ(QM_get_num_times_entered_ia(), 0);
}

TEST(ReentrancyTable, ConcurrentThreadsKeepTheirOwnCounts) {
  std::atomic<int> bad{0};
  std::vector<std::thread> ts;
  for (int t = 0; t < 8; ++t)
    ts.emplace_back([&bad] {
      int mine = 0;
      for (int i = 0; i < 10000; ++i) {
        void *info = &mine, *seen = nullptr, *got = nullptr;
        bool ok = QM_enter_ia(&info) == 1;
        ok = QM_enter_ia(&seen) == 2 && seen == &mine && ok;
        ok = QM_get_reentry_info(&got) == 0 && got == &mine && ok;
        ok = QM_leave_ia() == 1 && ok;
        if (QM_leave_ia() != 0 || !ok) ++bad;
      }
    });
  for (auto& t : ts) t.join();
  EXPECT_EQ(bad.load(), 0);
}

pthread_barrier_t all_inside, all_checked;
std::atomic<int> grow_failures{0};

void* hold_an_entry(void*) {
  int mine = 0;
  void *info = &mine, *seen = nullptr;
  bool ok = QM_enter_ia(&info) == 1;
  pthread_barrier_wait(&all_inside);  // every thread has an entry now
  ok = QM_enter_ia(&seen) == 2 && seen == &mine && ok;  // survived the table's moves
  ok = QM_leave_ia() == 1 && ok;
  pthread_barrier_wait(&all_checked);
  if (QM_leave_ia() != 0 || !ok) ++grow_failures;
  return nullptr;
}

TEST(ReentrancyTable, ManyThreadsInsideAtOnceGrowTheTable) {
  const int n = 300;
  struct Entry {  // the table's entry layout: thread, count, info, two links
    pthread_t tid;
    int counter;
    void* info;
    int next, prev;
  };
  const size_t ps = QM_getpagesize();
  size_t pages = 1;  // index 0 is never used
  while (pages * ps / sizeof(Entry) - 1 < static_cast<size_t>(n)) ++pages;
  ASSERT_GT(pages, 1u);

  pthread_barrier_init(&all_inside, nullptr, n);
  pthread_barrier_init(&all_checked, nullptr, n);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 256 * 1024);
  std::vector<pthread_t> ts(n);
  for (auto& t : ts) ASSERT_EQ(pthread_create(&t, &attr, hold_an_entry, nullptr), 0);
  for (auto& t : ts) pthread_join(t, nullptr);
  EXPECT_EQ(grow_failures.load(), 0);

  size_t len = 0;
  // Each growth copies the table one page larger; the old copies stay mapped,
  // since a thread may be writing its count into one as the table moves.
  EXPECT_GE(reentrancy_regions(&len), 2);
  EXPECT_GE(len, pages * ps);
  EXPECT_EQ(QM_get_num_times_entered_ia(), 0);
}

}  // namespace
