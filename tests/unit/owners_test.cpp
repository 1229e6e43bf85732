// Allocators, owners and their managers, and the C owner's operation gate
// exercised by real threads.
#include "core/binding.h"
#include "core/owners.h"

#include <gtest/gtest.h>
#include <errno.h>
#include <stdint.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace {

TEST(AllocatorManager, SpecialSlots) {
  ASSERT_EQ(QM_HEAP_om_initialize(), 0);
  ASSERT_EQ(QM_HEAP_am_initialize(), 0);
  EXPECT_EQ(QM_HEAP_am_initialize(), 0);
  allocator_t* c = QM_HEAP_c_allocator_get_instance();
  allocator_t* rz = QM_HEAP_rz_allocator_get_instance();
  ASSERT_TRUE(c != nullptr && rz != nullptr && c != rz);
  EXPECT_TRUE(QM_HEAP_am_get_allocator(am_id_c_allocator) == c && c->funcs->get_id(c) == 1);
  EXPECT_TRUE(QM_HEAP_am_get_allocator(am_id_rz_allocator) == rz && rz->funcs->get_id(rz) == 2);
  for (allocator_id_t id : {0, 3, 4, 5, 100, -1}) EXPECT_EQ(QM_HEAP_am_get_allocator(id), nullptr) << id;

  // A second registration reuses the slot that already carries the id.
  EXPECT_EQ(QM_HEAP_am_register(c), 0);
  EXPECT_EQ(QM_HEAP_am_deregister(1), -1);
  EXPECT_TRUE(c->id == 1 && QM_HEAP_am_get_allocator(1) == c && QM_HEAP_am_get_allocator(2) == rz);
}

TEST(AllocatorManager, CAllocatorForwardsToTheRealFunctions) {
  ASSERT_EQ(init_malloc_wrappers(), 1);
  allocator_t* a = QM_HEAP_c_allocator_get_instance();
  owner_t* o = qm::as_owner(QM_HEAP_c_owner_get_instance());
  EXPECT_EQ(qm::owner_allocator(o), a);
  const allocator_ftable_t* f = a->funcs;
  auto aligned = [](void* p, uintptr_t n) { return p != nullptr && reinterpret_cast<uintptr_t>(p) % n == 0; };
  char* m = static_cast<char*>(f->malloc(a, o, 100));
  m[99] = 'x';
  m = static_cast<char*>(f->realloc(a, o, m, 5000));
  ASSERT_TRUE(m != nullptr && m[99] == 'x');
  f->free(a, o, m);
  unsigned char* z = static_cast<unsigned char*>(f->calloc(a, o, 100, 10));
  EXPECT_TRUE(z != nullptr && z[0] == 0 && z[999] == 0);
  f->free(a, o, z);
  void* p = nullptr;
  EXPECT_EQ(f->posix_memalign(a, o, &p, 256, 10), 0);
  EXPECT_TRUE(aligned(p, 256));
  f->free(a, o, p);
  EXPECT_EQ(f->posix_memalign(a, o, &p, 3, 10), EINVAL);  // the real function's result
  for (void* q : {f->memalign(a, o, 128, 10), f->valloc(a, o, 10)}) {
    EXPECT_TRUE(aligned(q, 128));
    f->free(a, o, q);
  }
}

TEST(OwnerManager, CownerAndRegisteredOwners) {
  ASSERT_EQ(QM_HEAP_om_initialize(), 0);
  owner_t* c = qm::as_owner(QM_HEAP_c_owner_get_instance());
  EXPECT_EQ(QM_HEAP_om_get_owner(om_id_c_owner), c);
  EXPECT_TRUE(QM_HEAP_om_get_owner(0) == nullptr && QM_HEAP_om_get_owner(om_id_darwin_default_zone) == nullptr);
  EXPECT_EQ(QM_HEAP_om_deregister(1), -1);
  EXPECT_EQ(QM_HEAP_om_register(c), 0);  // again: still id 1, no new id used
  EXPECT_TRUE(c->funcs->get_id(c) == 1 && QM_HEAP_om_get_owner(1) == c);

  owner_t o[4];
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(QM_HEAP_owner_constructor(&o[i]), 0);
    ASSERT_EQ(QM_HEAP_om_register(&o[i]), 0);
    EXPECT_GE(o[i].id, om_id_first_non_special);
    EXPECT_TRUE(i == 0 || o[i].id == o[i - 1].id + 1);
    EXPECT_EQ(QM_HEAP_om_get_owner(o[i].id), &o[i]);  // right after registration
  }
  EXPECT_EQ(QM_HEAP_om_get_owner(o[3].id + 1), nullptr);
  EXPECT_EQ(QM_HEAP_om_deregister(o[3].id), 0);
  EXPECT_EQ(QM_HEAP_om_get_owner(o[3].id), nullptr);
  EXPECT_EQ(QM_HEAP_om_get_owner(1), c);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(QM_HEAP_om_deregister(o[i].id), 0);
}

TEST(Owner, BaseSlotsRightsAndHoardCounter) {
  owner_t b{nullptr, 99, 42};
  ASSERT_EQ(QM_HEAP_owner_constructor(&b), 0);
  EXPECT_TRUE(b.id == 0 && b.num_in_hoard == 0);
  EXPECT_EQ(b.funcs->inc_num_in_hoard(&b, 3), 3);
  EXPECT_EQ(b.funcs->inc_num_in_hoard(&b, -1), 2);
  EXPECT_EQ(b.funcs->get_num_in_hoard(&b), 2);
  EXPECT_TRUE(b.funcs->get_allocator(&b) == nullptr && b.funcs->has_rights(&b, &b, or_free) == 0);

  owner_t* c = qm::as_owner(QM_HEAP_c_owner_get_instance());
  for (owner_rights_e r : {or_free, or_realloc}) {
    EXPECT_EQ(c->funcs->has_rights(c, c, r), 1);
    EXPECT_EQ(c->funcs->has_rights(c, &b, r), 0);
  }
  const int before = c->funcs->get_num_in_hoard(c);
  EXPECT_EQ(c->funcs->inc_num_in_hoard(c, 5), before + 5);
  EXPECT_EQ(c->funcs->inc_num_in_hoard(c, -5), before);
}

// The gate's counters, read under its own mutex.
struct GateState {
  int is_blocked, waiting_for_ops, waiting_to_block, ops;
};
GateState gate() {
  c_owner_sync_info_t& s = c_owner_sync_info;
  QM_pthread_mutex_lock(&s.m);
  GateState g{s.is_blocked, s.num_waiting_for_ops, s.num_waiting_to_block, s.num_ops};
  QM_pthread_mutex_unlock(&s.m);
  return g;
}

void nap(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

bool eventually(const std::function<bool()>& cond) {
  for (int i = 0; i < 5000 && !cond(); ++i) nap(1);
  return cond();
}

class CownerGate : public ::testing::Test {
 protected:
  void SetUp() override {
    QM_thread_bind_library();
    std::thread([] {}).join();  // the locks are real once there has been a second thread
    ASSERT_EQ(QM_thread_is_multi_threaded(), 1);
    GateState g = gate();
    ASSERT_EQ(g.ops + g.is_blocked + g.waiting_for_ops + g.waiting_to_block, 0);
  }
  void TearDown() override {
    GateState g = gate();
    EXPECT_EQ(g.ops + g.is_blocked + g.waiting_for_ops + g.waiting_to_block, 0);
  }
  // A thread that blocks operations, says so, and holds the block until released.
  std::thread blocker(std::atomic<bool>& holding, std::atomic<bool>& release) {
    return std::thread([this, &holding, &release] {
      co->funcs->block_ops(co);
      holding = true;
      while (!release) nap(1);
      co->funcs->unblock_ops(co);
    });
  }
  // A thread that runs one operation and says when it got in.
  std::thread operation(std::atomic<bool>& started) {
    return std::thread([this, &started] {
      co->funcs->start_op(co);
      started = true;
      co->funcs->finish_op(co);
    });
  }
  c_owner_t* co = QM_HEAP_c_owner_get_instance();
};

TEST_F(CownerGate, BlockersWaitForOpsAndGoBeforeNewOps) {
  EXPECT_EQ(co->funcs->start_op(co), 0);
  EXPECT_EQ(co->funcs->start_op(co), 0);  // operations do not exclude each other
  std::atomic<bool> first{false}, release_first{false}, second{false}, release_second{false}, op{false};
  std::thread b1 = blocker(first, release_first);
  ASSERT_TRUE(eventually([] { return gate().waiting_to_block == 1; }));
  // A blocker is waiting: a new operation waits too, though nothing is blocked yet.
  std::thread o = operation(op);
  ASSERT_TRUE(eventually([] { return gate().waiting_for_ops == 1; }));
  EXPECT_EQ(co->funcs->finish_op(co), 0);
  nap(30);
  EXPECT_FALSE(first);  // one operation still inside
  co->funcs->finish_op(co);
  EXPECT_TRUE(eventually([&] { return first.load(); }));

  // A second blocker arriving now is woken by unblock_ops before the operation.
  std::thread b2 = blocker(second, release_second);
  ASSERT_TRUE(eventually([] { return gate().waiting_to_block == 1; }));
  nap(30);
  EXPECT_FALSE(op);
  EXPECT_EQ(gate().is_blocked, 1);
  release_first = true;
  EXPECT_TRUE(eventually([&] { return second.load(); }));
  nap(30);
  EXPECT_FALSE(op);
  release_second = true;
  EXPECT_TRUE(eventually([&] { return op.load(); }));
  for (std::thread* t : {&b1, &b2, &o}) t->join();
}

}  // namespace
