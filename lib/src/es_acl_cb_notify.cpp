// The deferred notifications of one ACL: who wants them, and telling everybody.
//
// Clients register and unregister on their threads, under the ACL's lock; the drain runs on the event manager's thread.
// It walks a copy that it takes under the lock, and looks again before each call whether the pair is still there: a
// callback may register and unregister on the same ACL.
#include <cstdlib>

#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_buffer.h"
#include "es_acl_cb_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"
#include "es_db_private.h"
#include "es_platform/queue.h"

namespace es_acl {
namespace {

struct es_acl_notify_entry {
  es_acl_notify_entry* next;  // the queue's link
  es_acl_notify_cb function;
  uint32_t context;
  uint32_t refcnt;  // registrations of this pair
};
static_assert(sizeof(es_acl_notify_entry) == 24);

linked_queue* entries_of(es_acl_head* acl) {
  static_assert(sizeof(linked_queue) == sizeof(es_acl_entry_queue));
  return reinterpret_cast<linked_queue*>(&acl->cb_list);
}

es_acl_notify_entry* next_entry(es_acl_head* acl, const es_acl_notify_entry* entry) {
  return static_cast<es_acl_notify_entry*>(queue_next(entries_of(acl), entry));
}

es_acl_notify_entry* find_entry(es_acl_head* acl, es_acl_notify_cb function, uint32_t context) {
  es_acl_notify_entry* entry = next_entry(acl, nullptr);
  while (entry != nullptr && (entry->function != function || entry->context != context))
    entry = next_entry(acl, entry);
  return entry;
}

es_acl_status add_entry(es_acl_head* acl, es_acl_notify_cb function, uint32_t context) {
  auto* entry = static_cast<es_acl_notify_entry*>(std::malloc(sizeof(es_acl_notify_entry)));
  if (entry == nullptr) return ES_ACL_E_NO_MEMORY;
  *entry = {nullptr, function, context, 1};
  queue_append(entries_of(acl), entry);
  return 0;
}

// The pairs to notify, as they are at one moment. A few need no allocation.
class PairCopy {
 public:
  struct Pair {
    es_acl_notify_cb function;
    uint32_t context;
  };

  // False when there is no memory for them.
  bool take(es_acl_head* acl);
  const Pair* begin() const { return pairs_; }
  const Pair* end() const { return pairs_ + count_; }

 private:
  static constexpr uint32_t kFew = 16;

  Pair few_[kFew];
  Buffer<Pair> many_;
  Pair* pairs_ = few_;
  uint32_t count_ = 0;
};

bool PairCopy::take(es_acl_head* acl) {
  const AclLock lock(acl);
  uint32_t entries = 0;
  for (auto* entry = next_entry(acl, nullptr); entry != nullptr; entry = next_entry(acl, entry)) ++entries;
  if (entries > kFew) {
    many_ = uninitialised<Pair>(entries);
    if (many_ == nullptr) return false;
    pairs_ = many_.get();
  }
  for (auto* entry = next_entry(acl, nullptr); entry != nullptr; entry = next_entry(acl, entry))
    pairs_[count_++] = {entry->function, entry->context};
  return true;
}

bool still_wanted(es_acl_head* acl, const PairCopy::Pair& pair) {
  const AclLock lock(acl);
  return find_entry(acl, pair.function, pair.context) != nullptr;
}

}  // namespace

void drop_notify_entries(es_acl_head* acl) {
  linked_queue* const entries = entries_of(acl);
  while (void* entry = queue_next(entries, nullptr)) {
    queue_unlink(entries, entry);
    std::free(entry);
  }
}

}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_register_callback(es_acl_head* acl, es_acl_notify_cb function, uint32_t context) {
  if (acl == nullptr || function == nullptr) {
    DBG_ERR("%s: ACL or the callback function is NULL", __func__);
    return ES_ACL_E_INVALID;
  }
  DBG_INFO("Entering %s for acl %s", __func__, shown(acl->name));
  const AclLock lock(acl);
  if (es_acl_notify_entry* entry = find_entry(acl, function, context)) {
    ++entry->refcnt;
    DBG_DETAIL("%s: func/ctx exist, refcnt %d", __func__, static_cast<int>(entry->refcnt));
    return 0;
  }
  if (next_entry(acl, nullptr) == nullptr) {
    DBG_DETAIL("%s: Notify queue for acl %s is empty", __func__, shown(acl->name));
    const es_acl_status status = es_acl_setup_callback_timer(acl);
    if (status != 0) return status;
  }
  return add_entry(acl, function, context);
}

void es_acl_unregister_callback(es_acl_head* acl, es_acl_notify_cb function, uint32_t context) {
  if (acl == nullptr) {
    DBG_ERR("%s: Error, ACL should not be NULL.", __func__);
    return;
  }
  DBG_INFO("Entering %s for acl %s", __func__, shown(acl->name));
  const AclLock lock(acl);
  es_acl_notify_entry* const entry = find_entry(acl, function, context);
  if (entry == nullptr) return;
  DBG_DETAIL("%s: Found func/ctx. Refcnt is %d", __func__, static_cast<int>(entry->refcnt));
  if (--entry->refcnt != 0) return;
  DBG_DETAIL("%s: Last one, free it", __func__);
  queue_unlink(entries_of(acl), entry);
  std::free(entry);
}

void es_acl_invoke_list(es_acl_head* acl) {
  if (acl == nullptr) {
    DBG_ERR("%s: ACL pointer is NULL, returning.", __func__);
    return;
  }
  const AclUse use(acl->name);
  if (use.leaving()) return;
  DBG_INFO("Entering %s for %s refcnt %d", __func__, shown(acl->name), static_cast<int>(references(acl)));
  PairCopy pairs;
  if (!pairs.take(acl)) {
    DBG_ERR("%s: no memory to notify for acl %s, trying again", __func__, shown(acl->name));
    trace_name(__func__, "no memory", acl->name, 0);
    es_acl_start_cb_timer(acl);
    return;
  }
  for (const PairCopy::Pair& pair : pairs) {
    if (!still_wanted(acl, pair)) continue;
    DBG_DETAIL("%s: Calling a callback function from %s", __func__, shown(acl->name));
    pair.function(acl, pair.context);
    trace_name(__func__, "notified", acl->name, pair.context);
  }
}
