// Getting ACLs by name: shared when this process holds them already, else created, registered and filled.
//
// Runs on the client's thread and blocks for the exchanges with the producer. Each name stands for itself:
// one that fails leaves a null handle and its status, and the next one is tried.
#include <algorithm>
#include <cerrno>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_cb_private.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"
#include "es_acl_get_private.h"
#include "es_acl_retry.h"
#include "es_acl_state.h"
#include "es_acl_sync_private.h"
#include "es_db_private.h"
#include "es_platform/dsv.h"
#include "es_platform/pcx.h"

namespace es_acl {
namespace {

constexpr char kGet[] = "es_acl_getlist_acl";

Outcome failed(uint32_t status) { return {nullptr, status, true}; }

uint32_t register_name(const char* name, es_acl_head* head) {
  return with_retries(is_transient,
                      [&] { return dsv_register(es_acl_classhandle, name, &head->reg_handle); });
}

// A read that has met a change of connection may be of two lists, and what was pushed behind it may be missing: it is
// made good before anybody gets the ACL. Without a producer to do so the ACL is handed out, out of touch.
uint32_t make_whole(es_acl_head* head, AclFill& fill, uint64_t* generation) {
  constexpr int kAttempts = 3;
  uint32_t rc = 0;
  for (int i = 0; rc == EAGAIN || pcx_generation(es_acl_dsv_class) != *generation; ++i) {
    if (i == kAttempts) return EAGAIN;
    const CatchUp result = catch_up(head, Form::whole, &fill);
    rc = result.status;
    *generation = rc == ESRCH ? 0 : result.generation;
    if (rc == ESRCH) return 0;
    if (rc != 0 && rc != EAGAIN) return rc;
  }
  return 0;
}

uint32_t end_fill(es_acl_head* head, AclFill& fill, uint64_t generation) {
  uint32_t rc = sync_enter(head, Form::whole, generation);
  if (rc == 0) rc = fill.finish(apply_kept_message);
  if (rc == 0) sync_filled(head, generation, fill.link_changed(), fill.link_lost());
  return rc;
}

// Registers a new head and fills it; what is pushed meanwhile is applied behind the fill. On failure the head is gone,
// and so is its registration.
uint32_t attach(const char* name, es_acl_head* head, AclFill& fill) {
  uint32_t rc = register_name(name, head);
  if (rc != 0) {
    DBG_ERR("%s: DSV register failed: %s", kGet, errcode_string(rc));
    trace_name(kGet, "dsv_register failed", name, rc);
    discard_new_head(head);
    return rc;
  }
  rc = pcx_register(head->reg_handle, 0, 0, es_acl_cpcx_handler);
  if (rc != 0) {
    DBG_ERR("%s: PCX register failed: %s", kGet, errcode_string(rc));
    trace_name(kGet, "pcx_register failed", name, rc);
    discard_new_head(head);
    return rc;
  }
  void* const reg_handle = head->reg_handle;
  bool head_released = false, has_read = false;
  uint64_t generation = pcx_generation(es_acl_dsv_class);
  rc = read_acl(head, &head_released, &has_read);
  if (!has_read) generation = 0;
  if (rc == 0) rc = make_whole(head, fill, &generation);
  if (rc == 0) rc = end_fill(head, fill, generation);
  if (rc == 0) return 0;
  DBG_ERR("%s: PCX read failed: %s", kGet, errcode_string(rc));
  trace_name(kGet, "read failed", name, rc);
  if (head_released)
    pcx_unregister(reg_handle);
  else
    discard_new_head(head);
  return rc;
}

Outcome create(const char* name) {
  DBG_DETAIL("%s: Creating new ACL head type", kGet);
  AclFill fill(name);
  es_acl_head* head = create_head(kGet, name);
  if (head == nullptr) return failed(ENOMEM);
  const uint32_t rc = attach(name, head, fill);
  return rc == 0 ? Outcome{head, 0, true} : failed(rc);
}

// The count check. True when the name is done with; *outcome then says how.
bool rejected_by_count(const char* name, Outcome* outcome) {
  uint32_t num_aces = 0;
  uint32_t num_remark_aces = 0;
  const uint32_t rc = es_acl_cpcx_query_acl_count(name, &num_aces, &num_remark_aces);
  if (rc != 0) {
    DBG_ERR("%s: es_acl_query_acl_type failed %s", kGet, errcode_string(rc));
    trace_name(kGet, "count query failed", name, rc);
    *outcome = failed(rc);
    return true;
  }
  if (num_aces != 0) return false;
  DBG_ERR("%s: ACL is not configured yet", kGet);
  outcome->has_result = false;
  return true;
}

Outcome get_one(const char* name, uint32_t check_count) {
  const uint32_t rc = es_acl_check_acl_name(name);
  if (rc != 0) {
    DBG_ERR("%s: acl name %s is invalid: %s", kGet, shown(name), errcode_string(rc));
    trace_name(kGet, "invalid name", name, rc);
    return failed(rc);
  }
  Outcome outcome;
  if (check_count != 0 && rejected_by_count(name, &outcome)) return outcome;
  return share(kGet, name, &outcome) ? outcome : create(name);
}

}  // namespace

bool share(const char* operation, const char* name, Outcome* outcome) {
  AclArrival arrival(name);
  es_acl_head* const head = es_acl_lookup_internal(name);
  if (head == nullptr) return false;
  if (arrival.leaving()) {
    DBG_ERR("%s: acl %s is just being released on another thread", operation, name);
    trace_name(operation, "being released", name, EAGAIN);
    *outcome = failed(EAGAIN);
    return true;
  }
  arrival.keep();
  const int32_t holders = add_reference(head);
  trace_name(operation, "shared", name, static_cast<uint32_t>(holders));
  *outcome = {head, 0, true};
  return true;
}

es_acl_head* create_head(const char* operation, const char* name) {
  es_acl_head* const head = es_acl_apis->get_header(name);
  if (head == nullptr) {
    DBG_ERR("%s: acl %s get_header failed", operation, name);
    trace_name(operation, "get_header failed", name, ENOMEM);
    return nullptr;
  }
  head->created_by_get = 1;
  head->evm_ctx = es_acl_lib_ctx;
  return head;
}

// A push or a question may just be looking at the head, and a callback for a kept change may have asked for notices.
// Inside a callback for the same ACL it is left to that callback's end, when the fill has ended before.
void discard_new_head(es_acl_head* head) {
  const AclTeardown teardown(head, discard_new_head);
  if (!teardown.granted()) return;
  if (head->reg_handle != nullptr) pcx_unregister(head->reg_handle);
  free_callback_timer(kGet, head);
  drop_notify_entries(head);
  sync_leave(head->name);
  es_acl_freelist(head, nullptr);
}

}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_getlist_acl(const es_acl_handle_list* names, es_acl_handle_list* handles,
                                 uint32_t* results, uint32_t check_count) {
  DBG_INFO("Entering %s: number of handles: %d", __func__, static_cast<int>(names->count));
  trace(__func__, "get", names->count, check_count);
  handles->count = names->count;
  std::fill_n(handles->entries, names->count, nullptr);
  uint32_t status = 0;
  for (uint32_t i = 0; i < names->count; ++i) {
    const Outcome outcome = get_one(static_cast<const char*>(names->entries[i]), check_count);
    handles->entries[i] = outcome.head;
    if (outcome.has_result && results != nullptr) results[i] = outcome.status;
    status = outcome.status;
  }
  return status;
}

es_acl_status es_acl_get_acl(const es_acl_handle_list* names, es_acl_handle_list* handles,
                             uint32_t* results) {
  DBG_INFO("Entering %s", __func__);
  if (names == nullptr || handles == nullptr) {
    DBG_ERR("%s: Invalid arguments", __func__);
    return EINVAL;
  }
  return es_acl_getlist_acl(names, handles, results, 0);
}

es_acl_status es_acl_get_ace_count(const char* name, uint32_t* num_aces, uint32_t* num_remark_aces) {
  DBG_INFO("Entering %s: acl name: %s", __func__, shown(name));
  if (name == nullptr) {
    DBG_ERR("%s: Name cannot be null", __func__);
    trace(__func__, "null name", EINVAL);
    return EINVAL;
  }
  const uint32_t rc = es_acl_cpcx_query_acl_count(name, num_aces, num_remark_aces);
  if (rc != 0) {
    DBG_ERR("%s: es_acl_cpcx_query_acl_count fail%d(%s)", __func__, static_cast<int>(rc), errcode_string(rc));
    _rlog_str(es_acl_rlog_u_ctx, __func__, "count query failed", name, rc, 0);
    return rc;
  }
  DBG_DETAIL("%s: Ace count = %d remarks = %d", __func__, static_cast<int>(*num_aces),
             static_cast<int>(*num_remark_aces));
  return 0;
}
