#include "slots.h"

#include <cstring>
#include <new>
#include <utility>

#include "memory.h"

namespace es_tree {

namespace {

// The word that stands ES_ACL_ELEMENT_ACE_WORD words behind the element pointer is the element's ACE pointer.
// The nodes in front of the first element are more than that, so the pointer stays within the slab.
constexpr size_t kElementLead = ES_ACL_ELEMENT_ACE_WORD * sizeof(void*);

}  // namespace

SlotPool::~SlotPool() {
  for (const Slab& slab : slabs_) free_slab(slab.nodes, slab.bytes);
}

SlotId SlotPool::take(SlotRun& run) {
  const SlotId id = take_any(run);
  era_of(id) = era_;
  return id;
}

SlotId SlotPool::take_any(SlotRun& run) {
  if (run.left == 0) {
    if (queue_.has_free()) return take_free();
    carve(run);
  }
  --run.left;
  return run.first++;
}

SlotId SlotPool::take_free() noexcept {
  if (const SlotId later = queue_.is_recent() ? kNoSlot : queue_.ahead(kAhead); later != kNoSlot) {
    prefetch(node(later), sizeof(es_acl_ace_node));
    prefetch(element(later), sizeof(Element));
  }
  return queue_.take();
}

// A read-modify-write also where there was no look: whoever looks after it finds the list without what has left it by now.
bool SlotPool::has_been_looked_at() noexcept {
  const bool by_readers = looks_.fetch_add(0, std::memory_order_acq_rel) % 2 != 0;
  if (by_readers) looks_.fetch_add(1, std::memory_order_acq_rel);
  return std::exchange(looked_, false) || by_readers;
}

void SlotPool::begin_era() noexcept {
  if (++era_ != kBefore) return;
  for (const Slab& slab : slabs_) std::memset(slab.eras, kBefore, slots_in(slab.bytes));
  ++era_;
}

void SlotPool::sort_retired() noexcept {
  if (has_been_looked_at()) begin_era();
  for (const SlotId id : retired_) is_known(id) ? queue_.put_retired(id) : queue_.put_free(id);
  num_retired_ = 0;
}

void SlotPool::put_back(SlotRun& run) noexcept {
  for (; run.left != 0; --run.left) queue_.put_free(run.first++);
}

void SlotPool::carve(SlotRun& run) {
  if (slab_used_ == slab_slots_) add_slab();
  run.first = static_cast<SlotId>((slabs_.size() - 1) << kPlaceBits | slab_used_);
  run.left = kRunLength;
  slab_used_ += kRunLength;
  for (SlotId id = run.first; id != run.first + kRunLength; ++id) {
    Element* e = element(id);
    e->ace = &e->record;
    node(id)->element = reinterpret_cast<char*>(e) - kElementLead;
  }
}

void SlotPool::add_slab() {
  if (slabs_.size() > (kNoSlot >> kPlaceBits) - 1) throw std::bad_alloc();
  slabs_.reserve(slabs_.size() < slabs_.capacity() ? slabs_.capacity() : slabs_.size() * 2 + 4);
  const size_t bytes = next_slab_bytes(bytes_, (2 * kRunLength * kSlotBytes + 63) / 64 * 64);
  const size_t slots = slots_in(bytes);
  queue_.reserve(slots_ + slots);
  auto* nodes = static_cast<es_acl_ace_node*>(allocate_slab(bytes));
  if (nodes == nullptr) throw std::bad_alloc();
  auto* elements = reinterpret_cast<Element*>(nodes + slots);
  slabs_.push_back({nodes, elements, reinterpret_cast<uint8_t*>(elements + slots), bytes});
  bytes_ += bytes;
  slots_ += slots;
  slab_slots_ = slots;
  slab_used_ = 0;
}

}  // namespace es_tree
