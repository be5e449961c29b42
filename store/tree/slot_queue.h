// The slots of one ACL that are not in the list any more: those that may be taken again, and behind them those that
// have to wait, because a reader without the lock may still look at them. Which these are the pool knows (slots.h).
//
// Slots wait in the order in which they were retired, kBlock to a block, and a block carries one time, that of its last
// slot. So the clock is looked at once for a block, and what waits is little more than what was retired within the
// grace time. Where so many are retired that this would be gigabytes, and each fresh slot fresh memory, the grace time
// is a shorter one.
//
// The queue is an array apart from the slots. A slot that has waited has left the caches; here the next ones are known
// before they are taken, and can be asked for.
//
// Not thread-safe: the ACL's lock guards it.
#ifndef ES_ACL_STORE_TREE_SLOT_QUEUE_H_
#define ES_ACL_STORE_TREE_SLOT_QUEUE_H_

#include <cstddef>
#include <cstdint>

namespace es_tree {

// A slot's number: its slab's in the upper bits, its place in the slab in the lower ones.
using SlotId = uint32_t;
inline constexpr SlotId kNoSlot = 0xffffffff;

class SlotQueue {
 public:
  // How long a retired slot waits; and how long at least when so many wait.
  static constexpr uint32_t kGraceMs = 3000;
  static constexpr uint32_t kShortGraceMs = 30;
  static constexpr uint32_t kManyWaiting = 1 << 16;

  SlotQueue() = default;
  ~SlotQueue();
  SlotQueue(const SlotQueue&) = delete;
  SlotQueue& operator=(const SlotQueue&) = delete;

  // Room for all the slots that there are. Throws std::bad_alloc; nothing has changed then.
  void reserve(size_t slots);

  // A slot that no reader can know is free at once, and will be taken before those that have waited.
  void put_free(SlotId id) noexcept {
    slot(--free_) = id;
    ++recent_;
  }
  void put_retired(SlotId id) noexcept {
    slot(end_++) = id;
    if (end_ % kBlock == 0) close_block();
  }

  // Whether a slot is free. What has waited long enough becomes free here, when nothing else is.
  bool has_free() noexcept {
    if (free_ == waiting_) age();
    return free_ != waiting_;
  }
  // Whether the next one has not waited, so that it probably is in the caches.
  bool is_recent() const noexcept { return recent_ != 0; }
  // Only when there is one.
  SlotId take() noexcept {
    recent_ -= recent_ != 0;
    return slot(free_++);
  }
  // The free slot that will be taken after `n` others; kNoSlot when there is none.
  SlotId ahead(uint32_t n) const noexcept { return waiting_ - free_ > n ? slot(free_ + n) : kNoSlot; }

 private:
  static constexpr uint32_t kBlock = 16;

  SlotId& slot(uint32_t position) const noexcept { return slots_[position & mask_]; }
  uint32_t& time_of(uint32_t position) const noexcept { return times_[(position & mask_) / kBlock]; }
  bool has_block() const noexcept { return end_ - waiting_ >= kBlock; }
  void close_block() noexcept;
  void age() noexcept;
  void age(uint32_t now) noexcept;
  void release() noexcept;

  // A ring. Positions count on and on; a slot's place is its position's remainder. From `free_` on the slots are free,
  // from `waiting_` on, always where a block begins, they wait, up to `end_`.
  SlotId* slots_ = nullptr;
  uint32_t* times_ = nullptr;  // of the blocks, behind the slots
  uint32_t mask_ = 0;
  uint32_t free_ = 0;
  uint32_t waiting_ = 0;
  uint32_t end_ = 0;
  uint32_t recent_ = 0;  // so many of the free ones have not waited
};

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_SLOT_QUEUE_H_
