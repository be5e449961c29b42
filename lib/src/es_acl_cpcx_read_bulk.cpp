// Filling many ACLs from the producer in few messages: their ACEs without the remarks.
//
// Runs on the calling client's thread; the additions take each ACL's lock one by one. The answers of all batches land one
// behind the other in one buffer; when the last has arrived the records are converted there, and stored. ACEs stored
// before a failure stay in their heads.
#include <cerrno>
#include <cstring>

#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_cpcx_bulk.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"

namespace es_acl {
namespace {

constexpr char kRead[] = "es_acl_cpcx_read_acl_bulk";
constexpr uint32_t kAceSize = sizeof(es_acl_pcx_acl_ace);

class BulkRead {
 public:
  BulkRead(const BulkAcls& acls, void* address)
      : acls_(acls),
        address_(address),
        remaining_(acls.count),
        request_(ACL_PCX_READ_ACES_BULK, acls.count) {}

  uint32_t run();

 private:
  uint32_t prepare();
  uint32_t add_up();
  bool find_batch_size();
  uint64_t fill_request();
  uint32_t run_batch();
  uint32_t ask(uint64_t batch_aces);
  uint32_t accept_length(uint64_t expected, uint32_t length);
  uint32_t decode();
  uint32_t check_record(uint32_t i, const es_acl_pcx_acl_ace& record) const;
  uint32_t store_record(uint32_t i, es_acl_pcx_acl_ace* record);

  uint64_t rules_of(uint32_t i) const { return acls_.num_aces[i] - acls_.num_rem_aces[i]; }
  const char* name_of(uint32_t i) const { return acls_.names[i].text; }

  const BulkAcls& acls_;
  void* const address_;
  uint32_t remaining_;     // ACLs that no batch has taken yet
  uint32_t batch_ = 0;     // ACLs that the current one takes
  uint32_t loop_cnt_ = 0;  // its number, from 1
  uint64_t aces_ = 0;      // in all ACLs
  uint64_t aces_read_ = 0;
  BulkRequest request_;
  Buffer<es_acl_pcx_acl_ace> ace_info_bulk_;
};

// All ACEs that will come. The counts are the producer's: whatever does not add up is refused before it is used.
uint32_t BulkRead::add_up() {
  for (uint32_t i = 0; i < acls_.count; ++i) {
    if (acls_.num_rem_aces[i] > acls_.num_aces[i]) {
      DBG_ERR("%s: ACL %s has %u ACEs, and %u remarks among them", kRead, name_of(i), acls_.num_aces[i],
              acls_.num_rem_aces[i]);
      trace_name(kRead, "more remarks than ACEs", name_of(i), acls_.num_aces[i], acls_.num_rem_aces[i]);
      return EINVAL;
    }
    aces_ += rules_of(i);
  }
  return 0;
}

uint32_t BulkRead::prepare() {
  if (!request_.ready()) {
    DBG_ERR("%s: Memory allocation failed for acl_read_req", kRead);
    return ENOMEM;
  }
  if (const uint32_t rc = add_up(); rc != 0) return rc;
  ace_info_bulk_ = zeroed<es_acl_pcx_acl_ace>(aces_);
  if (ace_info_bulk_ != nullptr) return 0;
  DBG_ERR("%s: Memory allocation failed for ace_info_bulk", kRead);
  return ENOMEM;
}

bool BulkRead::find_batch_size() {
  const uint32_t optimum = pcx_get_optimum_msg_size(es_acl_classhandle);
  batch_ = BulkRequest::first_batch(acls_.count, optimum);
  DBG_DETAIL("%s: pcx_opt_size: %d batch_size: %d num_entries_req: %d", kRead, static_cast<int>(optimum),
             static_cast<int>(acls_.count), static_cast<int>(batch_));
  if (batch_ != 0 || acls_.count == 0) return true;
  DBG_ERR("%s: the bus's messages have no room for one name", kRead);
  trace(kRead, "no room for one name", optimum);
  return false;
}

// The number of ACEs that the batch asks for. It takes fewer ACLs when their answer would be larger than a bus carries.
uint64_t BulkRead::fill_request() {
  constexpr uint64_t kMostAces = (uint64_t{1} << 30) / kAceSize;
  const uint32_t first = acls_.count - remaining_;
  uint64_t batch_aces = 0;
  request_.clear();
  for (uint32_t k = 0; k < batch_; ++k) {
    const uint64_t rules = rules_of(first + k);
    if (k != 0 && batch_aces + rules > kMostAces) break;
    DBG_DETAIL("%s: ACL[%d]: %s", kRead, static_cast<int>(k), name_of(first + k));
    request_.add(acls_.names[first + k]);
    batch_aces += rules;
  }
  batch_ = request_.names();
  return batch_aces;
}

uint32_t BulkRead::accept_length(uint64_t expected, uint32_t length) {
  if (length == expected) return 0;
  DBG_ERR(
      "%s: length read: %d from producer does not match with expected length: %d of data. req_len: %u "
      "batch_size: %u loop_cnt: %u",
      kRead, static_cast<int>(length), static_cast<int>(expected), request_.length(), acls_.count, loop_cnt_);
  trace(kRead, "answer of a wrong length", length, expected);
  return EINVAL;
}

// The length word has 32 bits: more room than it can tell is not offered.
uint32_t BulkRead::ask(uint64_t batch_aces) {
  constexpr uint64_t kMostRoom = UINT32_MAX / kAceSize * kAceSize;
  const uint64_t room = std::min((aces_ - aces_read_) * kAceSize, kMostRoom);
  uint32_t length = 0;
  const uint32_t rc =
      request_.exchange(address_, ace_info_bulk_.get() + aces_read_, static_cast<uint32_t>(room), &length);
  if (rc == 0) return accept_length(batch_aces * kAceSize, length);
  DBG_ERR(
      "%s: pcx_read failed for pcx_read # %dfor a batch of %d ACLs for %d aces out of total: %d ACLs error "
      "0x%x: %s",
      kRead, static_cast<int>(loop_cnt_), static_cast<int>(batch_), static_cast<int>(batch_aces),
      static_cast<int>(acls_.count), rc, errcode_string(rc));
  trace(kRead, "pcx_read failed", rc, loop_cnt_);
  return rc;
}

uint32_t BulkRead::run_batch() {
  ++loop_cnt_;
  const uint64_t batch_aces = fill_request();
  DBG_DETAIL(
      "%s: Invoking pcx_read to get ace definitions in each acl for %d ACLs having %d aces... ACLs read: %d "
      "remaining entries: %d",
      kRead, static_cast<int>(batch_), static_cast<int>(batch_aces),
      static_cast<int>(acls_.count - remaining_), static_cast<int>(remaining_));
  const uint32_t rc = ask(batch_aces);
  if (rc != 0) return rc;
  aces_read_ += batch_aces;
  remaining_ -= batch_;
  DBG_DETAIL("%s: ACLs read: %d having total %d ACEs out of total ACLs: %d and %d remaining entries to read",
             kRead, static_cast<int>(batch_), static_cast<int>(batch_aces), static_cast<int>(acls_.count),
             static_cast<int>(remaining_));
  batch_ = std::min(batch_, remaining_);
  return 0;
}

// Nothing but the counts tells where one ACL's records end. When ACLs have changed since they were counted, and the sum
// happens to be the same, the records themselves say it; those without a name say nothing.
uint32_t BulkRead::check_record(uint32_t i, const es_acl_pcx_acl_ace& record) const {
  if (record.ver != ES_ACL_PCX_VERSION) {
    DBG_ERR("%s:es_acl_pcx_acl_ace ver: crnt %d, rcv %d", kRead, ES_ACL_PCX_VERSION,
            static_cast<int>(record.ver));
    return EINVAL;
  }
  if (record.acl_name[0] == 0 || strncmp(record.acl_name, name_of(i), sizeof record.acl_name) == 0) return 0;
  DBG_ERR("%s: changed since it was counted: ACE %u of ACL %s is of %.64s", kRead, record.ace.seq, name_of(i),
          record.acl_name);
  trace_name(kRead, "an ACE of another ACL", name_of(i), record.ace.seq);
  return EINVAL;
}

uint32_t BulkRead::store_record(uint32_t i, es_acl_pcx_acl_ace* record) {
  es_acl_wire_acl_ace_order(record);
  if (const uint32_t rc = check_record(i, *record); rc != 0) return rc;
  es_acl_ace* const ace = es_acl_alloc_rules();
  if (ace == nullptr) return ENOMEM;
  *ace = record->ace;
  ace->private_data = nullptr;
  const uint32_t rc = es_acl_add_acl_item_common(acls_.heads[i], ace, ace->seq, ES_ACL_ADD_KEEP, nullptr);
  if (rc == 0) return 0;
  es_acl_free_rules(ace);
  DBG_ERR("%s: es_acl_add_acl_item_common failed %s", kRead, errcode_string(rc));
  trace_name(kRead, "store refused an ACE", name_of(i), record->ace.seq, rc);
  return rc;
}

uint32_t BulkRead::decode() {
  es_acl_pcx_acl_ace* record = ace_info_bulk_.get();
  for (uint32_t i = 0; i < acls_.count; ++i) {
    const uint64_t rules = rules_of(i);
    DBG_DETAIL("%s: Decoding %d ACEs info for ACL: %s", kRead, static_cast<int>(rules), name_of(i));
    for (uint64_t k = 0; k < rules; ++k) {
      const uint32_t rc = store_record(i, record++);
      if (rc != 0) return rc;
    }
  }
  return 0;
}

uint32_t BulkRead::run() {
  uint32_t rc = prepare();
  if (rc == 0 && !find_batch_size()) rc = EINVAL;
  if (rc != 0) return rc;
  do {
    rc = run_batch();
    if (rc != 0) return rc;
  } while (remaining_ != 0);
  return decode();
}

void print_entry(uint32_t count) {
  DBG_INFO("Entering %s with batch of %d entries...", kRead, static_cast<int>(count));
}

}  // namespace

es_acl_status read_acl_bulk(const BulkAcls& acls, void* address) {
  print_entry(acls.count);
  return BulkRead(acls, address).run();
}

}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_cpcx_read_acl_bulk(es_acl_head* const* aclhead_type, const char* acl_names,
                                        const uint32_t* num_aces, const uint32_t* num_rem_aces,
                                        uint32_t count) {
  print_entry(count);
  if (aclhead_type == nullptr || acl_names == nullptr || num_aces == nullptr || num_rem_aces == nullptr) {
    DBG_ERR("%s: Invalid parameters aclhead_type%p acl_names %pnum_aces %p num_rem_aces%p", kRead,
            static_cast<const void*>(aclhead_type), static_cast<const void*>(acl_names),
            static_cast<const void*>(num_aces), static_cast<const void*>(num_rem_aces));
    return EINVAL;
  }
  AclFills fills;
  if (!fills.reserve(count)) {
    DBG_ERR("%s: Memory allocation failed for %u reads", kRead, count);
    return ENOMEM;
  }
  const auto* const names = reinterpret_cast<const NameField*>(acl_names);
  for (uint32_t i = 0; i < count; ++i) fills.begin(names[i].text);
  const BulkAcls acls = {aclhead_type, names, num_aces, num_rem_aces, count};
  uint32_t rc = BulkRead(acls, published_address()).run();
  if (rc == 0) rc = fills.finish(apply_kept_message);
  for (uint32_t i = 0; i < count && fills.link_changed(); ++i)
    if (aclhead_type[i] != nullptr && aclhead_type[i]->reg_handle != nullptr)
      pcx_renew_later(aclhead_type[i]->reg_handle, 0);
  return rc;
}
