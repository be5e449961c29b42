// What every operation of the library says about itself: debug lines, trace records, statistics counters.
//
// All three are cheap when nobody looks: a debug line whose category is off costs a load and a branch and
// evaluates none of its arguments; a trace record takes no lock; a counter is one atomic increment. Any
// thread.
#ifndef ES_ACL_SRC_DIAG_H_
#define ES_ACL_SRC_DIAG_H_

#include <atomic>
#include <cstdint>

#include "es_acl/es_acl.h"
#include "es_platform/diag.h"
#include "es_platform/process.h"

namespace es_acl {

// The categories that the library prints in, of the six that it registers.
enum DebugCategory : uint32_t { ES_ACL_DBG_ERR = 0, ES_ACL_DBG_INFO = 1, ES_ACL_DBG_DETAIL = 2 };

// The category's block when its lines are to be printed, else null.
inline const debug_category* debug_enabled(DebugCategory category) {
  const debug_category* handle = es_acl_dll_event_type;
  if (reinterpret_cast<uintptr_t>(handle) < DEBUG_HANDLE_MIN) return nullptr;
  return handle[category].enabled != 0 ? &handle[category] : nullptr;
}

// A string argument as it is shown: a null one too.
inline const char* shown(const char* text) { return text != nullptr ? text : "(null)"; }

// Records in the wrapping trace buffer.
inline void trace(const char* operation, const char* event, uint64_t a = 0) {
  _rlog_1(es_acl_rlog_w_ctx, operation, event, a);
}
inline void trace(const char* operation, const char* event, uint64_t a, uint64_t b) {
  _rlog_2(es_acl_rlog_w_ctx, operation, event, a, b);
}
inline void trace_name(const char* operation, const char* event, const char* name, uint64_t a = 0,
                       uint64_t b = 0) {
  _rlog_str(es_acl_rlog_w_ctx, operation, event, name, a, b);
}

// Adds 1 to a counter of a reporting-channel block. Nothing is counted without a block, or past its end.
inline void count(acl_client_relay_entry* block, uint64_t slot) {
  if (block == nullptr || slot >= ACL_CLIENT_RELAY_ENTRIES) return;
  std::atomic_ref<uint32_t>(block[slot].count).fetch_add(1, std::memory_order_relaxed);
}
inline void count_main(uint64_t slot) { count(acl_client_relay_hdl, slot); }
inline void count_error(uint64_t slot) { count(acl_client_err_relay_hdl, slot); }

}  // namespace es_acl

// Prints one debug line. A macro, so that an unprinted line's arguments are not evaluated.
#define ES_ACL_DEBUG(category, ...)                                                          \
  do {                                                                                       \
    if (const debug_category* es_acl_enabled_ = ::es_acl::debug_enabled(::es_acl::category)) \
      debug_printf(es_acl_enabled_, 0, 1, __VA_ARGS__);                                      \
  } while (0)
#define DBG_ERR(...) ES_ACL_DEBUG(ES_ACL_DBG_ERR, __VA_ARGS__)
#define DBG_INFO(...) ES_ACL_DEBUG(ES_ACL_DBG_INFO, __VA_ARGS__)
#define DBG_DETAIL(...) ES_ACL_DEBUG(ES_ACL_DBG_DETAIL, __VA_ARGS__)

#endif  // ES_ACL_SRC_DIAG_H_
