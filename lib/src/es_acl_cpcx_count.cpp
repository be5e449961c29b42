// How many ACEs has an ACL? Asked of the producer for one name.
//
// Runs on the calling client's thread and takes no lock. Each query uses the bus address that its own lookup
// returned; es_acl_global_handle only publishes it.
#include <cerrno>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_wire.h"
#include "es_acl_buffer.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_diag.h"
#include "es_acl_retry.h"
#include "es_acl_state.h"
#include "es_db_private.h"
#include "es_platform/dsv.h"
#include "es_platform/pcx.h"

namespace es_acl {
namespace {

constexpr uint32_t kAnswerSize = sizeof(acl_pcx_query_resp);

// The producer's address for the name. *found is false, with status 0, when nobody registered it.
uint32_t find_address(const char* operation, const char* acl_name, void** address, bool* found) {
  const uint32_t rc = dsv_lookup_data(es_acl_dsv_class, acl_name, address);
  *found = rc == 0;
  if (rc == 0) {
    publish_address(*address);
    return 0;
  }
  if (rc == DSV_NO_DATA) {
    DBG_ERR("%s: dsv_lookup_data data not found for acl %s", operation, acl_name);
    trace_name(operation, "name not registered", acl_name, rc);
    return 0;
  }
  DBG_ERR("%s: dsv_lookup_data acl_name %s failed %s", operation, acl_name, errcode_string(rc));
  trace_name(operation, "dsv_lookup_data failed", acl_name, rc);
  return rc;
}

uint32_t ask(const char* operation, void* address, const char* acl_name, acl_pcx_query_resp* answer,
             uint32_t* answer_length) {
  acl_pcx_query_req request = {};
  request.cmd = ACL_PCX_QUERY_ACE_COUNT;
  request.ver = ES_ACL_PCX_VERSION;
  es_acl_wire_set_name(request.acl_name, acl_name);
  es_acl_wire_query_req_order(&request);
  const uint32_t rc = with_retries(is_bus_passing, [&] {
    *answer_length = kAnswerSize;
    return pcx_read(address, &request, sizeof request, answer, answer_length);
  });
  if (rc == 0) return 0;
  DBG_ERR("%s: pcx_read failed for initial query rc 0x%x: %s", operation, rc, errcode_string(rc));
  trace_name(operation, "pcx_read failed", acl_name, rc);
  return rc;
}

uint32_t refuse_length(const char* operation, uint32_t answer_length) {
  DBG_ERR("%s: answer of %u bytes is not a count", operation, answer_length);
  trace(operation, "answer of a wrong length", answer_length);
  return EINVAL;
}

// Looks at no byte that was not received. An answer that carries a version is judged by it before its size:
// another version may well have another size.
uint32_t check_answer(const char* operation, acl_pcx_query_resp* answer, uint32_t answer_length) {
  if (answer_length < sizeof answer->ver || answer_length > kAnswerSize)
    return refuse_length(operation, answer_length);
  const uint32_t version = es_acl_wire_32(answer->ver);
  if (version != ES_ACL_PCX_VERSION) {
    DBG_ERR("%s:acl_pcx_query_req ver: crnt %d, rcv %d", operation, ES_ACL_PCX_VERSION,
            static_cast<int>(version));
    return ES_ACL_E_ANSWER_VERSION;
  }
  if (answer_length != kAnswerSize) return refuse_length(operation, answer_length);
  es_acl_wire_query_resp_order(answer);
  return 0;
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_cpcx_query_acl_count(const char* acl_name, uint32_t* num_aces,
                                          uint32_t* num_remark_aces) {
  DBG_INFO("Entering %s for %s", __func__, shown(acl_name));
  if (acl_name == nullptr || num_aces == nullptr || num_remark_aces == nullptr) {
    DBG_ERR("%s: Invalid parameters aclname %s", __func__, shown(acl_name));
    return EINVAL;
  }
  *num_aces = 0;
  es_acl_head* held = es_acl_lookup_internal(acl_name);
  if (held != nullptr) *num_aces = ace_count(held);
  if (*num_aces != 0) return 0;

  void* address = nullptr;
  bool found = false;
  uint32_t rc = find_address(__func__, acl_name, &address, &found);
  if (!found) return rc;
  const Buffer<acl_pcx_query_resp> answer = zeroed<acl_pcx_query_resp>(1);
  if (answer == nullptr) {
    DBG_ERR("%s: Memory allocation failed", __func__);
    return ENOMEM;
  }
  DBG_DETAIL("%s: need to get acl count", __func__);
  uint32_t answer_length = 0;
  rc = ask(__func__, address, acl_name, answer.get(), &answer_length);
  if (rc == 0) rc = check_answer(__func__, answer.get(), answer_length);
  if (rc != 0) return rc;
  *num_aces = answer[0].num_aces;
  *num_remark_aces = answer[0].num_remark_aces;
  return 0;
}
