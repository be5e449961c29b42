// Calling the registered callbacks, in the order of their registration, until one decides.
//
// Runs on the thread that handles the bus's messages. No lock is held around a callback; a callback may register and
// unregister, of its own kind too.
#include <cerrno>

#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_cb_private.h"
#include "es_acl_diag.h"
#include "es_db_private.h"

namespace es_acl {
namespace {

constexpr char kNoRegistry[] = "no registry";

bool is_failure(uint32_t result) { return result != 0; }
bool is_yes(uint32_t answer) { return answer == 1; }

// Entry line and argument check of the two operations that show a batch. False: *status is the answer already.
bool may_show_batch(const char* operation, es_acl_head* acl, const list_registry* registry,
                    es_acl_status* status) {
  DBG_INFO("Entering : %s", operation);
  *status = 0;
  if (acl == nullptr) {
    DBG_ERR("%s: Invalid acl", operation);
    *status = EINVAL;
  }
  if (acl != nullptr && registry != nullptr) {
    begin_look(acl);
    return true;
  }
  trace(operation, acl == nullptr ? "invalid arguments" : kNoRegistry, EINVAL);
  return false;
}

es_acl_status batch_result(const char* operation, uint32_t result) {
  if (result == 0) return 0;
  DBG_ERR("%s: callback func failed %s", operation, errcode_string(result));
  trace(operation, "callback failed", result);
  return result;
}

}  // namespace

void trace_untold() { trace("es_acl_invoke_update_callback", kNoRegistry, EINVAL); }

}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_invoke_update_callback(es_acl_head* acl, uint32_t action, uint32_t n,
                                            const ace_edit_info* batch) {
  list_registry* const registry = es_acl_update_notify.get();
  es_acl_status status;
  if (!may_show_batch(__func__, acl, registry, &status)) return status;
  const char* const operation = __func__;
  status = walk<es_acl_update_cb>(registry, is_failure, [&](es_acl_update_cb function, void* context) {
    DBG_DETAIL("%s Invoking callback function for the acl %s batch %d action %s", operation, shown(acl->name),
               static_cast<int>(n), action == ACL_REMOVE_ACE ? "ACL_REMOVE_ACE" : "ACL_ADD_ACE");
    trace_name(operation, "calling", acl->name, action, n);
    return function(acl, action, n, batch, context);
  });
  return batch_result(operation, status);
}

es_acl_status es_acl_invoke_res_check_callback(es_acl_head* acl, uint32_t n, const ace_edit_info* batch,
                                               int32_t cancel) {
  list_registry* const registry = es_acl_res_check_notify.get();
  es_acl_status status;
  if (!may_show_batch(__func__, acl, registry, &status)) return status;
  const char* const operation = __func__;
  status = walk<es_acl_res_check_cb>(registry, is_failure, [&](es_acl_res_check_cb function, void* context) {
    trace_name(operation, "calling", acl->name, static_cast<uint64_t>(int64_t{cancel}), n);
    return function(acl, n, batch, cancel, context);
  });
  return batch_result(operation, status);
}

es_acl_status es_acl_invoke_resequence_callback(es_acl_head* acl, uint32_t start_seq, uint32_t step,
                                                uint32_t num_skip_seqs, const uint32_t* skip_seqs) {
  const char* const operation = __func__;
  list_registry* const registry = es_acl_reseq_notify.get();
  if (acl == nullptr || registry == nullptr) {
    DBG_ERR("%s: Error Invalid acl %p (or) es_acl_reseq_notify %p ", operation, static_cast<void*>(acl),
            static_cast<void*>(registry));
    trace(operation, "invalid arguments", EINVAL);
    return EINVAL;
  }
  DBG_INFO("Entering  %s acl %s start_seq %u step %u", operation, shown(acl->name), start_seq, step);
  const uint32_t first_skipped = num_skip_seqs != 0 && skip_seqs != nullptr ? skip_seqs[0] : 0;
  const uint32_t result =
      walk<es_acl_reseq_cb>(registry, is_failure, [&](es_acl_reseq_cb function, void* context) {
        _rlog_4(es_acl_rlog_w_ctx, operation, "calling", start_seq, step, num_skip_seqs, first_skipped);
        return function(acl, start_seq, step, num_skip_seqs, skip_seqs, context);
      });
  if (result == 0) return 0;
  DBG_ERR("%s: Acl %s Error returned from reseq callback: %s", operation, shown(acl->name),
          errcode_string(result));
  trace(operation, "callback failed", result);
  return result;
}

uint32_t es_acl_invoke_check_usage_callback() {
  const char* const operation = __func__;
  DBG_INFO("Entering : %s", operation);
  list_registry* const registry = es_acl_check_usage_notify.get();
  if (registry == nullptr) {
    trace(operation, kNoRegistry, 0);
    return 0;
  }
  const uint32_t answer =
      walk<es_acl_check_usage_cb>(registry, is_yes, [&](es_acl_check_usage_cb function, void*) {
        trace(operation, "calling");
        return function();
      });
  DBG_INFO("%s returning %s", operation, answer != 0 ? "TRUE" : "FALSE");
  return answer;
}
