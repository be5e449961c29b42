// One pass over an ACL's list: searches, additions or deletions of many ACEs, one after the other.
//
// Each is an operation of es_acl.h with a store call of its own, and the position is carried from one to the next; where
// the store offers one call for several ACEs, and nothing has to be done between them, that is made instead.
#ifndef ES_ACL_SRC_DB_PASS_H_
#define ES_ACL_SRC_DB_PASS_H_

#include <algorithm>
#include <cstdint>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_store.h"
#include "es_db_private.h"

namespace es_acl {

class Pass {
 public:
  // `batches` is what the store offers, or null where something is to be done between the steps.
  Pass(es_acl_head* acl, const es_acl_batch_table* batches) : acl_(acl), batches_(batches) {}

  // Calls do_piece(first, count) for n ACEs in pieces of as many as go with one step.
  template <typename DoPiece>
  void in_pieces(uint32_t n, DoPiece do_piece) const {
    const uint32_t width = batches_ != nullptr ? ES_ACL_BATCH_MAX : 1;
    for (uint32_t first = 0; first < n; first += width) do_piece(first, std::min(width, n - first));
  }
  es_acl_batch_item& operator[](uint32_t i) { return items_[i]; }
  es_acl_iter position() const { return iter_; }

  // The steps, for the first n items, filled in as es_acl_batch_item says. A record that is added is left in its item
  // when it is still the caller's. What is found may be shown to callbacks.
  void search_back(uint32_t n) {
    if (batches_ != nullptr) return call(batches_->search, n, true);
    for (es_acl_batch_item* item = items_; item != items_ + n; ++item)
      *item = {item->seq, 0, es_acl_search_item_biter(acl_, item->seq, &iter_), nullptr, 0};
  }
  void search_forward(uint32_t n) {
    if (batches_ != nullptr) return call(batches_->search, n, true);
    for (es_acl_batch_item* item = items_; item != items_ + n; ++item)
      *item = {item->seq, 0, es_acl_search_item_fiter(acl_, item->seq, &iter_), nullptr, 0};
  }
  void add(uint32_t n) {
    if (batches_ != nullptr) return call(batches_->add, n);
    for (es_acl_batch_item* item = items_; item != items_ + n; ++item) {
      item->status = es_acl_add_acl_item_common(acl_, item->ace, item->seq, item->flag, &iter_);
      if (item->status == 0) item->ace = nullptr;
    }
  }
  void remove(uint32_t n) {
    if (batches_ != nullptr) return call(batches_->remove, n);
    for (es_acl_batch_item* item = items_; item != items_ + n; ++item)
      es_acl_delete_item_common(acl_, item->seq, ES_ACL_FORWARD, &iter_);
  }

 private:
  void call(es_acl_batch_fn operation, uint32_t n, bool looks = false) {
    if (n == 0) return;
    const AclLock lock(acl_);
    if (looks) begin_look(acl_);
    operation(acl_, items_, n);
  }

  es_acl_head* const acl_;
  const es_acl_batch_table* const batches_;
  es_acl_iter iter_ = nullptr;
  es_acl_batch_item items_[ES_ACL_BATCH_MAX];
};

}  // namespace es_acl

#endif  // ES_ACL_SRC_DB_PASS_H_
