// The operations on one ACL's list, each one store call under the ACL's lock, and the library-wide modify
// mode.
//
// Every operation keeps one order: entry line, argument check, lock, store call, unlock, counter. Nothing is
// printed, traced or counted under the lock. Any thread.
#include <cerrno>
#include <cstring>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_diag.h"
#include "es_acl_state.h"
#include "es_db_private.h"

namespace es_acl {

std::atomic<uint32_t> es_acl_modify_mode;

namespace {

// Main counters of these operations; a match counts at kCountMatch + its result.
constexpr uint64_t kCountAdd = 40;
constexpr uint64_t kCountDelete = 41;
constexpr uint64_t kCountMatch = 42;

[[gnu::cold]] bool refuse_search(const char* operation) {
  trace(operation, "invalid arguments", EINVAL);
  DBG_ERR("%s: Invalid arguments.", operation);
  return false;
}

// Entry line and argument check of the searches.
inline bool may_search(const char* operation, const es_acl_head* acl) {
  DBG_INFO("Entering : %s", operation);
  return acl != nullptr || refuse_search(operation);
}

inline es_acl_ace* search_iter(const char* operation, es_acl_head* acl, uint32_t seq, uint32_t direction,
                               es_acl_iter* iter) {
  if (!may_search(operation, acl)) return nullptr;
  const AclLock lock(acl);
  return es_acl_apis->search_entry_iter(acl, seq, direction, iter);
}

const char* modify_mode_text(uint32_t mode) {
  return mode == ES_ACL_MODIFY_DELETE_AND_ADD ? "Delete and Add" : "Add only";
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

es_acl_ace* es_acl_search_item(es_acl_head* acl, uint32_t seq) {
  if (!may_search(__func__, acl)) return nullptr;
  const AclLock lock(acl);
  return es_acl_apis->search_entry(acl, seq);
}

es_acl_ace* es_acl_search_item_fiter(es_acl_head* acl, uint32_t seq, es_acl_iter* iter) {
  return search_iter(__func__, acl, seq, ES_ACL_FORWARD, iter);
}

es_acl_ace* es_acl_search_item_biter(es_acl_head* acl, uint32_t seq, es_acl_iter* iter) {
  return search_iter(__func__, acl, seq, ES_ACL_BACKWARD, iter);
}

es_acl_status es_acl_add_acl_item_common(es_acl_head* acl, es_acl_ace* ace, uint32_t seq, uint32_t flag,
                                         es_acl_iter* iter) {
  DBG_INFO("Entering : %s", __func__);
  if (acl == nullptr || ace == nullptr) {
    DBG_ERR("%s: ACL or ace is NULL", __func__);
    trace(__func__, "invalid arguments", EINVAL);
    return EINVAL;
  }
  const AclLock lock(acl);
  return es_acl_apis->add_acl_item_iter(acl, ace, seq, flag, iter);
}

es_acl_status es_acl_add_acl_item(es_acl_head* acl, es_acl_ace* ace, uint32_t seq, uint32_t flag) {
  count_main(kCountAdd);
  DBG_INFO("Entering : %s", __func__);
  return es_acl_add_acl_item_common(acl, ace, seq, flag, nullptr);
}

void es_acl_delete_item_common(es_acl_head* acl, uint32_t seq, uint32_t direction, es_acl_iter* iter) {
  DBG_INFO("Entering : %s", __func__);
  if (acl == nullptr || iter == nullptr) {
    trace(__func__, "invalid arguments", EINVAL);
    DBG_ERR("%s: Invalid arguments. ", __func__);
    return;
  }
  const AclLock lock(acl);
  es_acl_apis->delete_entry_iter(acl, seq, direction, iter);
}

void es_acl_delete_item(es_acl_head* acl, uint32_t seq) {
  DBG_INFO("Entering : %s", __func__);
  if (acl == nullptr || seq == 0) {
    DBG_ERR("%s: es_acl_handle = NULL || sequence is 0", __func__);
    trace(__func__, "invalid arguments", EINVAL);
    return;
  }
  {
    const AclLock lock(acl);
    es_acl_apis->delete_entry_iter(acl, seq, ES_ACL_FORWARD, nullptr);
  }
  count_main(kCountDelete);
}

uint32_t es_acl_match_complex(es_acl_head* acl, const void* key, uint32_t value32, uint64_t value64) {
  DBG_INFO("Entering : %s", __func__);
  if (acl == nullptr || key == nullptr) {
    trace(__func__, "invalid arguments", EINVAL);
    DBG_ERR("%s: Invalid arguments. handle = NULL", __func__);
    return 0;
  }
  es_acl_lock(acl);
  const uint32_t result = es_acl_apis->match_complex(acl, key, value32, value64);
  es_acl_unlock(acl);
  count_main(kCountMatch + result);
  return result;
}

uint32_t es_acl_match_complex_2(es_acl_head* acl, const void* key, uint32_t value32, uint64_t value64) {
  DBG_INFO("Entering : %s", __func__);
  if (acl == nullptr || key == nullptr) {
    DBG_ERR("%s: Invalid arguments. handle = NULL", __func__);
    return 0;
  }
  const AclLock lock(acl);
  return es_acl_apis->match_complex_2(acl, key, value32, value64);
}

es_acl_status es_acl_resequence(es_acl_head* acl, uint32_t start_seq, uint32_t step, uint32_t num_skip_seqs,
                                const uint32_t* skip_seqs) {
  if (acl == nullptr) {
    DBG_ERR("%s: Invalid arguments", __func__);
    return EINVAL;
  }
  DBG_INFO("Entering : %s. name:%s, start_seq: %d,step:%d, num_skip_seqs:%d", __func__, shown(acl->name),
           static_cast<int>(start_seq), static_cast<int>(step), static_cast<int>(num_skip_seqs));
  const AclLock lock(acl);
  return es_acl_apis->resequence(acl, start_seq, step, num_skip_seqs, skip_seqs);
}

uint32_t es_acl_compare_ace(const es_acl_ace* ace, const es_acl_ace* rules) {
  DBG_INFO("Entering : %s", __func__);
  if (ace == nullptr || rules == nullptr) {
    DBG_ERR("%s: Invalid arguments. ACE or rules doesn't exist", __func__);
    return 0;
  }
  if (equal(*ace, *rules)) return 1;
  DBG_INFO("%s: rule structure doesn't match.", __func__);
  return 0;
}

void es_acl_set_modify_mode(uint32_t mode) {
  es_acl_modify_mode.store(mode, std::memory_order_relaxed);
  DBG_DETAIL("%s: modify_mode = %s", __func__, modify_mode_text(mode));
}

uint32_t es_acl_get_modify_mode() {
  const uint32_t mode = es_acl_modify_mode.load(std::memory_order_relaxed);
  DBG_INFO("%s: modify_mode = %s", __func__, modify_mode_text(mode));
  return mode;
}
