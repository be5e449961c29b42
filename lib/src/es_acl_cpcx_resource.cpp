// Held resource questions: what the producer plans, kept until it asks for the answer or withdraws the question.
//
// Runs on the delivery thread, as everything that touches the queue. The callbacks run with no lock held.
#include <cerrno>
#include <cstdlib>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_cb_batch.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"

namespace es_acl {

linked_queue es_acl_held_res_queries;

namespace {

constexpr char kVerify[] = "es_acl_cpcx_verify_resource_availability";

HeldQuery* next_held(HeldQuery* after) {
  return static_cast<HeldQuery*>(queue_next(&es_acl_held_res_queries, after));
}

void drop(HeldQuery* held) {
  queue_unlink(&es_acl_held_res_queries, held);
  std::free(held);
}

// The question with the request's key, the last of several. Older questions of the same origin are dropped on the way.
HeldQuery* find_held(const es_acl_pcx_res_query_req& request) {
  HeldQuery* found = nullptr;
  for (HeldQuery *held = next_held(nullptr), *next; held != nullptr; held = next) {
    next = next_held(held);
    if (held->request.req_origin != request.req_origin) continue;
    if (held->request.req_num == request.req_num)
      found = held;
    else
      drop(held);
  }
  return found;
}

es_acl_status not_held(uint32_t cancel) {
  DBG_ERR("%s: req held was not there cancel_request %u", kVerify, cancel);
  if (cancel != 0) return 0;
  trace(kVerify, "no such question", EINVAL);
  DBG_ERR("%s: req held was not there, something is wrong", kVerify);
  return EINVAL;
}

// Puts a candidate into the batch, unless it is stored already and needs nothing new.
uint32_t collect(es_acl_head* acl, es_acl_ace& candidate, EditBatch& batch) {
  es_acl_ace* const stored = es_acl_search_item(acl, candidate.seq);
  if (stored == nullptr) {
    DBG_DETAIL("%s: Update_ace not found: seq: %d", kVerify, static_cast<int>(candidate.seq));
  } else {
    DBG_DETAIL("%s: Update_ace found: seq: %d", kVerify, static_cast<int>(stored->seq));
    if (es_acl_compare_ace(stored, &candidate) != 0) {
      DBG_DETAIL("%s: Compare passed", kVerify);
      return 0;
    }
  }
  if (batch.add(&candidate, stored)) return 0;
  DBG_ERR("%s: Memory cannot be allocated for ace. acl:%s", kVerify, acl->name);
  return ENOMEM;
}

uint32_t ask(es_acl_head* acl, EditBatch& batch, uint32_t cancel) {
  DBG_DETAIL("%s: About to invoke res_check_cbfor acl:%s. curr_batch_size: %d", kVerify, acl->name,
             static_cast<int>(batch.size()));
  if (batch.size() == 0) return 0;
  const uint32_t rc =
      es_acl_invoke_res_check_callback(acl, batch.size(), batch.data(), static_cast<int32_t>(cancel));
  if (rc != 0 && cancel == 0) DBG_ERR("%s: res_chk_cb failed: %s", kVerify, errcode_string(rc));
  return rc;
}

// Asks the callbacks about a held question's candidates. *drop_it: the question is done with.
uint32_t check(es_acl_head* acl, HeldQuery* held, uint32_t cancel, bool* drop_it) {
  EditBatch batch(held->request.num_aces);
  if (!batch.exists()) {
    trace(kVerify, "no memory for a batch", held->request.num_aces);
    DBG_ERR("%s: memory alloc for ace_edit_info failed", kVerify);
    return ENOMEM;
  }
  batch.begin_additions();
  for (uint32_t i = 0; i < held->request.num_aces; ++i) {
    if (const uint32_t rc = collect(acl, held->candidates()[i].ace, batch); rc != 0) {
      *drop_it = false;
      return rc;
    }
  }
  const uint32_t rc = ask(acl, batch, cancel);
  if (rc != 0) *drop_it = true;
  return rc;
}

}  // namespace

es_acl_status es_acl_cpcx_verify_resource_availability(const es_acl_pcx_res_query_req* request,
                                                       uint32_t cancel) {
  DBG_INFO("Entering %s", kVerify);
  const AclUse use(request->acl_name);
  es_acl_head* const acl = es_acl_lookup(request->acl_name);
  if (acl == nullptr || use.leaving()) {
    DBG_ERR("%s: acl lookup for %s failed", kVerify, request->acl_name);
    return 0;
  }
  HeldQuery* const held = find_held(*request);
  if (held == nullptr) return not_held(cancel);
  if (cancel != 0 && request->res_state == 0) {
    drop(held);
    return 0;
  }
  bool drop_it = cancel != 0;
  const uint32_t rc = check(acl, held, cancel, &drop_it);
  if (drop_it) drop(held);
  return rc;
}

}  // namespace es_acl
