// How many ACEs have these ACLs? Asked of the producer for many names in few messages.
//
// Runs on the calling client's thread and takes no lock. A name that nobody has registered counts 0 and is not sent; the
// answers, one for each name that was, are matched to the names by their order. They all land in one buffer and are
// looked at when the last has arrived.
#include <cerrno>

#include "es_acl/es_acl_cpcx.h"
#include "es_acl_cpcx_bulk.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_diag.h"
#include "es_acl_state.h"
#include "es_platform/dsv.h"

namespace es_acl {
namespace {

constexpr char kCount[] = "es_acl_cpcx_query_acl_count_bulk";
constexpr uint32_t kAnswerSize = sizeof(acl_pcx_query_resp);

struct Counts {
  uint32_t* num_aces;
  uint32_t* num_rem_aces;
};

class BulkCount {
 public:
  BulkCount(const NameField* names, uint32_t count)
      : names_(names), count_(count), remaining_(count), request_(ACL_PCX_QUERY_ACE_COUNT_BULK, count) {}

  uint32_t run(const Counts& counts, void** address);

 private:
  bool prepare();
  bool find_batch_size();
  void fill_request(void** address);
  uint32_t run_batch(void** address);
  uint32_t ask(void* address);
  uint32_t accept_length();
  uint32_t hand_over(const Counts& counts);

  const NameField* const names_;
  const uint32_t count_;
  uint32_t remaining_;     // names that no batch has taken yet
  uint32_t batch_ = 0;     // names that the current one takes
  uint32_t loop_cnt_ = 0;  // its number, from 1
  uint32_t answers_ = 0;   // records received so far
  uint32_t resp_len_ = 0;  // the length word, which a batch hands on to the next
  BulkRequest request_;
  Buffer<acl_pcx_query_resp> records_;
  Buffer<uint8_t> absent_;  // for each name: nobody has registered it
};

// The length word of a batch is what the batch before it has returned, and the last batch may be smaller: behind the
// records there is room for as many again.
bool BulkCount::prepare() {
  if (!request_.ready()) {
    DBG_ERR("%s: Memory allocation failed", kCount);
    return false;
  }
  records_ = zeroed<acl_pcx_query_resp>(2 * uint64_t{count_});
  absent_ = zeroed<uint8_t>(count_);
  if (records_ != nullptr && absent_ != nullptr) return true;
  DBG_ERR("%s: Memory allocation for acl_query_resp failed", kCount);
  return false;
}

bool BulkCount::find_batch_size() {
  const uint32_t optimum = pcx_get_optimum_msg_size(es_acl_classhandle);
  batch_ = BulkRequest::first_batch(count_, optimum);
  DBG_DETAIL("%s: pcx_opt_size: %d batch_size: %d num_entries_req: %d", kCount, static_cast<int>(optimum),
             static_cast<int>(count_), static_cast<int>(batch_));
  if (batch_ != 0 || count_ == 0) return true;
  DBG_ERR("%s: the bus's messages have no room for one name", kCount);
  trace(kCount, "no room for one name", optimum);
  return false;
}

void BulkCount::fill_request(void** address) {
  const uint32_t first = count_ - remaining_;
  request_.clear();
  for (uint32_t k = 0; k < batch_; ++k) {
    const char* const name = request_.add(names_[first + k]);
    DBG_DETAIL("%s: ACL[%d]: %s", kCount, static_cast<int>(k), name);
    void* found = nullptr;
    const uint32_t rc = dsv_lookup_data(es_acl_dsv_class, name, &found);
    if (rc == 0) publish_address(*address = found);
    if (rc != DSV_NO_DATA) continue;
    DBG_ERR("%s: dsv_lookup_data data not found for acl %s", kCount, name);
    trace_name(kCount, "name not registered", name, rc);
    absent_[first + k] = 1;
    request_.drop_last();
  }
}

// Before any name has been looked up there is nobody to send an empty list to, which is no failure.
uint32_t BulkCount::ask(void* address) {
  const uint32_t names = request_.names();
  DBG_DETAIL(
      "%s: Invoking pcx_read to get acl types and number of aces in each acl for %d entries entries read: %d "
      "remaining entries: %d",
      kCount, static_cast<int>(names), static_cast<int>(answers_), static_cast<int>(remaining_));
  const uint32_t room = std::max(resp_len_, names * kAnswerSize);
  const uint32_t rc = request_.exchange(address, records_.get() + answers_, room, &resp_len_);
  if (rc == 0) return accept_length();
  if (count_ == 0 && address == nullptr) return 0;
  DBG_ERR("%s: pcx_read failed for pcx_read # %dbatch of %d out of total: %drc 0x%x: %s", kCount,
          static_cast<int>(loop_cnt_), static_cast<int>(names), static_cast<int>(count_), rc,
          errcode_string(rc));
  trace(kCount, "pcx_read failed", rc, loop_cnt_);
  return rc;
}

uint32_t BulkCount::accept_length() {
  const uint32_t entries_read = resp_len_ / kAnswerSize;
  if (entries_read == request_.names() && resp_len_ % kAnswerSize == 0) return 0;
  DBG_ERR(
      "%s: entries read: %u from producer does not match with expected number: %u of entries, bytes_req: %u "
      "bytes_ret: %u req_len: %u batch_sz: %u loop_cnt# %u",
      kCount, entries_read, request_.names(), request_.names() * kAnswerSize, resp_len_, request_.length(),
      count_, loop_cnt_);
  trace(kCount, "answer of a wrong length", resp_len_, loop_cnt_);
  return EINVAL;
}

uint32_t BulkCount::run_batch(void** address) {
  ++loop_cnt_;
  fill_request(address);
  if (request_.names() != 0 || count_ == 0) {
    const uint32_t rc = ask(*address);
    if (rc != 0) return rc;
  }
  answers_ += request_.names();
  remaining_ -= batch_;
  batch_ = std::min(batch_, remaining_);
  DBG_DETAIL("%s: total entries read: %d out of %d entries and %d remaining entries to read", kCount,
             static_cast<int>(answers_), static_cast<int>(count_), static_cast<int>(remaining_));
  return 0;
}

uint32_t BulkCount::hand_over(const Counts& counts) {
  const acl_pcx_query_resp* next = records_.get();
  for (uint32_t i = 0; i < count_; ++i) {
    acl_pcx_query_resp record = {};
    if (absent_[i] == 0) {
      record = *next++;
      es_acl_wire_query_resp_order(&record);
      if (record.ver != ES_ACL_PCX_VERSION) {
        DBG_ERR("%s:acl_pcx_query_resp ver: crnt %d, rcv %d", kCount, ES_ACL_PCX_VERSION,
                static_cast<int>(record.ver));
        trace_name(kCount, "count of a wrong version", names_[i].text, record.ver);
        return EINVAL;
      }
      DBG_DETAIL("%s: Producer returned for ACL: %s num_aces: %d num_remark_aces: %d", kCount, names_[i].text,
                 static_cast<int>(record.num_aces), static_cast<int>(record.num_remark_aces));
    }
    counts.num_aces[i] = record.num_aces;
    counts.num_rem_aces[i] = record.num_remark_aces;
  }
  return 0;
}

uint32_t BulkCount::run(const Counts& counts, void** address) {
  if (!prepare()) return ENOMEM;
  if (!find_batch_size()) return EINVAL;
  resp_len_ = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{count_} * kAnswerSize, UINT32_MAX));
  do {
    const uint32_t rc = run_batch(address);
    if (rc != 0) return rc;
  } while (remaining_ != 0);
  return hand_over(counts);
}

}  // namespace

es_acl_status query_acl_count_bulk(const NameField* acl_names, uint32_t* num_aces, uint32_t* num_rem_aces,
                                   uint32_t count, void** address) {
  DBG_INFO("Entering %s for %d ACLs in batch", kCount, static_cast<int>(count));
  *address = published_address();
  if (acl_names == nullptr || num_aces == nullptr || num_rem_aces == nullptr) {
    DBG_ERR("%s: Invalid parameters aclname%p num_aces %p num_remark_aces %p", kCount,
            static_cast<const void*>(acl_names), static_cast<void*>(num_aces),
            static_cast<void*>(num_rem_aces));
    return EINVAL;
  }
  return BulkCount(acl_names, count).run({num_aces, num_rem_aces}, address);
}

}  // namespace es_acl

es_acl_status es_acl_cpcx_query_acl_count_bulk(const char* acl_names, uint32_t* num_aces,
                                               uint32_t* num_rem_aces, uint32_t count) {
  void* address = nullptr;
  const auto* const names = reinterpret_cast<const es_acl::NameField*>(acl_names);
  return es_acl::query_acl_count_bulk(names, num_aces, num_rem_aces, count, &address);
}
