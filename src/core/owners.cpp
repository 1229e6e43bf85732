// Base owner, the C owner with its operation gate, and the owner manager.
#include "base/assert.h"
#include "base/export.h"
#include "base/ipht.h"
#include "core/owners.h"

extern "C" {
constinit volatile int QM_HEAP_owner_purge_hoard = 1;
constinit c_owner_sync_info_t c_owner_sync_info = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_COND_INITIALIZER,
                                                   PTHREAD_COND_INITIALIZER, 0, 0, 0, 0};
}

namespace {

constexpr const char kOmFile[] = "../src/generic/owner_manager.c";

constinit c_owner_t c_owner = {nullptr, 0, 0, nullptr};
constinit c_owner_t* c_owner_instance = nullptr;

constinit owner_manager_t om = {PTHREAD_MUTEX_INITIALIZER, {}, 0, 0, nullptr};
constinit int om_initialized = 0;

inline c_owner_sync_info_t* sync_of(c_owner_t* self) {
  return static_cast<c_owner_sync_info_t*>(self->sync_info);
}

int register_owner(owner_manager_t* m, int need_to_lock, owner_t* owner) {
  if (need_to_lock) QM_pthread_mutex_lock(&m->m);
  int result = 0;
  if (owner == qm::as_owner(QM_HEAP_c_owner_get_instance())) {
    om_special_owner_t* slot = nullptr;
    for (int i = 0; i < m->num_special_owners; ++i) {
      if (m->special_owners[i].id == om_id_c_owner) {
        slot = &m->special_owners[i];
        break;
      }
      if (m->special_owners[i].id == 0 && slot == nullptr) slot = &m->special_owners[i];
    }
    if (slot != nullptr) {
      slot->id = om_id_c_owner;
      slot->owner = owner;
      owner->id = om_id_c_owner;
    } else {
      result = -1;
    }
  } else {
    if (m->hash_table == nullptr && QM_ipht_new_table(&m->hash_table, 0) != 0)
      QM_assert(0, "%s.%d: error creating new hash table for owner manager\n", kOmFile, 220);
    QM_assert(m->hash_table != nullptr, "%s.%d: owner manager hash table unexpectedly absent\n", kOmFile, 226);
    if (QM_ipht_insert(m->hash_table, m->next_id, owner) != 0)
      QM_assert(0, "%s.%d: error adding owner to owner manager hash table\n", kOmFile, 234);
    owner->id = m->next_id++;
  }
  if (need_to_lock) QM_pthread_mutex_unlock(&m->m);
  return result;
}

}  // namespace

extern "C" {

owner_id_t QM_HEAP_owner_get_id(owner_t* self) { return self->id; }
allocator_t* QM_HEAP_owner_get_allocator(owner_t*) { return nullptr; }
int QM_HEAP_owner_has_rights(owner_t*, owner_t*, owner_rights_e) { return 0; }
int QM_HEAP_owner_get_num_in_hoard(owner_t* self) { return self->num_in_hoard; }
int QM_HEAP_owner_inc_num_in_hoard(owner_t* self, int delta) { return self->num_in_hoard += delta; }
int QM_HEAP_owner_get_purge_hoard(owner_t*) { return QM_HEAP_owner_purge_hoard; }

constinit const owner_ftable_t owner_funcs = {
    QM_HEAP_owner_get_id,           QM_HEAP_owner_get_allocator,     QM_HEAP_owner_has_rights,
    QM_HEAP_owner_get_num_in_hoard, QM_HEAP_owner_inc_num_in_hoard, QM_HEAP_owner_get_purge_hoard};

int QM_HEAP_owner_constructor(owner_t* self) {
  self->funcs = &owner_funcs;
  self->id = 0;
  self->num_in_hoard = 0;
  return 0;
}

allocator_t* QM_HEAP_c_owner_get_allocator(owner_t*) { return QM_HEAP_c_allocator_get_instance(); }

int QM_HEAP_c_owner_has_rights(owner_t* self, owner_t* other, owner_rights_e) {
  QM_assert(self == qm::as_owner(QM_HEAP_c_owner_get_instance()),
            "%s.%d: QM_HEAP_c_owner_has_rights called with self not the C owner\n",
            "../src/generic/c_owner.c", 91);
  return self == other;
}

// The gate's fast path takes no lock: an operation counts itself in with one
// atomic add and looks for a blocker afterwards; a blocker announces itself
// before it looks at the count. Both are sequentially consistent, so one of
// the two always sees the other: either the operation backs out and waits,
// or the blocker waits for it to finish.
int QM_HEAP_c_owner_start_op(c_owner_t* self) {
  c_owner_sync_info_t* s = sync_of(self);
  if (!qm::is_multi_threaded()) {  // nobody else to block
    ++s->num_ops;
    return 0;
  }
  __atomic_add_fetch(&s->num_ops, 1, __ATOMIC_SEQ_CST);
  if (QM_LIKELY(__atomic_load_n(&s->num_waiting_to_block, __ATOMIC_SEQ_CST) == 0 &&
                __atomic_load_n(&s->is_blocked, __ATOMIC_SEQ_CST) == 0))
    return 0;
  qm::mutex_lock(&s->m);
  if (__atomic_sub_fetch(&s->num_ops, 1, __ATOMIC_SEQ_CST) == 0 && s->num_waiting_to_block > 0)
    QM_pthread_cond_signal(&s->waiting_to_block);
  while (s->is_blocked || s->num_waiting_to_block > 0) {
    ++s->num_waiting_for_ops;
    QM_pthread_cond_wait(&s->waiting_for_ops, &s->m);
    --s->num_waiting_for_ops;
  }
  __atomic_add_fetch(&s->num_ops, 1, __ATOMIC_SEQ_CST);
  qm::mutex_unlock(&s->m);
  return 0;
}

int QM_HEAP_c_owner_finish_op(c_owner_t* self) {
  c_owner_sync_info_t* s = sync_of(self);
  if (!qm::is_multi_threaded()) {
    --s->num_ops;
    return 0;
  }
  if (__atomic_sub_fetch(&s->num_ops, 1, __ATOMIC_SEQ_CST) == 0 &&
      __atomic_load_n(&s->num_waiting_to_block, __ATOMIC_SEQ_CST) > 0) {
    qm::mutex_lock(&s->m);
    QM_pthread_cond_signal(&s->waiting_to_block);
    qm::mutex_unlock(&s->m);
  }
  return 0;
}

int QM_HEAP_c_owner_block_ops(c_owner_t* self) {
  c_owner_sync_info_t* s = sync_of(self);
  qm::mutex_lock(&s->m);
  __atomic_add_fetch(&s->num_waiting_to_block, 1, __ATOMIC_SEQ_CST);
  while (__atomic_load_n(&s->num_ops, __ATOMIC_SEQ_CST) > 0 || s->is_blocked)
    QM_pthread_cond_wait(&s->waiting_to_block, &s->m);
  __atomic_sub_fetch(&s->num_waiting_to_block, 1, __ATOMIC_SEQ_CST);
  __atomic_store_n(&s->is_blocked, 1, __ATOMIC_SEQ_CST);
  qm::mutex_unlock(&s->m);
  return 0;
}

int QM_HEAP_c_owner_unblock_ops(c_owner_t* self) {
  c_owner_sync_info_t* s = sync_of(self);
  qm::mutex_lock(&s->m);
  __atomic_store_n(&s->is_blocked, 0, __ATOMIC_SEQ_CST);
  if (s->num_waiting_to_block > 0)
    QM_pthread_cond_signal(&s->waiting_to_block);
  else if (s->num_waiting_for_ops > 0)
    QM_pthread_cond_broadcast(&s->waiting_for_ops);
  qm::mutex_unlock(&s->m);
  return 0;
}

constinit const c_owner_ftable_t c_owner_funcs = {
    QM_HEAP_owner_get_id,           QM_HEAP_c_owner_get_allocator,  QM_HEAP_c_owner_has_rights,
    QM_HEAP_owner_get_num_in_hoard, QM_HEAP_owner_inc_num_in_hoard, QM_HEAP_owner_get_purge_hoard,
    QM_HEAP_c_owner_start_op,       QM_HEAP_c_owner_finish_op,      QM_HEAP_c_owner_block_ops,
    QM_HEAP_c_owner_unblock_ops};

c_owner_t* QM_HEAP_c_owner_get_instance() {
  if (QM_LIKELY(c_owner_instance != nullptr)) return c_owner_instance;
  QM_HEAP_owner_constructor(qm::as_owner(&c_owner));
  c_owner.funcs = &c_owner_funcs;
  c_owner.sync_info = &c_owner_sync_info;
  QM_assert(1, "%s%d: error constructoring c_owner\n", "../src/generic/c_owner.c", 230);
  c_owner_instance = &c_owner;
  return c_owner_instance;
}

void QM_HEAP_c_owner_atfork_prepare() { QM_pthread_mutex_lock(&c_owner_sync_info.m); }
void QM_HEAP_c_owner_atfork_parent() { QM_pthread_mutex_unlock(&c_owner_sync_info.m); }
void QM_HEAP_c_owner_atfork_child() { QM_pthread_mutex_unlock(&c_owner_sync_info.m); }

int QM_HEAP_om_initialize() {
  if (om_initialized) return 0;
  om_initialized = 1;
  QM_pthread_mutex_lock(&om.m);
  om.num_special_owners = 1;
  om.special_owners[0] = {0, nullptr};
  register_owner(&om, 0, qm::as_owner(QM_HEAP_c_owner_get_instance()));
  om.next_id = om_id_first_non_special;
  QM_pthread_mutex_unlock(&om.m);
  return 0;
}

int QM_HEAP_om_register(owner_t* owner) { return register_owner(&om, 1, owner); }

int QM_HEAP_om_deregister(owner_id_t id) {
  if (id < om_id_first_non_special) return -1;
  QM_pthread_mutex_lock(&om.m);
  int r = QM_ipht_remove(om.hash_table, id);
  QM_pthread_mutex_unlock(&om.m);
  return r;
}

int QM_HEAP_om_is_valid_id(owner_id_t id) { return id != 0; }

owner_t* QM_HEAP_om_get_owner(owner_id_t id) {
  if (id == 0) return nullptr;
  if (id > om_id_darwin_default_zone) {
    QM_pthread_mutex_lock(&om.m);
    int found = 0;
    void* p = nullptr;
    if (om.hash_table != nullptr) QM_ipht_lookup(om.hash_table, id, &found, &p);
    QM_pthread_mutex_unlock(&om.m);
    return found ? static_cast<owner_t*>(p) : nullptr;
  }
  if (om.num_special_owners >= 1 && om.special_owners[0].id == id && om.special_owners[0].owner != nullptr)
    return om.special_owners[0].owner;
  return nullptr;
}

void QM_HEAP_om_atfork_prepare() { QM_pthread_mutex_lock(&om.m); }
void QM_HEAP_om_atfork_parent() { QM_pthread_mutex_unlock(&om.m); }
void QM_HEAP_om_atfork_child() { QM_pthread_mutex_unlock(&om.m); }

}  // extern "C"
