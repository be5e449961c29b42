#include "slots.h"

#include <new>

#include "clock.h"
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
  if (run.left == 0) {
    age();
    if (free_.first != kNoSlot) {
      const SlotId id = free_.first;
      free_.first = static_cast<SlotId>(reinterpret_cast<uintptr_t>(node(id)->aux));
      if (free_.first == kNoSlot)
        free_.last = kNoSlot;
      else
        prefetch_after(free_.first);
      return id;
    }
    carve(run);
  }
  --run.left;
  return run.first++;
}

// A slot that has waited out its grace time has left the caches, and its taker will write all of it: the one after the
// next is asked for, whose number the next one holds.
void SlotPool::prefetch_after(SlotId next) const noexcept {
  const SlotId id = static_cast<SlotId>(reinterpret_cast<uintptr_t>(node(next)->aux));
  if (id == kNoSlot) return;
  const auto* record = reinterpret_cast<const char*>(element(id));
  __builtin_prefetch(node(id), 1);
  __builtin_prefetch(record, 1);
  __builtin_prefetch(record + sizeof(Element) - 1, 1);
}

void SlotPool::put_back(SlotRun& run) noexcept {
  for (; run.left != 0; --run.left) chain(free_, run.first++);
}

void SlotPool::retire(SlotId id) noexcept {
  age();
  if (young_.first == kNoSlot && old_.first == kNoSlot) young_since_ = now_ms();
  chain(young_, id);
  ++young_count_;
}

void SlotPool::chain(Chain& to, SlotId id) noexcept {
  Chain one{id, id};
  node(id)->aux = reinterpret_cast<es_acl_ace_node*>(static_cast<uintptr_t>(kNoSlot));
  append(to, one);
}

void SlotPool::append(Chain& to, Chain& from) noexcept {
  if (from.first == kNoSlot) return;
  if (to.first == kNoSlot) {
    to = from;
  } else {
    node(to.last)->aux = reinterpret_cast<es_acl_ace_node*>(static_cast<uintptr_t>(from.first));
    to.last = from.last;
  }
  from = Chain{};
}

void SlotPool::age() noexcept {
  if (young_.first == kNoSlot && old_.first == kNoSlot) return;
  const uint64_t now = now_ms();
  const uint64_t grace = young_count_ < kManyRetired ? kGraceMs : kShortGraceMs;
  if (now - young_since_ < grace) return;
  append(free_, old_);
  // A young generation that nobody has looked at for two grace times is old enough to be free as well.
  append(now - young_since_ < 2 * kGraceMs ? old_ : free_, young_);
  young_since_ = now;
  young_count_ = 0;
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
  const size_t bytes = next_slab_bytes(bytes_, 2 * kRunLength * kSlotBytes);
  auto* nodes = static_cast<es_acl_ace_node*>(allocate_slab(bytes));
  if (nodes == nullptr) throw std::bad_alloc();
  const size_t slots = bytes / kSlotBytes / kRunLength * kRunLength;
  slabs_.push_back({nodes, reinterpret_cast<Element*>(nodes + slots), bytes});
  bytes_ += bytes;
  slab_slots_ = slots;
  slab_used_ = 0;
}

}  // namespace es_tree
