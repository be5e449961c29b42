// Applying a pushed batch: find out what really changes, tell the update callbacks, then change the list.
//
// Runs on the delivery thread. Every search, deletion and addition takes the ACL's lock for itself, so that other
// threads can see the list part-way changed; where the store offers one call for several of them, that call does. Nothing
// is stored before all callbacks have agreed; a batch that is refused leaves the list as it was.
//
// A batch that nobody is told of is applied with less (es_acl_cpcx_untold.h).
//
// With "delete and add" an ACE that replaces another is reported as a removal and then as an addition; ACEs that are
// stored already are marked by sequence number 0 in the records. With "add only" the addition carries the old ACE.
#include <cerrno>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_cb_batch.h"
#include "es_acl_cb_private.h"
#include "es_acl_cpcx_private.h"
#include "es_acl_cpcx_untold.h"
#include "es_acl_db_pass.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"
#include "es_acl_state.h"
#include "es_acl_sync_private.h"
#include "es_db_private.h"

namespace es_acl {
namespace {

bool prints_lines() {
  return debug_enabled(ES_ACL_DBG_INFO) != nullptr || debug_enabled(ES_ACL_DBG_DETAIL) != nullptr;
}

// A batch's lines are printed or not as things stand when it comes: what is asked for each of its ACEs has to be cheap.
#define BATCH_DETAIL(...)      \
  do {                         \
    if (prints_) [[unlikely]]  \
      DBG_DETAIL(__VA_ARGS__); \
  } while (0)

bool add_only() { return es_acl_modify_mode.load(std::memory_order_relaxed) == ES_ACL_MODIFY_ADD_ONLY; }

class Update {
 public:
  explicit Update(const PushedBatch& pushed)
      : prints_(prints_lines()),
        batches_(prints_ ? nullptr : es_acl_batches),
        acl_(pushed.acl),
        command_(pushed.command),
        records_(pushed.records),
        n_(pushed.n),
        batch_(pushed.n) {}

  // Whether there was memory for it.
  bool exists() const { return batch_.exists(); }

  // *changed, when non-null, is set to 1 when an addition was reported and made.
  uint32_t run(uint32_t* changed);
  // Whether the store has taken all that has been made.
  bool complete() const { return complete_; }

 private:
  uint32_t scanned(uint32_t k) const;
  void look_for(Pass* pass, uint32_t first, uint32_t count);
  void judge(uint32_t i, es_acl_ace* found);
  void scan_for_removals();
  uint32_t report_removals();
  void remove_all();
  uint32_t collect(uint32_t i, es_acl_ace* old, void* mark);
  uint32_t collect_piece(Pass* pass, uint32_t first, uint32_t count);
  uint32_t collect_additions();
  uint32_t report_additions();
  static void fill(es_acl_batch_item* item, const ace_edit_info& element);
  void settle(uint32_t j, const es_acl_batch_item& item);
  void add_all();

  const bool prints_;                        // lines about single ACEs
  const es_acl_batch_table* const batches_;  // null: one ACE at a time
  es_acl_head* acl_;
  uint32_t command_;
  es_acl_pcx_acl_ace* records_;
  uint32_t n_;
  bool complete_ = true;
  EditBatch batch_;  // of the removals first, then of the additions
};

// The record that the removal scan comes to as the k-th: a removal's first to last, an addition's last to first.
uint32_t Update::scanned(uint32_t k) const { return command_ == ACL_PCX_REMOVE_ACE ? k : n_ - 1 - k; }

// Where lines are printed, one at a time.
void Update::look_for(Pass* pass, uint32_t first, uint32_t count) {
  for (uint32_t k = 0; k < count; ++k) (*pass)[k].seq = records_[scanned(first + k)].ace.seq;
  BATCH_DETAIL("%s: i %u acl %s Looking for ace %u iter%p", kUpdate, scanned(first), acl_->name,
               (*pass)[0].seq, pass->position());
  pass->search_back(count);
  BATCH_DETAIL("%s: es_acl_search_item_biter returned%p iter %p", kUpdate, static_cast<void*>((*pass)[0].ace),
               pass->position());
}

void Update::judge(uint32_t i, es_acl_ace* found) {
  if (found == nullptr) return;
  es_acl_ace& ace = records_[i].ace;
  BATCH_DETAIL("%s: i %u acl %s ace %u found", kUpdate, i, acl_->name, ace.seq);
  if (found->kind == ES_ACL_KIND_REMARK) return;
  if (command_ != ACL_PCX_REMOVE_ACE && es_acl_compare_ace(found, &ace) != 0) {
    BATCH_DETAIL("%s: i %u compare ace succeeded, seq %u", kUpdate, i, ace.seq);
    ace.seq = 0;
    return;
  }
  BATCH_DETAIL("%s: adding to batch, i %u seq %u curr_batch_size %u", kUpdate, i, ace.seq, batch_.size());
  batch_.show_stored(ace.seq, found);
}

// Several records are looked for before the first of them is looked at: what the store has found is mostly not in the
// caches yet, and is fetched side by side.
void Update::scan_for_removals() {
  Pass pass(acl_, batches_);
  pass.in_pieces(n_, [&](uint32_t first, uint32_t count) {
    look_for(&pass, first, count);
    for (uint32_t k = 0; k < count; ++k) {
      const uint32_t i = scanned(first + k);
      batch_.mark(i) = pass[k].mark;
      judge(i, pass[k].ace);
    }
  });
}

uint32_t Update::report_removals() {
  scan_for_removals();
  if (batch_.size() == 0) return 0;
  BATCH_DETAIL("%s: calling incremental_callback for remove: batch_size %u", kUpdate, batch_.size());
  trace(kUpdate, "reporting removals", batch_.size());
  const uint32_t rc = es_acl_invoke_update_callback(acl_, ACL_REMOVE_ACE, batch_.size(), batch_.data());
  if (rc != 0) DBG_ERR("%s: failed for ACL_REMOVE_ACE: %s", kUpdate, errcode_string(rc));
  return rc;
}

void Update::remove_all() {
  Pass pass(acl_, batches_);
  pass.in_pieces(n_, [&](uint32_t first, uint32_t count) {
    for (uint32_t k = 0; k < count; ++k) {
      pass[k].seq = records_[first + k].ace.seq;
      pass[k].mark = batch_.mark(first + k);
    }
    BATCH_DETAIL("%s: Removing entry %d: sequence: %u", kUpdate, static_cast<int>(first), pass[0].seq);
    pass.remove(count);
  });
}

// Puts one record's ACE into the batch of additions, unless it is stored already.
uint32_t Update::collect(uint32_t i, es_acl_ace* old, void* mark) {
  es_acl_ace& ace = records_[i].ace;
  if (old != nullptr && es_acl_compare_ace(old, &ace) != 0) return 0;
  BATCH_DETAIL("%s: %s entry %u", kUpdate, old != nullptr ? "Updating" : "Adding", ace.seq);
  if (batch_.add(&ace, old, mark)) return 0;
  DBG_ERR("%s: Memory cannot be allocated for ace", kUpdate);
  return ENOMEM;
}

uint32_t Update::collect_piece(Pass* pass, uint32_t first, uint32_t count) {
  const bool searches = add_only();
  uint32_t asked = 0;
  for (uint32_t i = first; searches && i < first + count; ++i)
    if (records_[i].ace.seq != 0) (*pass)[asked++].seq = records_[i].ace.seq;
  pass->search_forward(asked);
  asked = 0;
  for (uint32_t i = first; i < first + count; ++i) {
    if (records_[i].ace.seq == 0) {
      BATCH_DETAIL("%s: skipping item %d duplicate", kUpdate, static_cast<int>(i));
      continue;
    }
    const es_acl_batch_item* const found = searches ? &(*pass)[asked++] : nullptr;
    const uint32_t rc =
        found != nullptr ? collect(i, found->ace, found->mark) : collect(i, nullptr, batch_.mark(i));
    if (rc != 0) return rc;
  }
  return 0;
}

uint32_t Update::collect_additions() {
  batch_.begin_additions();
  Pass pass(acl_, batches_);
  uint32_t rc = 0;
  pass.in_pieces(n_, [&](uint32_t first, uint32_t count) {
    if (rc == 0) rc = collect_piece(&pass, first, count);
  });
  return rc;
}

uint32_t Update::report_additions() {
  const uint32_t rc = es_acl_invoke_update_callback(acl_, ACL_ADD_ACE, batch_.size(), batch_.data());
  if (rc != 0) DBG_ERR("%s: failed for ACL_ADD_ACE: %s", kUpdate, errcode_string(rc));
  return rc;
}

// A record is the store's once added, unless it says otherwise; what the store refuses goes back to the pool, and the
// others are added all the same.
void Update::add_all() {
  Pass pass(acl_, batches_);
  pass.in_pieces(batch_.size(), [&](uint32_t first, uint32_t count) {
    for (uint32_t k = 0; k < count; ++k) {
      fill(&pass[k], batch_[first + k]);
      pass[k].mark = batch_.mark(first + k);
    }
    pass.add(count);
    for (uint32_t k = 0; k < count; ++k) settle(first + k, pass[k]);
  });
}

void Update::fill(es_acl_batch_item* item, const ace_edit_info& element) {
  item->seq = element.seq;
  item->flag = add_only() && element.is_new != 0 ? ES_ACL_ADD_KEEP : ES_ACL_ADD_REPLACE;
  item->ace = element.ace;
  item->ace->private_data = nullptr;
}

void Update::settle(uint32_t j, const es_acl_batch_item& item) {
  if (item.status == 0) {
    if (item.ace == nullptr) batch_.taken(j);
    return;
  }
  batch_.give_back(j);
  complete_ = false;
  BATCH_DETAIL("%s: es_acl_add_acl_item_common fail for acl %s sequence %u", kUpdate, acl_->name, item.seq);
}

uint32_t Update::run(uint32_t* changed) {
  uint32_t rc = command_ == ACL_PCX_REMOVE_ACE || !add_only() ? report_removals() : 0;
  if (rc != 0) return rc;
  if (command_ == ACL_PCX_REMOVE_ACE) {
    remove_all();
    return 0;
  }
  rc = collect_additions();
  if (rc != 0 || batch_.size() == 0) return rc;
  rc = report_additions();
  if (rc != 0) return rc;
  if (changed != nullptr) *changed = 1;
  add_all();
  return 0;
}

template <typename Kind>
uint32_t run(Kind update, const PushedBatch& pushed, uint32_t* changed, bool* complete) {
  const char* const name = pushed.records->acl_name;
  if (!update.exists()) {
    trace(kUpdate, "no memory for a batch", pushed.n);
    DBG_ERR("%s: memory alloc for ace_edit_info failed: ACL name:%s", kUpdate, name);
    return ENOMEM;
  }
  DBG_DETAIL("%s Received a batch of %u of ACL %s for %s", kUpdate, pushed.n, name,
             pushed.command == ACL_PCX_REMOVE_ACE ? "ACL_PCX_REMOVE_ACE" : "ACL_PCX_ADD_ACE");
  trace_name(kUpdate, "batch", name, pushed.n, pushed.command);
  const uint32_t rc = update.run(changed);
  if (!update.complete()) *complete = false;
  return rc;
}

uint32_t apply(const PushedBatch& pushed, uint32_t* changed, bool* complete) {
  const es_acl_batch_table* const store = es_acl_batches;
  if (store != nullptr && !prints_lines() && es_acl_update_notify.get() == nullptr)
    return run(UntoldUpdate(pushed, *store), pushed, changed, complete);
  return run(Update(pushed), pushed, changed, complete);
}

}  // namespace

es_acl_status update_aces(const AclUse& use, uint32_t command, es_acl_pcx_acl_ace* records, uint32_t n,
                          es_acl_head** head, uint32_t* changed, bool* complete) {
  DBG_INFO("Entering %s", kUpdate);
  if (records == nullptr || n == 0 || head == nullptr) {
    DBG_ERR("%s: Invalid arguments", kUpdate);
    trace(kUpdate, "invalid arguments", EINVAL);
    return EINVAL;
  }
  records->acl_name[ES_ACL_NAME_MAX] = '\0';
  es_acl_head* const acl = es_acl_lookup_internal(records->acl_name);
  if (acl == nullptr || use.leaving()) {
    DBG_ERR("%s: acl lookup failed", kUpdate);
    trace(kUpdate, "no such ACL", EINVAL);
    return EINVAL;
  }
  *head = acl;
  return apply({acl, command, records, n}, changed, complete);
}

}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_cpcx_handle_pcx_update_ace(uint32_t command, es_acl_pcx_acl_ace* records, uint32_t n,
                                                es_acl_head** head, uint32_t* changed) {
  const AclUse use(records != nullptr && n != 0 ? records->acl_name : nullptr);
  bool complete = true;
  const uint32_t rc = update_aces(use, command, records, n, head, changed, &complete);
  if (!complete && !use.leaving()) sync_missed((*head)->name);
  return rc;
}
