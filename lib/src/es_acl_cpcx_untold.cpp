#include "es_acl_cpcx_untold.h"

#include <algorithm>

#include "es_acl/es_acl.h"
#include "es_acl_cb_private.h"
#include "es_acl_diag.h"
#include "es_acl_state.h"
#include "es_db_private.h"

namespace es_acl {
namespace {

// Calls do_piece(first, count) for as many of n as go with one call of the store.
template <typename DoPiece>
void in_pieces(uint32_t n, DoPiece do_piece) {
  for (uint32_t first = 0; first < n; first += ES_ACL_BATCH_MAX)
    do_piece(first, std::min<uint32_t>(ES_ACL_BATCH_MAX, n - first));
}

bool is_remark(const es_acl_ace* ace) { return ace->kind == ES_ACL_KIND_REMARK; }

}  // namespace

UntoldUpdate::UntoldUpdate(const PushedBatch& pushed, const es_acl_batch_table& store)
    : pushed_(pushed),
      store_(store),
      add_only_(es_acl_modify_mode.load(std::memory_order_relaxed) == ES_ACL_MODIFY_ADD_ONLY),
      many_(pushed.n > kFew ? uninitialised<es_acl_batch_item>(pushed.n) : nullptr),
      items_(pushed.n > kFew ? many_.get() : few_) {}

uint32_t UntoldUpdate::run(uint32_t* changed) {
  if (pushed_.command == ACL_PCX_REMOVE_ACE) {
    remove();
    return 0;
  }
  collect_additions();
  if (additions_ == 0) return 0;
  trace_untold();
  if (changed != nullptr) *changed = 1;
  add_all();
  return 0;
}

void UntoldUpdate::call(es_acl_batch_fn operation, uint32_t first, uint32_t count) {
  const AclLock lock(pushed_.acl);
  operation(pushed_.acl, &items_[first], count);
}

// Looks for the records from `first` on, with the items from `at` on.
void UntoldUpdate::search(uint32_t first, uint32_t at, uint32_t count) {
  const es_acl_pcx_acl_ace* const records = pushed_.records + first;
  es_acl_batch_item* const items = &items_[at];
  for (uint32_t k = 0; k < count; ++k) items[k].seq = records[k].ace.seq;
  call(store_.search, at, count);
}

void UntoldUpdate::report_removals() const {
  if (removals_ == 0) return;
  trace(kUpdate, "reporting removals", removals_);
  trace_untold();
}

void UntoldUpdate::remove() {
  in_pieces(pushed_.n, [&](uint32_t first, uint32_t count) {
    search(first, first, count);
    for (uint32_t k = first; k < first + count; ++k)
      removals_ += items_[k].ace != nullptr && !is_remark(items_[k].ace);
  });
  report_removals();
  in_pieces(pushed_.n, [&](uint32_t first, uint32_t count) { call(store_.remove, first, count); });
}

// Whether the ACE is to be added. With "delete and add" one that is stored already is marked by sequence number 0.
inline bool UntoldUpdate::changes(es_acl_ace& ace, const es_acl_ace* stored) {
  if (add_only_) return ace.seq != 0 && (stored == nullptr || !equal(*stored, ace));
  if (stored == nullptr || is_remark(stored)) return ace.seq != 0;
  if (equal(*stored, ace))
    ace.seq = 0;
  else
    ++removals_;
  return ace.seq != 0;
}

// Of the items from `at` on, which the records from `first` on were looked for with, those that are to be added move up.
void UntoldUpdate::keep(uint32_t first, uint32_t at, uint32_t count) {
  es_acl_pcx_acl_ace* const records = pushed_.records + first;
  const es_acl_batch_item* const found = &items_[at];
  es_acl_batch_item* kept = &items_[at];
  for (uint32_t k = 0; k < count; ++k) {
    es_acl_ace& ace = records[k].ace;
    if (!changes(ace, found[k].ace)) continue;
    ace.private_data = nullptr;
    const uint32_t flag = add_only_ && found[k].ace == nullptr ? ES_ACL_ADD_KEEP : ES_ACL_ADD_REPLACE;
    *kept++ = {ace.seq, flag, &ace, found[k].mark, 0};
  }
  additions_ = static_cast<uint32_t>(kept - items_);
}

void UntoldUpdate::collect_additions() {
  in_pieces(pushed_.n, [&](uint32_t first, uint32_t count) {
    const uint32_t at = additions_;
    search(first, at, count);
    keep(first, at, count);
  });
  report_removals();
}

void UntoldUpdate::add_all() {
  in_pieces(additions_, [&](uint32_t first, uint32_t count) {
    call(store_.add, first, count);
    for (uint32_t k = first; k < first + count; ++k) complete_ &= items_[k].status == 0;
  });
}

}  // namespace es_acl
