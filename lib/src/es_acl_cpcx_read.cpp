// Filling one ACL from its producer, a batch of ACEs at a time.
//
// Runs on the calling client's thread; the additions take the ACL's lock one by one. One buffer serves all
// batches, the answers land in it and are converted there. ACEs added before a failure stay in the head,
// except after a failure of memory or of the store, which releases the head itself.
#include <cerrno>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_wire.h"
#include "es_acl_buffer.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"
#include "es_acl_retry.h"
#include "es_acl_state.h"
#include "es_db_private.h"
#include "es_platform/pcx.h"

namespace es_acl {
namespace {

constexpr uint32_t kAceSize = sizeof(es_acl_pcx_acl_ace);
constexpr char kReadStep[] = "es_acl_cpcx_read_tacl";

uint32_t max_entries_per_request() {
  DBG_INFO("Entering : %s", "es_acl_cpcx_get_max_entries_per_request");
  return pcx_get_optimum_msg_size(es_acl_dsv_class) / kAceSize;
}

// One read of one ACL, from its first request to its last answer.
class Read {
 public:
  explicit Read(es_acl_head* head) : head_(head) {}

  uint32_t run();
  bool head_released() const { return head_released_; }

 private:
  bool prepare();
  uint32_t request_batch(uint32_t* answer_length);
  uint32_t accept_length(uint32_t answer_length);
  uint32_t store_batch(uint32_t count);
  uint32_t store_record(es_acl_pcx_acl_ace* record);
  void release_head();

  es_acl_head* head_;
  bool head_released_ = false;
  uint32_t max_entries_ = 0;
  acl_pcx_read_req request_ = {};  // host byte order
  Buffer<es_acl_pcx_acl_ace> records_;
  uint32_t last_seq_ = 0;
};

// A failure of memory or of the store leaves nothing worth keeping.
void Read::release_head() {
  records_.reset();
  es_acl_db_owner_release(head_);
  head_released_ = true;
}

bool Read::prepare() {
  request_.cmd = ACL_PCX_READ_ACES;
  request_.ver = ES_ACL_PCX_VERSION;
  es_acl_wire_set_name(request_.acl_name, head_->name);
  request_.max_entries = max_entries_;
  records_ = uninitialised<es_acl_pcx_acl_ace>(max_entries_);
  if (records_ != nullptr) return true;
  DBG_ERR("%s: malloc size %u failed", kReadStep, max_entries_ * kAceSize);
  trace(kReadStep, "no memory for a batch", max_entries_ * kAceSize);
  return false;
}

uint32_t Read::request_batch(uint32_t* answer_length) {
  acl_pcx_read_req request = request_;
  es_acl_wire_read_req_order(&request);
  const uint32_t rc = with_retries(is_transient, [&] {
    *answer_length = max_entries_ * kAceSize;
    return pcx_read(head_->reg_handle, &request, sizeof request, records_.get(), answer_length);
  });
  if (rc == 0) return 0;
  DBG_ERR("%s: pcx_read failed %s", kReadStep, errcode_string(rc));
  records_.reset();
  trace(kReadStep, "pcx_read failed", rc);
  return rc;
}

uint32_t Read::accept_length(uint32_t answer_length) {
  DBG_DETAIL("%s: pcx_read %d bytes", kReadStep, static_cast<int>(answer_length));
  if (answer_length <= max_entries_ * kAceSize && answer_length % kAceSize == 0) return 0;
  DBG_ERR("%s: answer of %u bytes is not whole records that fit %u", kReadStep, answer_length,
          max_entries_ * kAceSize);
  trace(kReadStep, "answer of a wrong length", answer_length);
  return EINVAL;
}

uint32_t Read::store_record(es_acl_pcx_acl_ace* record) {
  es_acl_wire_acl_ace_order(record);
  if (record->ver != ES_ACL_PCX_VERSION) {
    DBG_ERR("%s:es_acl_pcx_acl_ace ver: crnt %d, rcv %d", kReadStep, ES_ACL_PCX_VERSION,
            static_cast<int>(record->ver));
    trace(kReadStep, "ACE of a wrong version", record->ver);
    return EINVAL;
  }
  es_acl_ace* ace = es_acl_alloc_rules();
  if (ace == nullptr) {
    DBG_ERR("%s: es_acl_alloc_ace failed", kReadStep);
    release_head();
    trace(kReadStep, "no ACE record", ENOMEM);
    return ENOMEM;
  }
  *ace = record->ace;
  ace->private_data = nullptr;
  const uint32_t seq = ace->seq;
  const uint32_t rc = es_acl_add_acl_item(head_, ace, seq, ES_ACL_ADD_KEEP);
  if (rc != 0) {
    DBG_ERR("%s: es_acl_add_acl_item fail", kReadStep);
    trace(kReadStep, "store refused an ACE", seq, rc);
    es_acl_free_rules(ace);
    release_head();
    return ENOMEM;
  }
  DBG_DETAIL("%s: Type is ACL", kReadStep);
  last_seq_ = seq;
  return 0;
}

uint32_t Read::store_batch(uint32_t count) {
  DBG_DETAIL("%s: Got back %d records", kReadStep, static_cast<int>(count));
  trace(kReadStep, "records received", count);
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t rc = store_record(&records_[i]);
    if (rc != 0) return rc;
  }
  return 0;
}

uint32_t Read::run() {
  DBG_INFO("Entering : %s", kReadStep);
  max_entries_ = max_entries_per_request();
  if (max_entries_ == 0) {
    DBG_ERR("%s: the bus's messages have no room for one record", kReadStep);
    trace(kReadStep, "no room for one record", EINVAL);
    return EINVAL;
  }
  if (!prepare()) return ENOMEM;
  for (;;) {
    uint32_t answer_length = 0;
    uint32_t rc = request_batch(&answer_length);
    if (rc == 0) rc = accept_length(answer_length);
    const uint32_t count = answer_length / kAceSize;
    if (rc == 0) rc = store_batch(count);
    if (rc != 0 || count < max_entries_) return rc;
    // A producer that sends the same batch again would keep us here for ever.
    if (last_seq_ <= request_.start_seq) {
      DBG_ERR("%s: sequence %u does not advance", kReadStep, last_seq_);
      trace(kReadStep, "sequence does not advance", last_seq_);
      return EINVAL;
    }
    request_.start_seq = last_seq_;
    DBG_DETAIL("%s: Got back %d records, need to read more.", kReadStep, static_cast<int>(count));
  }
}

// 0: there is a producer, 2: there is none.
uint32_t query_producer(const char* operation, es_acl_head* head) {
  const uint32_t rc = pcx_query_producer(head->reg_handle);
  if (rc == 0) {
    DBG_DETAIL("%s: Type ACL_TYPE_ACL", operation);
  } else if (rc == ENOENT) {
    DBG_DETAIL("%s: No producer, nothing to read", operation);
    trace_name(operation, "no producer", head->name, rc);
  } else {
    DBG_DETAIL("%s: pcx_query_producer failed, return code %d", operation, static_cast<int>(rc));
    trace_name(operation, "pcx_query_producer failed", head->name, rc);
  }
  return rc;
}

}  // namespace

es_acl_status read_acl(es_acl_head* head, bool* head_released, bool* has_read) {
  constexpr char kOperation[] = "es_acl_cpcx_read_acl";
  *head_released = *has_read = false;
  if (head == nullptr) {
    DBG_ERR("%s: Invalid arguments", kOperation);
    trace(kOperation, "null head", EINVAL);
    return EINVAL;
  }
  DBG_INFO("Entering %s for %s", kOperation, shown(head->name));
  uint32_t rc = query_producer(kOperation, head);
  if (rc != 0) return rc == ENOENT ? 0 : rc;
  if (ace_count(head) != 0) return 0;
  AclFill fill(head->name);
  Read read(head);
  *has_read = true;
  rc = read.run();
  *head_released = read.head_released();
  if (rc == 0) rc = fill.finish(apply_kept_message);
  if (fill.link_changed() && !*head_released) pcx_renew_later(head->reg_handle, 0);
  if (rc == 0) return 0;
  DBG_ERR("%s: es_acl_cpcx_read_tacl fail %s", kOperation, errcode_string(rc));
  trace(kOperation, "read failed", rc);
  return rc;
}

}  // namespace es_acl

es_acl_status es_acl_cpcx_read_acl(es_acl_head* head) {
  bool head_released = false, has_read = false;
  return es_acl::read_acl(head, &head_released, &has_read);
}
