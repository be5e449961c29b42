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
    if (free_.first != kNoSlot) return take_free();
    carve(run);
  }
  --run.left;
  return run.first++;
}

SlotId SlotPool::take_free() noexcept {
  const SlotId id = free_.first;
  free_.first = link(id);
  if (fetched_ != 0) --fetched_;
  fetch_ahead();
  return id;
}

void SlotPool::fetch_ahead() noexcept {
  while (fetched_ < kAhead) {
    const SlotId next = fetched_ == 0 ? free_.first : link(ahead_);
    if (next == kNoSlot) return;
    const auto* record = reinterpret_cast<const char*>(element(next));
    __builtin_prefetch(node(next), 1);
    __builtin_prefetch(record, 1);
    __builtin_prefetch(record + sizeof(Element) - 1, 1);
    ahead_ = next;
    ++fetched_;
  }
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
  link(id) = kNoSlot;
  append(to, one);
}

void SlotPool::append(Chain& to, Chain& from) noexcept {
  if (from.first == kNoSlot) return;
  if (to.first == kNoSlot) {
    to = from;
  } else {
    link(to.last) = from.first;
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
  auto* elements = reinterpret_cast<Element*>(nodes + slots);
  slabs_.push_back({nodes, elements, reinterpret_cast<SlotId*>(elements + slots), bytes});
  bytes_ += bytes;
  slab_slots_ = slots;
  slab_used_ = 0;
}

}  // namespace es_tree
