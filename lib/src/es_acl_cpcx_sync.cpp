// Answering the producer's synchronous requests: does this process use the ACL, has it the resources.
//
// Runs on the delivery thread. An answer is handed to the bus, which frees it; a request that is refused gets none.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_wire.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"
#include "es_platform/process.h"

namespace es_acl {
namespace {

// Where the bus takes the answer.
struct Reply {
  void** response;
  uint32_t* length;

  void send(acl_pcx_cons_resp* record) const {
    es_acl_wire_cons_resp_order(record);
    *response = record;
    *length = sizeof *record;
  }
};

acl_pcx_cons_resp* new_response() {
  auto* const record = static_cast<acl_pcx_cons_resp*>(std::calloc(1, sizeof(acl_pcx_cons_resp)));
  if (record != nullptr) record->ver = ACL_PCX_CONS_RESP_VERSION;
  return record;
}

void fill_process_data(acl_pcx_cons_resp* record, const char* acl_name) {
  record->pid = getpid();
  if (proc_name_get(record->pid, record->proc_name, sizeof record->proc_name - 1) != 0) {
    std::strncpy(record->proc_name, "Unknown", sizeof record->proc_name);
    record->proc_name[sizeof record->proc_name - 1] = '\0';
  }
  const uint32_t rc = node_name_get(record->node_name, sizeof record->node_name);
  if (rc != 0) DBG_ERR("%s:platform_get_node_name %s:%s", kHandler, acl_name, errcode_string(rc));
}

void print_entry(uint32_t query) {
  if (query == ACL_PCX_QUERY_RES_AVAIL)
    DBG_DETAIL("%s: ACL_PCX_QUERY_RES_AVAIL sync req", kHandler);
  else
    DBG_DETAIL("%s: ACL_PCX_CANCEL_RES_AVIAL_QUERY sync req", kHandler);
}

void print_no_memory(uint32_t query) {
  if (query == ACL_PCX_QUERY_RES_AVAIL)
    DBG_ERR("%s: Memory allocation failed for response", kHandler);
  else
    DBG_ERR("%s: Memory allocation failed for responnse", kHandler);
}

uint32_t check_resources(uint32_t query, const es_acl_pcx_res_query_req* request) {
  if (es_acl_res_check_required() == 0) return 0;
  if (query == ACL_PCX_QUERY_RES_AVAIL) {
    DBG_DETAIL("%s: ACL_PCX_QUERY_RES_AVAIL:Resource check required", kHandler);
    return es_acl_cpcx_verify_resource_availability(request, 0);
  }
  DBG_DETAIL("%s: ACL_PCX_CANCEL_QUERY_RES_AVAIL:Resource check required", kHandler);
  return es_acl_cpcx_verify_resource_availability(request, 1);
}

// The check of a held question and its withdrawal differ in their texts and in one flag.
void answer_resources(uint32_t query, const Message& message, const Reply& reply) {
  auto* const request = message.as<es_acl_pcx_res_query_req>();
  if (!message.holds(sizeof *request)) {
    refuse_short(message);
    return;
  }
  es_acl_wire_res_query_req_order(request);
  request->acl_name[ES_ACL_NAME_MAX] = '\0';
  print_entry(query);
  if (request->ver != ES_ACL_PCX_VERSION)
    return refuse_version("%s:es_acl_pcx_res_query_req ver: crnt %d, rcv %d", request->ver);
  acl_pcx_cons_resp* const record = new_response();
  if (record == nullptr) return print_no_memory(query);
  record->rc = check_resources(query, request);
  DBG_DETAIL("%s: cons_resp->rc = %s", kHandler, errcode_string(record->rc));
  fill_process_data(record, request->acl_name);
  reply.send(record);
}

void answer_usage(const Message& message, const Reply& reply) {
  auto* const request = message.as<acl_pcx_cons_req>();
  if (!message.holds(ACL_PCX_CONS_REQ_MIN_SIZE)) {
    refuse_short(message);
    return;
  }
  es_acl_wire_cons_req_order(request);
  request->acl_name[ES_ACL_NAME_MAX] = '\0';
  DBG_DETAIL("%s: ACL_PCX_QUERY_CONS", kHandler);
  if (request->ver != ES_ACL_PCX_VERSION)
    return refuse_version("%s:acl_pcx_cons_req ver: crnt %d, rcv %d", request->ver);
  acl_pcx_cons_resp* const record = new_response();
  if (record == nullptr) {
    DBG_ERR("%s: calloc failed for response", kHandler);
    trace(kHandler, "no memory for a response", ENOMEM);
    return;
  }
  {
    const AclUse of_none(nullptr);  // the callbacks are told no ACL, and may release any
    record->in_use = static_cast<int32_t>(es_acl_invoke_check_usage_callback());
  }
  const AclUse use(request->acl_name);
  if (es_acl_lookup(request->acl_name) != nullptr && !use.leaving()) {
    fill_process_data(record, request->acl_name);
  } else {
    DBG_DETAIL("%s: acl lookup for %s failed", kHandler, request->acl_name);
    record->rc = ENOENT;
  }
  reply.send(record);
}

}  // namespace

void answer_sync_request(const Message& message, void** response, uint32_t* response_length) {
  DBG_DETAIL("%s: mtype PCX_CMD_PROD_SYNC_REQ", kHandler);
  if (!has_command(message)) return;
  const uint32_t query = es_acl_wire_32(message.word(0));
  DBG_DETAIL("%s: Query is %d", kHandler, static_cast<int>(query));
  trace(kHandler, "query", query);
  const Reply reply = {response, response_length};
  switch (query) {
    case ACL_PCX_QUERY_RES_AVAIL:
    case ACL_PCX_CANCEL_QUERY_RES_AVAIL:
      return answer_resources(query, message, reply);
    case ACL_PCX_QUERY_CONS:
      return answer_usage(message, reply);
    default:
      DBG_DETAIL("%s: Unkown PCX_CMD_PROD_SYNC_REQ type", kHandler);
  }
}

}  // namespace es_acl
