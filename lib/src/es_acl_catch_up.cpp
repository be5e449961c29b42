// The list is read as a first fill reads it, but into a comparison with the copy: both are in ascending order, so that one
// walk over the two tells what to remove and what to add. Only differences are kept.
//
// The order of pushes and read. What the producer pushes and what it answers travel on different connections. A new
// registration gets nothing but what has changed since the first read behind it, and nothing that was pushed for the old
// one: so whatever comes afterwards belongs on top of what was read.
#include "es_acl_catch_up.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <vector>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_wire.h"
#include "es_acl_cpcx_bulk.h"
#include "es_acl_gate.h"
#include "es_acl_refusal.h"
#include "es_acl_retry.h"
#include "es_acl_state.h"
#include "es_db_private.h"
#include "es_platform/pcx.h"

namespace es_acl {
namespace {

constexpr char kCatchUp[] = "es_acl_catch_up";
constexpr uint32_t kAceSize = sizeof(es_acl_pcx_acl_ace);

using Records = std::vector<es_acl_pcx_acl_ace>;

// What a list that comes record by record has other than the copy. Between two records a request may take its time, and
// the client may edit its copy: an ACE that the walk stands on may have come back elsewhere in the list, and what has been
// passed comes by once more.
class Difference {
 public:
  explicit Difference(es_acl_head* head) : head_(head), node_(es_get_first_ace(head)) {}

  // The next record of the list, in host byte order. False when it does not stand behind the one before.
  bool compare(const es_acl_pcx_acl_ace& record) {
    if (listed_ != 0 && record.ace.seq <= last_seq_) return false;
    last_seq_ = record.ace.seq;
    ++listed_;
    es_acl_ace* const stored = skip_to(record.ace.seq);
    if (stored != nullptr && stored->seq == record.ace.seq) {
      pass(*stored);
      es_acl_ace listed = record.ace;
      listed.private_data = stored->private_data;  // the client's
      if (es_acl_compare_ace(stored, &listed) != 0) return true;
    }
    added_.push_back(record);
    return true;
  }
  void end() { skip_to(UINT64_MAX); }

  uint32_t last_seq() const { return last_seq_; }
  uint32_t listed() const { return listed_; }
  Records& removed() { return removed_; }
  Records& added() { return added_; }

 private:
  // What the copy has before that number is to be removed. The ACE that follows, or null.
  es_acl_ace* skip_to(uint64_t seq) {
    for (;;) {
      es_acl_ace* const stored = node_ != nullptr ? es_get_ace_data(head_, node_) : nullptr;
      if (stored == nullptr || stored->seq >= seq) return stored;
      if (stored->seq >= next_seq_) removed_.emplace_back().ace = *stored;
      pass(*stored);
    }
  }
  void pass(const es_acl_ace& stored) {
    next_seq_ = std::max(next_seq_, uint64_t{stored.seq} + 1);
    node_ = es_get_next_ace(head_, node_);
  }

  es_acl_head* const head_;
  es_acl_ace_node* node_;
  uint64_t next_seq_ = 0;  // behind all that has been passed
  uint32_t last_seq_ = 0;
  uint32_t listed_ = 0;  // records so far
  Records removed_, added_;
};

uint32_t refuse(const es_acl_head* head, const char* why, uint64_t value) {
  return refuse_acl(kCatchUp, head->name, why, value, EINVAL);
}

uint32_t compare_all(const es_acl_head* head, es_acl_pcx_acl_ace* records, uint32_t length,
                     Difference* difference) {
  if (length % kAceSize != 0) return refuse(head, "answer of a wrong length", length);
  for (uint32_t i = 0; i < length / kAceSize; ++i) {
    es_acl_wire_acl_ace_order(&records[i]);
    if (records[i].ver != ES_ACL_PCX_VERSION) return refuse(head, "ACE of a wrong version", records[i].ver);
    if (!difference->compare(records[i])) return refuse(head, "list not in order", records[i].ace.seq);
  }
  return 0;
}

// How long one catching up may hold up the delivery thread. Asked between two requests.
class Patience {
 public:
  explicit Patience(const es_acl_head* head) : head_(head) {}

  // 0; 125: the ACL is wanted no more; 11: it has taken too long, others are to have their turn.
  uint32_t left() const {
    if (teardown_waits(head_->name)) return ECANCELED;
    return Clock::now() < end_ ? 0 : EAGAIN;
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kLongest{30};

  const es_acl_head* const head_;
  const Clock::time_point end_ = Clock::now() + kLongest;
};

uint32_t read_whole(es_acl_head* head, Difference* difference) {
  const Patience patience(head);
  const uint32_t most = pcx_get_optimum_msg_size(es_acl_dsv_class) / kAceSize;
  if (most == 0) return refuse(head, "no room for one record", most);
  Records records(most);
  for (uint32_t length = most * kAceSize; length == most * kAceSize;) {
    if (const uint32_t rc = patience.left(); rc != 0) return rc;
    acl_pcx_read_req request = {};
    request.cmd = ACL_PCX_READ_ACES;
    request.ver = ES_ACL_PCX_VERSION;
    request.start_seq = difference->last_seq();
    request.max_entries = most;
    es_acl_wire_set_name(request.acl_name, head->name);
    es_acl_wire_read_req_order(&request);
    uint32_t rc = status_of(pcx_read(head->reg_handle, &request, sizeof request, records.data(), &length));
    if (rc == 0) rc = compare_all(head, records.data(), length, difference);
    if (rc != 0) return rc;
  }
  return 0;
}

// The count decides how much room the read gets; when the list changes between the two the read fails.
uint32_t read_rules(es_acl_head* head, Difference* difference) {
  const Patience patience(head);
  NameField name;
  es_acl_wire_set_name(name.text, head->name);
  acl_pcx_query_resp counts = {};
  BulkRequest query(ACL_PCX_QUERY_ACE_COUNT_BULK, 1), read(ACL_PCX_READ_ACES_BULK, 1);
  if (!query.ready() || !read.ready()) return ENOMEM;
  query.add(name);
  read.add(name);
  uint32_t length = sizeof counts;
  uint32_t rc = query.send(head->reg_handle, &counts, &length);
  if (rc != 0) return rc;
  es_acl_wire_query_resp_order(&counts);
  if (length != sizeof counts || counts.ver != ES_ACL_PCX_VERSION || counts.num_remark_aces > counts.num_aces)
    return refuse(head, "no usable count", length);
  constexpr uint64_t kLongest = uint64_t{1} << 30;
  const uint64_t expected = uint64_t{counts.num_aces - counts.num_remark_aces} * kAceSize;
  if (expected > kLongest) return refuse(head, "list too long for one answer", expected);
  Records records(counts.num_aces - counts.num_remark_aces + 1);
  length = static_cast<uint32_t>(expected);
  rc = patience.left();
  if (rc == 0) rc = read.send(head->reg_handle, records.data(), &length);
  if (rc != 0) return rc;
  if (length != expected) return refuse(head, "answer of a wrong length", length);
  return compare_all(head, records.data(), length, difference);
}

// One step of the difference, as if it had been pushed for this ACL, whatever ACL the producer's records name. *changed
// says whether it has changed anything, *complete becomes false when the store has not taken all of it.
uint32_t apply_step(es_acl_head* head, uint32_t command, Records& records, bool* changed, bool* complete) {
  if (records.empty()) return 0;
  es_acl_wire_set_name(records.front().acl_name, head->name);
  const AclUse use(head->name);
  uint32_t added = 0;
  const uint32_t rc = update_aces(use, command, records.data(), static_cast<uint32_t>(records.size()), &head,
                                  &added, complete);
  if (rc == 0 && (command == ACL_PCX_REMOVE_ACE || added != 0)) *changed = true;
  return rc;
}

uint32_t apply(es_acl_head* head, Difference& difference, bool* complete) {
  bool changed = false;
  uint32_t rc = apply_step(head, ACL_PCX_REMOVE_ACE, difference.removed(), &changed, complete);
  if (rc == 0) rc = apply_step(head, ACL_PCX_ADD_ACE, difference.added(), &changed, complete);
  if (changed) es_acl_start_cb_timer(head);
  return rc;
}

// While nobody has the ACL yet there is nobody to tell.
uint32_t apply_untold(es_acl_head* head, Difference& difference) {
  es_acl_iter iter = nullptr;
  for (const es_acl_pcx_acl_ace& record : difference.removed())
    es_acl_delete_item_common(head, record.ace.seq, ES_ACL_FORWARD, &iter);
  for (const es_acl_pcx_acl_ace& record : difference.added()) {
    es_acl_ace* const ace = es_acl_alloc_rules();
    if (ace == nullptr) return ENOMEM;
    *ace = record.ace;
    ace->private_data = nullptr;
    const uint32_t rc = es_acl_add_acl_item_common(head, ace, ace->seq, ES_ACL_ADD_REPLACE, &iter);
    if (rc == 0) continue;
    es_acl_free_rules(ace);
    return rc;
  }
  return 0;
}

uint32_t read_anew(es_acl_head* head, Form form, Difference* difference, uint64_t* generation) {
  *generation = pcx_generation(es_acl_dsv_class);
  if (*generation == 0) return ESRCH;
  const uint32_t rc = form == Form::whole ? read_whole(head, difference) : read_rules(head, difference);
  if (rc != 0) return rc;
  difference->end();
  return pcx_generation(es_acl_dsv_class) == *generation ? 0 : EAGAIN;
}

CatchUp run(es_acl_head* head, Form form, AclFill* fill) {
  CatchUp result;
  result.status = pcx_register_anew(head->reg_handle);
  if (result.status != 0) return result;
  if (fill != nullptr) fill->forget();
  Difference difference(head);
  result.status = read_anew(head, form, &difference, &result.generation);
  if (result.status != 0) return result;
  DBG_DETAIL("%s: acl %s: %zu ACEs to remove, %zu to add", kCatchUp, head->name, difference.removed().size(),
             difference.added().size());
  trace_name(kCatchUp, "difference", head->name, difference.removed().size(), difference.added().size());
  bool complete = true;
  if (fill != nullptr) {
    result.status = apply_untold(head, difference);
  } else {
    result.status = apply(head, difference, &complete);
    result.refused = result.status != 0;
  }
  // The store may have had no memory for some, which no callback is told.
  if (result.status == 0 && (!complete || ace_count(head) != difference.listed())) result.status = ENOMEM;
  return result;
}

}  // namespace

CatchUp catch_up(es_acl_head* head, Form form, AclFill* fill) {
  CatchUp result;
  try {
    result = run(head, form, fill);
  } catch (const std::bad_alloc&) {
    result.status = ENOMEM;
  }
  if (result.status == 0) return result;
  DBG_ERR("%s: acl %s is still behind: %s", kCatchUp, head->name, errcode_string(result.status));
  trace_name(kCatchUp, "still behind", head->name, result.status, result.refused);
  return result;
}

}  // namespace es_acl
