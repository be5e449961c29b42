// A batch that callbacks are shown, and the copies in it that the store has not taken yet.
#ifndef ES_ACL_SRC_CB_BATCH_H_
#define ES_ACL_SRC_CB_BATCH_H_

#include <cstdint>
#include <cstring>
#include <utility>

#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_types.h"
#include "es_acl_buffer.h"

namespace es_acl {

// Room for n elements, all zero, and as many marks of the store's; exists() tells whether there was memory for it. Additions
// are copied to records of the rules pool, which go back with the batch.
class EditBatch {
 public:
  explicit EditBatch(uint32_t n)
      : room_(n), elements_(zeroed<ace_edit_info>(room_ + room_ / kMarksInElement + 1)) {}
  ~EditBatch() {
    for (uint32_t i = 0; i < size_; ++i) give_back(i);
  }
  EditBatch(const EditBatch&) = delete;
  EditBatch& operator=(const EditBatch&) = delete;

  bool exists() const { return elements_ != nullptr; }
  uint32_t size() const { return size_; }
  ace_edit_info* data() { return elements_.get(); }
  ace_edit_info& operator[](uint32_t i) { return elements_[i]; }
  void*& mark(uint32_t i) { return reinterpret_cast<void**>(elements_.get() + room_)[i]; }

  // A stored ACE that is about to be removed. It stays the store's.
  void show_stored(uint32_t seq, es_acl_ace* stored) { elements_[size_++] = {seq, stored, nullptr, 0}; }

  // Before the first addition; a batch of stored ACEs is emptied.
  void begin_additions() {
    std::memset(elements_.get(), 0, size_ * sizeof(ace_edit_info));
    size_ = 0;
    copies_ = true;
  }

  // An ACE that is not stored yet, and its mark. False when the pool has no record for its copy.
  bool add(const es_acl_ace* ace, es_acl_ace* old_ace, void* mark_of_ace = nullptr) {
    es_acl_ace* const copy = es_acl_alloc_rules();
    if (copy == nullptr) return false;
    *copy = *ace;
    mark(size_) = mark_of_ace;
    elements_[size_++] = {ace->seq, copy, old_ace, old_ace == nullptr ? 1U : 0U};
    return true;
  }

  // The copy is the store's.
  void taken(uint32_t i) { elements_[i].ace = nullptr; }
  // The copy, if it is one, goes back to the pool before the others do.
  void give_back(uint32_t i) {
    if (copies_ && elements_[i].ace != nullptr) es_acl_free_rules(std::exchange(elements_[i].ace, nullptr));
  }

 private:
  static constexpr size_t kMarksInElement = sizeof(ace_edit_info) / sizeof(void*);

  const size_t room_;
  Buffer<ace_edit_info> elements_;  // and the marks behind them
  uint32_t size_ = 0;
  bool copies_ = false;  // the elements are additions, and copies
};

}  // namespace es_acl

#endif  // ES_ACL_SRC_CB_BATCH_H_
