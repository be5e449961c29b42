// Finding ACLs by name, copying and traversing them, and giving them back.
//
// The lookups and the release take no lock: the store guards its index, and getting and releasing the same
// ACL is serialised by the client. A teardown waits for callbacks of the ACL that run on other threads, and is left to
// their end when it comes from inside a callback. The traversal holds the ACL's lock from its first visit to its last.
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_cb_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"
#include "es_acl_sync_private.h"
#include "es_db_private.h"
#include "es_platform/list_registry.h"
#include "es_platform/pcx.h"

namespace es_acl {
namespace {

constexpr char kRelease[] = "es_acl_release";
constexpr uint64_t kCountRelease = 15;
constexpr uint64_t kCountLookup = 22;
constexpr uint64_t kCountUnregisterFailed = 12;  // error block

void destroy_registry(void*& registry) {
  if (registry == nullptr) return;
  list_registry_destroy(static_cast<list_registry*>(registry));
  registry = nullptr;
}

// Off the bus, then out of the store. A failed withdrawal does not keep the ACL.
void remove_acl(es_acl_head* head) {
  DBG_DETAIL("%s: Removing ACL ..refcount 0: %s", kRelease, shown(head->name));
  const uint32_t rc = pcx_unregister(head->reg_handle);
  if (rc != 0) {
    DBG_ERR("%s: pcx_unregister failed %s", kRelease, errcode_string(rc));
    trace(kRelease, "pcx_unregister failed", rc);
    count_error(kCountUnregisterFailed);
  }
  es_acl_db_owner_release(head);
}

void release_one(es_acl_head* head) {
  if (head == nullptr) return;
  DBG_DETAIL("%s: Releasing ACL %s", kRelease, shown(head->name));
  if (drop_reference(head) != 0) return;
  const AclTeardown teardown(head, remove_acl);
  if (teardown.granted()) remove_acl(head);
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

es_acl_head* es_acl_get_header(const char* name) {
  DBG_INFO("Entering %s: name = %s", __func__, shown(name));
  if (name == nullptr) {
    DBG_ERR("%s: Invalid argument", __func__);
    trace(__func__, "null name", EINVAL);
    return nullptr;
  }
  return es_acl_apis->get_header(name);
}

es_acl_head* es_acl_lookup_internal(const char* name) {
  DBG_INFO("Entering %s: name = %s", __func__, shown(name));
  return es_acl_apis->acl_lookup(name);
}

es_acl_head* es_acl_lookup(const char* name) {
  DBG_INFO("Entering %s: name = %s", __func__, shown(name));
  count_main(kCountLookup);
  return es_acl_lookup_internal(name);
}

es_acl_status es_acl_lookup_read(const char* name, es_acl_head* out) {
  DBG_INFO("Entering %s: ACL %s", __func__, shown(name));
  const es_acl_head* head = es_acl_apis->acl_lookup(name);
  if (head == nullptr) return ENOENT;
  if (out == nullptr) return EINVAL;
  std::memcpy(out, head, sizeof *out);
  out->store_word[1] = nullptr;
  out->ace_first = nullptr;
  out->ace_list_aux = nullptr;
  out->cb_registry_a = nullptr;
  out->cb_registry_b = nullptr;
  out->cb_timer_leaf = nullptr;
  return 0;
}

es_acl_status es_acl_traverse_list(const char* name, uint32_t flags, es_acl_visitor visitor, ...) {
  DBG_INFO("Entering %s: ACL %s", __func__, shown(name));
  if (name == nullptr || flags != 0 || visitor == nullptr) {
    DBG_ERR("%s: Invalid args.", __func__);
    return ES_ACL_E_INVALID;
  }
  es_acl_head* head = es_acl_lookup_internal(name);
  if (head == nullptr) return ES_ACL_E_NOT_FOUND;
  const AclLock lock(head);
  va_list args;
  va_start(args, visitor);
  es_acl_apis->traverse_list(head, visitor, &args);
  va_end(args);
  return 0;
}

void* es_acl_get_db_pointer(void* a, void* b, void* c, void* d, void* e, void* f) {
  return es_acl_apis->get_db_pointer(a, b, c, d, e, f);
}

void es_acl_freelist(es_acl_head* head, uint32_t* out) {
  DBG_INFO("Entering : %s", __func__);
  if (head != nullptr) es_acl_apis->freelist(head, out);
}

void es_acl_release(const es_acl_handle_list* list) {
  DBG_INFO("Entering : %s", __func__);
  count_main(kCountRelease);
  if (list == nullptr) {
    DBG_ERR("%s: Invalid acl batch handles", __func__);
    trace(__func__, "null list", EINVAL);
    return;
  }
  if (list->entries == nullptr) {
    DBG_ERR("%s: No es_acl_handle to process", __func__);
    trace(__func__, "null handles", EINVAL);
    return;
  }
  trace(__func__, "releasing", list->count);
  for (uint32_t i = 0; i < list->count; ++i) release_one(static_cast<es_acl_head*>(list->entries[i]));
}

void es_acl_db_owner_release(es_acl_head* head) {
  DBG_INFO("Entering : %s", __func__);
  if (head == nullptr) {
    trace(__func__, "null handle", EINVAL);
    DBG_ERR("%s: Invalid arguments. handle = NULL", __func__);
    return;
  }
  const AclTeardown teardown(head, es_acl_db_owner_release);
  if (!teardown.granted()) return;
  sync_leave(head->name);
  free_callback_timer(__func__, head);
  drop_notify_entries(head);
  destroy_registry(head->cb_registry_a);
  destroy_registry(head->cb_registry_b);
  es_acl_apis->acl_release(head->name);
}
