// Owners and allocators. Every block is obtained from an allocator on behalf
// of an owner; both are small objects whose first member is a table of
// operations (a derived table begins with its base's slots in the same
// order). Two managers turn the ids stored in allocation records back into
// objects.
#pragma once
#include <stddef.h>

#include "qmheap/heap_types.h"
#include "threads/thread_utils.h"

extern "C" {

struct owner_t;
struct allocator_t;
struct int_pointer_hash_table_t;

typedef struct allocator_ftable_t {
  allocator_id_t (*get_id)(struct allocator_t* self);
  void* (*calloc)(struct allocator_t* self, struct owner_t* owner, size_t nelems, size_t sizeof_elem);
  void (*free)(struct allocator_t* self, struct owner_t* owner, void* p);
  void* (*malloc)(struct allocator_t* self, struct owner_t* owner, size_t len);
  void* (*memalign)(struct allocator_t* self, struct owner_t* owner, size_t boundary, size_t len);
  int (*posix_memalign)(struct allocator_t* self, struct owner_t* owner, void** p, size_t alignment,
                        size_t len);
  void* (*realloc)(struct allocator_t* self, struct owner_t* owner, void* p, size_t len);
  void* (*valloc)(struct allocator_t* self, struct owner_t* owner, size_t len);
  unsigned (*batch_malloc)(struct allocator_t* self, struct owner_t* owner, size_t size, void** results,
                           unsigned n);
  void (*batch_free)(struct allocator_t* self, struct owner_t* owner, void** results, unsigned n);
} allocator_ftable_t;

typedef allocator_ftable_t c_allocator_ftable_t;

typedef struct allocator_t {
  const allocator_ftable_t* funcs;
  allocator_id_t id;
} allocator_t;

typedef struct c_allocator_t {
  const c_allocator_ftable_t* funcs;
  allocator_id_t id;
} c_allocator_t;

typedef struct owner_ftable_t {
  owner_id_t (*get_id)(struct owner_t* self);
  allocator_t* (*get_allocator)(struct owner_t* self);
  int (*has_rights)(struct owner_t* self, struct owner_t* other, owner_rights_e r);
  int (*get_num_in_hoard)(struct owner_t* self);
  int (*inc_num_in_hoard)(struct owner_t* self, int delta);
  int (*get_purge_hoard)(struct owner_t* self);
} owner_ftable_t;

typedef struct owner_t {
  const owner_ftable_t* funcs;
  owner_id_t id;
  int num_in_hoard;
} owner_t;

struct c_owner_t;

typedef struct c_owner_ftable_t {
  owner_id_t (*get_id)(owner_t* self);
  allocator_t* (*get_allocator)(owner_t* self);
  int (*has_rights)(owner_t* self, owner_t* other, owner_rights_e r);
  int (*get_num_in_hoard)(owner_t* self);
  int (*inc_num_in_hoard)(owner_t* self, int delta);
  int (*get_purge_hoard)(owner_t* self);
  int (*start_op)(struct c_owner_t* self);
  int (*finish_op)(struct c_owner_t* self);
  int (*block_ops)(struct c_owner_t* self);
  int (*unblock_ops)(struct c_owner_t* self);
} c_owner_ftable_t;

typedef struct c_owner_t {
  const c_owner_ftable_t* funcs;
  owner_id_t id;
  int num_in_hoard;
  void* sync_info;  // c_owner_sync_info_t
} c_owner_t;

// The C owner's operation gate: operations run concurrently; a blocker waits
// for them to drain and, while it waits or holds the block, none starts.
typedef struct c_owner_sync_info_t {
  QM_pthread_mutex_t m;
  QM_pthread_cond_t waiting_for_ops;
  QM_pthread_cond_t waiting_to_block;
  int is_blocked;
  int num_waiting_for_ops;
  int num_waiting_to_block;
  int num_ops;
} c_owner_sync_info_t;

typedef struct am_special_allocator_t {
  allocator_id_t id;
  allocator_t* allocator;
} am_special_allocator_t;

typedef struct allocator_manager_t {
  am_special_allocator_t special_allocators[2];
  int num_special_allocators;
  allocator_id_t next_id;
} allocator_manager_t;

typedef struct om_special_owner_t {
  owner_id_t id;
  owner_t* owner;
} om_special_owner_t;

typedef struct owner_manager_t {
  QM_pthread_mutex_t m;
  om_special_owner_t special_owners[1];
  int num_special_owners;
  owner_id_t next_id;
  struct int_pointer_hash_table_t* hash_table;
} owner_manager_t;

extern volatile int QM_HEAP_owner_purge_hoard;
extern c_owner_sync_info_t c_owner_sync_info;

// Base allocator: get_id and placeholders that halt when reached.
int QM_HEAP_allocator_constructor(allocator_t* self);
allocator_id_t QM_HEAP_allocator_get_id(allocator_t* self);
extern const allocator_ftable_t allocator_ftable;

allocator_t* QM_HEAP_c_allocator_get_instance();

int QM_HEAP_owner_constructor(owner_t* self);
owner_id_t QM_HEAP_owner_get_id(owner_t* self);
allocator_t* QM_HEAP_owner_get_allocator(owner_t* self);
int QM_HEAP_owner_has_rights(owner_t* self, owner_t* other, owner_rights_e r);
int QM_HEAP_owner_get_num_in_hoard(owner_t* self);
int QM_HEAP_owner_inc_num_in_hoard(owner_t* self, int delta);
int QM_HEAP_owner_get_purge_hoard(owner_t* self);

c_owner_t* QM_HEAP_c_owner_get_instance();
int QM_HEAP_c_owner_has_rights(owner_t* self, owner_t* other, owner_rights_e r);
int QM_HEAP_c_owner_start_op(c_owner_t* self);
int QM_HEAP_c_owner_finish_op(c_owner_t* self);
int QM_HEAP_c_owner_block_ops(c_owner_t* self);
int QM_HEAP_c_owner_unblock_ops(c_owner_t* self);
void QM_HEAP_c_owner_atfork_prepare();
void QM_HEAP_c_owner_atfork_parent();
void QM_HEAP_c_owner_atfork_child();

int QM_HEAP_am_initialize();
int QM_HEAP_am_register(allocator_t* a);
int QM_HEAP_am_deregister(allocator_id_t id);
int QM_HEAP_am_is_valid_id(allocator_id_t id);
allocator_t* QM_HEAP_am_get_allocator(allocator_id_t id);

int QM_HEAP_om_initialize();
int QM_HEAP_om_register(owner_t* owner);
int QM_HEAP_om_deregister(owner_id_t id);
int QM_HEAP_om_is_valid_id(owner_id_t id);
owner_t* QM_HEAP_om_get_owner(owner_id_t id);
void QM_HEAP_om_atfork_prepare();
void QM_HEAP_om_atfork_parent();
void QM_HEAP_om_atfork_child();

// The red-zone allocator's instance (registered as allocator 2).
allocator_t* QM_HEAP_rz_allocator_get_instance();
}

namespace qm {
inline owner_t* as_owner(c_owner_t* o) { return reinterpret_cast<owner_t*>(o); }
inline allocator_t* owner_allocator(owner_t* o) { return o->funcs->get_allocator(o); }
}  // namespace qm
