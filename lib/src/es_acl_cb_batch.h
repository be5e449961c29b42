// A batch that callbacks are shown, and the records of the rules pool in it that the store has not taken yet.
#ifndef ES_ACL_SRC_CB_BATCH_H_
#define ES_ACL_SRC_CB_BATCH_H_

#include <cstdint>
#include <cstring>

#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_types.h"
#include "es_acl_buffer.h"

namespace es_acl {

// Room for n elements, all zero; exists() tells whether there was memory for it. Copies that are left in it go back to
// the pool with it.
class EditBatch {
 public:
  explicit EditBatch(uint32_t n) : elements_(zeroed<ace_edit_info>(n != 0 ? n : 1)) {}
  ~EditBatch() {
    for (uint32_t i = 0; i < size_; ++i)
      if (owned_ && elements_[i].ace != nullptr) es_acl_free_rules(elements_[i].ace);
  }
  EditBatch(const EditBatch&) = delete;
  EditBatch& operator=(const EditBatch&) = delete;

  bool exists() const { return elements_ != nullptr; }
  uint32_t size() const { return size_; }
  ace_edit_info* data() { return elements_.get(); }
  ace_edit_info& operator[](uint32_t i) { return elements_[i]; }

  // A stored ACE that is about to be removed. It stays the store's.
  void show_stored(uint32_t seq, es_acl_ace* stored) { elements_[size_++] = {seq, stored, nullptr, 0}; }

  // A copy of an ACE that is not stored yet. False when the pool has no record for it.
  bool add_copy(const es_acl_ace& ace, es_acl_ace* old_ace) {
    es_acl_ace* const copy = es_acl_alloc_rules();
    if (copy == nullptr) return false;
    *copy = ace;
    owned_ = true;
    elements_[size_++] = {copy->seq, copy, old_ace, old_ace == nullptr ? 1U : 0U};
    return true;
  }

  // Empties a batch of stored ACEs for its next use.
  void clear() {
    std::memset(elements_.get(), 0, size_ * sizeof(ace_edit_info));
    size_ = 0;
  }

  // The record is no longer this batch's.
  es_acl_ace* release(uint32_t i) {
    es_acl_ace* const ace = elements_[i].ace;
    elements_[i].ace = nullptr;
    return ace;
  }

 private:
  Buffer<ace_edit_info> elements_;
  uint32_t size_ = 0;
  bool owned_ = false;  // the batch holds copies: the two kinds never mix
};

}  // namespace es_acl

#endif  // ES_ACL_SRC_CB_BATCH_H_
