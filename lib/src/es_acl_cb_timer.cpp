// The timer behind the deferred notifications: one tree for the process, one leaf for each ACL that has ever had
// somebody to notify.
//
// A leaf is made under its ACL's lock and armed without one, on the delivery thread. When it expires, the event
// manager's thread stops it and notifies; a change that comes meanwhile arms it again.
#include <cerrno>
#include <mutex>

#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_cb_private.h"
#include "es_acl_diag.h"
#include "es_platform/evm.h"
#include "es_platform/mtimer.h"

void* es_acl_cb_timer_tree;

namespace es_acl {
namespace {

constexpr uint16_t ES_ACL_LIB_CALLBACK_TIMER = 0;
constexpr char kSetup[] = "es_acl_setup_callback_timer";

mtimer_tree* timer_tree() {
  return static_cast<mtimer_tree*>(
      std::atomic_ref<void*>(es_acl_cb_timer_tree).load(std::memory_order_acquire));
}

mtimer_leaf* timer_leaf(es_acl_head* acl) {
  return static_cast<mtimer_leaf*>(
      std::atomic_ref<void*>(acl->cb_timer_leaf).load(std::memory_order_acquire));
}

// Handles as the debug lines show them.
unsigned low_word(const void* handle) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(handle)); }

uint32_t last_error() { return static_cast<uint32_t>(errno); }

void detach(evm* manager, int code) { evm_async_attach(manager, code, nullptr, nullptr); }

// Makes the tree that reports to an event of its own on the event manager.
es_acl_status create_tree(evm* manager) {
  DBG_DETAIL("%s: No timer tree, create one", kSetup);
  const int code = evm_async_attach(manager, EVM_CODE_ANY, es_acl_cb_process_timer, nullptr);
  if (code == -1) {
    const uint32_t status = last_error();
    DBG_ERR("%s: event async attach error %d", kSetup, static_cast<int>(status));
    return status;
  }
  evm_sigevent event = {};
  if (evm_init_sigevent(manager, code, 0, 0, &event) != 0) {
    const uint32_t status = last_error();
    detach(manager, code);
    return status;
  }
  mtimer_tree* const tree = mtimer_tree_new(&event, 0);
  if (tree == nullptr) {
    const uint32_t status = last_error();
    detach(manager, code);
    trace(kSetup, "no memory for the timer tree", status);
    return status;
  }
  std::atomic_ref<void*>(es_acl_cb_timer_tree).store(tree, std::memory_order_release);
  DBG_DETAIL("%s: Timer tree created", kSetup);
  return 0;
}

// First registrations of different ACLs may come at the same time.
es_acl_status need_tree(evm* manager) {
  static constinit std::mutex creation;
  const std::lock_guard lock(creation);
  return timer_tree() != nullptr ? 0 : create_tree(manager);
}

}  // namespace

es_acl_status es_acl_setup_callback_timer(es_acl_head* acl) {
  DBG_INFO("Entering %s for acl %s Timer tree is 0x%x", kSetup, shown(acl->name), low_word(timer_tree()));
  const es_acl_status status = need_tree(static_cast<evm*>(acl->evm_ctx));
  mtimer_tree* const tree = timer_tree();
  if (tree == nullptr || timer_leaf(acl) != nullptr) return status;
  mtimer_leaf* const leaf = mtimer_leaf_new(tree, ES_ACL_LIB_CALLBACK_TIMER, 0, acl);
  if (leaf == nullptr) {
    const uint32_t error = last_error();
    DBG_ERR("%s: Null timer leaf", kSetup);
    return error;
  }
  DBG_DETAIL("%s: create ES_ACL_LIB_CALLBACK_TIMER leaf 0x%x for %s", kSetup, low_word(leaf),
             shown(acl->name));
  std::atomic_ref<void*>(acl->cb_timer_leaf).store(leaf, std::memory_order_release);
  return 0;
}

void free_callback_timer(const char* operation, es_acl_head* acl) {
  mtimer_leaf* const leaf = timer_leaf(acl);
  if (leaf == nullptr) return;
  DBG_DETAIL("%s: Freeing timer for acl %s", operation, shown(acl->name));
  mtimer_leaf_free(leaf);
}

}  // namespace es_acl

using namespace es_acl;

void es_acl_start_cb_timer(es_acl_head* acl) {
  if (acl == nullptr) return;
  DBG_INFO("Entering %s for acl %s", __func__, shown(acl->name));
  if (std::atomic_ref<void*>(acl->cb_list.first).load(std::memory_order_acquire) == nullptr) {
    DBG_DETAIL("%s Fwd_agent should just return from here", __func__);
    return;
  }
  mtimer_leaf* const leaf = timer_leaf(acl);
  if (acl->evm_ctx == nullptr || leaf == nullptr) return;
  DBG_DETAIL("%s: Staring the timer", __func__);
  mtimer_leaf_start(leaf, timer_one_second());
}

void es_acl_cb_process_timer(int, void*) {
  DBG_INFO("Entering %s", __func__);
  mtimer_tree* const tree = timer_tree();
  while (tree != nullptr && mtimer_tree_expired(tree) != 0) {
    mtimer_leaf* const leaf = mtimer_tree_first_expired(tree);
    if (leaf == nullptr) {
      DBG_ERR("%s: NULL leaf on timer expiry", __func__);
      return;
    }
    if (mtimer_leaf_get_type(leaf) != ES_ACL_LIB_CALLBACK_TIMER) {
      DBG_ERR("%s: Unkonwn timer, ignore", __func__);
      mtimer_leaf_stop(leaf);
      continue;
    }
    auto* const acl = static_cast<es_acl_head*>(mtimer_leaf_get_context(leaf));
    if (acl == nullptr) {
      DBG_ERR("%s: NULL ACL on timer leaf", __func__);
      return;
    }
    DBG_DETAIL("%s: ACL on timer leaf is %s", __func__, shown(acl->name));
    mtimer_leaf_stop(leaf);
    es_acl_invoke_list(acl);
  }
}
