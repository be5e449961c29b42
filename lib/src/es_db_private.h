// The per-ACL lock pair and the counted reference, shared by the sources that reach into a head record.
//
// The lock is held around exactly one store call or one short change of the head. It belongs to the store,
// which creates and destroys it; whether it is recursive is the store's choice. No registered
// callback runs under it; a traversal's visitor does.
#ifndef ES_ACL_SRC_ES_DB_PRIVATE_H_
#define ES_ACL_SRC_ES_DB_PRIVATE_H_

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "es_acl/es_acl_store.h"
#include "es_platform/diag.h"

namespace es_acl {

// What a blocked thread and a broken lock are called in diagnostics. The texts are fixed: people search logs for
// them, so they do not follow this file's name and lines.
inline constexpr char kLockSource[] = "apps/acl/es/lib/src/es_db_private";
inline constexpr uint32_t kLockBlockedAt = 254;
inline constexpr int kLockAssertedAt = 258;
inline constexpr int kUnlockAssertedAt = 268;

// A lock step that fails for another reason than "busy" means a destroyed or foreign mutex, and ends the process.
inline void lock_assert(int _err, int line, const char* function) {
  if (_err != 0) [[unlikely]]
    assert_fail("_err == 0", kLockSource, line, function);
}

// Apart from the lock step, which every pushed ACE takes twice, so that the usual case stays short.
[[gnu::cold, gnu::noinline]] inline int es_acl_lock_busy(es_acl_head* acl) {
  thread_mark_mutex_block(&acl->lock, "es_acl_lock", kLockBlockedAt);
  const int _err = pthread_mutex_lock(&acl->lock);
  thread_unmark_mutex_block();
  return _err;
}

inline void es_acl_lock(es_acl_head* acl) {
  int _err = pthread_mutex_trylock(&acl->lock);
  if (_err == EBUSY) [[unlikely]]
    _err = es_acl_lock_busy(acl);
  lock_assert(_err, kLockAssertedAt, "es_acl_lock");
}

inline void es_acl_unlock(es_acl_head* acl) {
  lock_assert(pthread_mutex_unlock(&acl->lock), kUnlockAssertedAt, "es_acl_unlock");
}

class AclLock {
 public:
  explicit AclLock(es_acl_head* acl) : acl_(acl) { es_acl_lock(acl_); }
  ~AclLock() { es_acl_unlock(acl_); }
  AclLock(const AclLock&) = delete;
  AclLock& operator=(const AclLock&) = delete;

 private:
  es_acl_head* acl_;
};

// What the loaded store offers, or null.
extern const es_acl_batch_table* es_acl_batches;

// refcount and ace_count are plain words of the record that several threads may look at.
inline int32_t add_reference(es_acl_head* acl) {
  return std::atomic_ref<int32_t>(acl->refcount).fetch_add(1, std::memory_order_relaxed) + 1;
}
inline int32_t drop_reference(es_acl_head* acl) {
  return std::atomic_ref<int32_t>(acl->refcount).fetch_sub(1, std::memory_order_acq_rel) - 1;
}
inline int32_t references(es_acl_head* acl) {
  return std::atomic_ref<int32_t>(acl->refcount).load(std::memory_order_acquire);
}
inline uint32_t ace_count(es_acl_head* acl) {
  return std::atomic_ref<uint32_t>(acl->ace_count).load(std::memory_order_relaxed);
}

// Byte for byte.
inline bool equal(const es_acl_ace& one, const es_acl_ace& other) {
  return std::memcmp(&one, &other, sizeof one) == 0;
}

// Tells the store that somebody is going to look at the list without the lock.
inline void begin_look(es_acl_head* acl) {
  const std::atomic_ref<uint32_t> looks(acl->looks);
  uint32_t look = looks.load(std::memory_order_acquire);
  while (look % 2 == 0 && !looks.compare_exchange_weak(look, look + 1, std::memory_order_acq_rel)) {
  }
}

}  // namespace es_acl

#endif  // ES_ACL_SRC_ES_DB_PRIVATE_H_
