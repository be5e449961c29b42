// The one entry through which the producer reaches this process: tells messages apart and hands them on.
//
// Runs on the bus's delivery thread, one message at a time. Records are converted in place. A message that is shorter
// than what it says is refused before anything behind its end is read; rejections are silent towards the producer.
#include "es_acl/es_acl_cpcx.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_wire.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"
#include "es_acl_sync_private.h"

namespace es_acl {

uint32_t Message::word(uint32_t offset) const {
  if (!holds(uint64_t{offset} + sizeof(uint32_t))) return 0;
  uint32_t value;
  std::memcpy(&value, static_cast<const char*>(bytes) + offset, sizeof value);
  return value;
}

bool refuse_short(const Message& message) {
  DBG_ERR("%s: message of %u bytes is shorter than what it says", kHandler, message.length);
  trace(kHandler, "short message", message.length);
  return false;
}

bool has_command(const Message& message) {
  if (message.bytes != nullptr) return message.holds(sizeof(uint32_t)) || refuse_short(message);
  DBG_ERR("%s: Handler called with no data", kHandler);
  return false;
}

void refuse_version(const char* format, uint32_t version) {
  DBG_ERR(format, kHandler, ES_ACL_PCX_VERSION, static_cast<int>(version));
  trace(kHandler, "wrong version", version);
}

namespace {

// The name that a pushed record has at its 8th byte, as far as it has been delivered.
struct MessageName {
  explicit MessageName(const Message& message) : text() {
    constexpr uint32_t kAt = offsetof(es_acl_pcx_acl_ace, acl_name);
    if (!message.holds(kAt)) return;
    const uint32_t size = std::min<uint32_t>(message.length - kAt, ES_ACL_NAME_MAX);
    std::memcpy(text, static_cast<const char*>(message.bytes) + kAt, size);
  }
  char text[ES_ACL_NAME_FIELD_SIZE];
};

void notify(es_acl_head* head) {
  DBG_DETAIL("%s: ACL change, update clients", kHandler);
  es_acl_start_cb_timer(head);
}

bool read_resequence(const Message& message) {
  auto* const record = message.as<acl_pcx_reseq>();
  if (!message.holds(sizeof *record)) return refuse_short(message);
  es_acl_wire_reseq_order(record);
  DBG_DETAIL("%s: ACL_PCX_RESEQ", kHandler);
  if (record->ver != ES_ACL_PCX_VERSION) {
    refuse_version("%s:acl_pcx_reseq ver: crnt %d, rcv %d", record->ver);
    return false;
  }
  if (!message.holds(sizeof *record + uint64_t{record->num_skip_seqs} * sizeof(uint32_t)))
    return refuse_short(message);
  es_acl_wire_words32(reinterpret_cast<uint32_t*>(record + 1), record->num_skip_seqs);
  record->acl_name[ES_ACL_NAME_MAX] = '\0';
  return true;
}

// False when the store has not made it.
bool renumber(es_acl_head* head, const acl_pcx_reseq& record) {
  const auto* const skip_seqs = reinterpret_cast<const uint32_t*>(&record + 1);
  uint32_t rc = es_acl_resequence(head, record.start_seq, record.step, record.num_skip_seqs, skip_seqs);
  if (rc != 0) {
    DBG_ERR("%s: Error es_acl_resequence fail %s", kHandler, errcode_string(rc));
    trace(kHandler, "resequence failed", rc);
    return false;
  }
  rc =
      es_acl_invoke_resequence_callback(head, record.start_seq, record.step, record.num_skip_seqs, skip_seqs);
  if (rc == 0) return true;
  DBG_ERR("%s: Error es_acl_invoke_resequence_callback fail %s", kHandler, errcode_string(rc));
  trace(kHandler, "resequence callbacks failed", rc);
  return true;
}

// False when the copy lacks the change, and nobody has refused it.
bool resequence(const Message& message, const AclUse& use) {
  if (!read_resequence(message)) return false;
  const auto& record = *message.as<acl_pcx_reseq>();
  es_acl_head* const head = es_acl_lookup(record.acl_name);
  if (head == nullptr || use.leaving()) {
    DBG_ERR("%s: acl lookup failed", kHandler);
    return true;
  }
  const bool made = renumber(head, record);
  notify(head);
  return made;
}

bool read_batch(const Message& message) {
  DBG_DETAIL("%s: ACL_PCX_ADD/REMOVE_ACE", kHandler);
  auto* const records = message.as<es_acl_pcx_acl_ace>();
  if (!message.holds(sizeof *records)) return refuse_short(message);
  const uint32_t version = es_acl_wire_32(records->ver);
  if (version != ES_ACL_PCX_VERSION) {
    refuse_version("%s:acl_pcx_acl_ace ver: crnt %d, rcv %d", version);
    return false;
  }
  for (uint32_t i = 0; i < message.length / sizeof *records; ++i) es_acl_wire_acl_ace_order(&records[i]);
  return true;
}

// As resequence(). `use` keeps the ACL until its timer is armed. A piece of a record behind the last whole one is ignored, but
// what it was to change is not there.
bool update(uint32_t command, const Message& message, const AclUse& use) {
  if (!read_batch(message)) return false;
  auto* const records = message.as<es_acl_pcx_acl_ace>();
  const uint32_t first_seq = records->ace.seq;  // the record's own may be marked
  es_acl_head* head = nullptr;
  uint32_t changed = 0;
  bool complete = message.length % sizeof *records == 0;
  const uint32_t n = message.length / static_cast<uint32_t>(sizeof *records);
  const uint32_t rc = update_aces(use, command, records, n, &head, &changed, &complete);
  if (rc != 0) {
    DBG_ERR("%s: es_acl_cpcx_pcx_update_ace failed for ACL: %s Seq: %u", kHandler, records->acl_name,
            first_seq);
    trace_name(kHandler, "update failed", records->acl_name, rc, first_seq);
    if (head != nullptr && !use.leaving()) sync_refused(head);
    return true;
  }
  if (command == ACL_PCX_ADD_ACE && changed != 1)
    DBG_DETAIL("%s: Skipping invocation of es_acl_invoke_list", kHandler);
  else if (head != nullptr && !use.leaving())
    notify(head);
  return complete;
}

bool read_query(const Message& message) {
  auto* const request = message.as<es_acl_pcx_res_query_req>();
  if (!message.holds(sizeof *request)) return refuse_short(message);
  es_acl_wire_res_query_req_order(request);
  if (request->ver != ES_ACL_PCX_VERSION) {
    refuse_version("%s:es_acl_pcx_res_query_req ver: crnt %d, rcv %d", request->ver);
    return false;
  }
  if (!message.holds(sizeof *request + uint64_t{request->num_aces} * sizeof(es_acl_pcx_acl_ace)))
    return refuse_short(message);
  auto* const candidates = reinterpret_cast<es_acl_pcx_acl_ace*>(request + 1);
  for (uint32_t i = 0; i < request->num_aces; ++i) es_acl_wire_acl_ace_order(&candidates[i]);
  request->acl_name[ES_ACL_NAME_MAX] = '\0';
  return true;
}

void hold_query(const Message& message) {
  DBG_DETAIL("%s: Processing ACL_PCX_QUERY_RES_AVAIL write", kHandler);
  if (es_acl_res_check_required() == 0) {
    DBG_DETAIL("%s: PCX_WRITE Resource check ignored", kHandler);
    return;
  }
  if (!read_query(message)) return;
  const auto* const request = message.as<es_acl_pcx_res_query_req>();
  const size_t size = sizeof *request + request->num_aces * sizeof(es_acl_pcx_acl_ace);
  auto* const held = static_cast<HeldQuery*>(std::calloc(1, sizeof(void*) + size));
  if (held == nullptr) {
    DBG_ERR("%s: memory allocation failed", kHandler);
    return;
  }
  std::memcpy(&held->request, request, size);
  queue_append(&es_acl_held_res_queries, held);
}

bool is_change(uint32_t command) {
  return command == ACL_PCX_ADD_ACE || command == ACL_PCX_REMOVE_ACE || command == ACL_PCX_RESEQ;
}

void print_event(const Message& message) {
  DBG_DETAIL("%s: Event for seq %u of acl %s cmd %d", kHandler,
             message.word(offsetof(es_acl_pcx_acl_ace, ace) + offsetof(es_acl_ace, seq)),
             MessageName(message).text, static_cast<int>(message.word(0)));
}

void apply_change(const Message& message, const MessageName& name, const AclUse& use) {
  print_event(message);
  if (!sync_takes_pushes(name.text)) {
    DBG_DETAIL("%s: acl %s is behind and will be read anew, its change is dropped", kHandler, name.text);
    trace_name(kHandler, "change dropped", name.text, message.length);
    return;
  }
  const uint32_t command = es_acl_wire_32(message.word(0));
  const bool made = command == ACL_PCX_RESEQ ? resequence(message, use) : update(command, message, use);
  if (!made && !use.leaving()) sync_missed(name.text);
}

// A change of an ACL that another thread is just reading for the first time is that thread's to apply.
void receive_change(const Message& message) {
  const MessageName name(message);
  const AclUse use(name.text, message.bytes, message.length);
  if (!use.kept()) return apply_change(message, name, use);
  DBG_DETAIL("%s: acl %s is being read, its change is kept", kHandler, name.text);
  trace_name(kHandler, "change kept", name.text, message.length);
}

void receive_write(const Message& message) {
  DBG_DETAIL("%s: mtype is PCX_CMD_WRITE", kHandler);
  if (!has_command(message)) return;
  const uint32_t command = es_acl_wire_32(message.word(0));
  if (is_change(command)) return receive_change(message);
  print_event(message);
  if (command == ACL_PCX_QUERY_RES_AVAIL)
    hold_query(message);
  else
    DBG_DETAIL("%s: UNKOWN-COMMAND....", kHandler);
}

}  // namespace

void apply_kept_message(void* payload, uint32_t length) {
  const Message message = {payload, length};
  const MessageName name(message);
  const AclUse use(name.text);
  try {
    apply_change(message, name, use);
  } catch (...) {
    DBG_ERR("%s: acl %s: a callback has thrown an exception", kHandler, name.text);
    if (!use.leaving()) sync_missed(name.text);
  }
}

}  // namespace es_acl

using namespace es_acl;

void es_acl_cpcx_handler(uint64_t, uint32_t mtype, void* payload, uint32_t length, void** response,
                         uint32_t* response_length) {
  DBG_INFO("Entering %s: length: %d", __func__, static_cast<int>(length));
  trace(__func__, "message", mtype, length);
  switch (mtype) {
    case PCX_CMD_PROD_REQ:
      DBG_DETAIL("%s: mtype PCX_CMD_PROD_REQ", __func__);
      break;
    case PCX_CMD_PROD_SYNC_REQ:
      answer_sync_request({payload, length}, response, response_length);
      break;
    case PCX_CMD_WRITE:
      receive_write({payload, length});
      break;
    default:
      DBG_DETAIL("%s: mtype 0x%x is unknown", __func__, mtype);
      break;
  }
}
