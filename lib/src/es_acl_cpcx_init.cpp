// Making the process a bus consumer: rules pool, name service, bus, and the class of ACL names.
//
// Runs once, early, on one thread. A failed call undoes nothing; the next one repeats every step.
#include <atomic>
#include <cerrno>
#include <cstring>

#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_wire.h"
#include "es_acl_diag.h"
#include "es_acl_digest_private.h"
#include "es_acl_retry.h"
#include "es_acl_state.h"
#include "es_acl_sync_private.h"
#include "es_platform/dsv.h"
#include "es_platform/pcx.h"

namespace es_acl {

uint32_t es_acl_dsv_class;

namespace {

std::atomic<uint32_t> es_acl_pcx_initialised;

constexpr uint32_t kAcesPerChunk = 100;
constexpr uint32_t kPoolFlags = 0x101;

// Main counters: a step begun or done. Error counters: a step failed.
constexpr uint64_t kCountDsvInit = 5;
constexpr uint64_t kCountDsvDone = 10;
constexpr uint64_t kCountPcxDone = 7;
constexpr uint64_t kErrorDsvInit = 6;
constexpr uint64_t kErrorPcxInit = 10;
constexpr uint64_t kErrorClass = 8;

uint32_t init_dsv(const char* operation, void* ctx) {
  count_main(kCountDsvInit);
  const uint32_t rc = dsv_init(ctx, 1);
  if (rc == 0) {
    count_main(kCountDsvDone);
    return 0;
  }
  DBG_ERR("%s: dsv_init() failed: %s", operation, errcode_string(rc));
  trace(operation, "dsv_init failed", rc);
  count_error(kErrorDsvInit);
  return rc;
}

uint32_t init_pcx(const char* operation, void* ctx) {
  const uint32_t rc = pcx_lr_init(ctx);
  if (rc == 0 || rc == EEXIST) {
    count_main(kCountPcxDone);
    return 0;
  }
  DBG_ERR("%s: pcx_lr_init failed", operation);
  trace(operation, "pcx_lr_init failed", rc);
  count_error(kErrorPcxInit);
  return rc;
}

uint32_t create_class(const char* operation, uint32_t* class_handle) {
  const uint32_t rc =
      with_retries(is_transient, [&] { return dsv_create_class(ES_ACL_DSV_CLASS_NAME, 0, 1, class_handle); });
  if (rc == 0) return 0;
  DBG_ERR("%s: dsv_create_class failed : %s", operation, errcode_string(rc));
  trace(operation, "dsv_create_class failed", rc);
  count_error(kErrorClass);
  return rc;
}

uint32_t bind_class(const char* operation, void* ctx, uint32_t class_handle) {
  pcx_context_record record;
  std::memset(&record, 0, sizeof record);
  record.evm_ctx = ctx;
  record.class_handle = class_handle;
  record.one = 1;
  const uint32_t rc = pcx_set_context(&record);
  if (rc == 0) return 0;
  DBG_ERR("%s: Failed to set PCX context for class %#x, %#x:%s.", operation, class_handle, rc,
          errcode_string(rc));
  _rlog_2(es_acl_rlog_u_ctx, operation, "pcx_set_context failed", class_handle, rc);
  return rc;
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

static_assert(sizeof(pcx_context_record) == 32 && offsetof(pcx_context_record, evm_ctx) == 8 &&
              offsetof(pcx_context_record, class_handle) == 16 && offsetof(pcx_context_record, one) == 24);

es_acl_status es_acl_pcx_consumer_init(void* ctx, uint32_t* class_handle, uint32_t) {
  DBG_INFO("Entering %s", __func__);
  if (es_acl_pcx_initialised.load(std::memory_order_relaxed) != 0) return 0;
  es_acl_rules_pool = pool_create("ES ACL RULES CHUNK", sizeof(es_acl_ace), kAcesPerChunk, kPoolFlags, 0, 0);
  if (es_acl_rules_pool == nullptr) {
    DBG_ERR("Failed to create the rules chunk pool");
    return ENOMEM;
  }
  uint32_t rc = init_dsv(__func__, ctx);
  if (rc == 0) rc = init_pcx(__func__, ctx);
  if (rc == 0) rc = create_class(__func__, class_handle);
  if (rc == 0) rc = bind_class(__func__, ctx, *class_handle);
  if (rc != 0) return rc;
  pcx_set_link_handler(*class_handle, sync_link_changed);
  pcx_set_inquiry_handler(*class_handle, answer_inquiry);
  es_acl_dsv_class = *class_handle;
  es_acl_pcx_initialised.store(1, std::memory_order_relaxed);
  return 0;
}
