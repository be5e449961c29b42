#include "slot_queue.h"

#include <algorithm>
#include <bit>
#include <memory>

#include "clock.h"

namespace es_tree {

SlotQueue::~SlotQueue() { release(); }

void SlotQueue::release() noexcept {
  const size_t size = size_t{mask_} + 1;
  if (slots_ != nullptr) std::allocator<uint32_t>().deallocate(slots_, size + size / kBlock);
}

// What no slot waits in is not touched: an ACL from which nothing is removed has no memory for it.
void SlotQueue::reserve(size_t slots) {
  if (slots_ != nullptr && slots <= size_t{mask_} + 1) return;
  const size_t size = std::max<size_t>(std::bit_ceil(slots), kBlock);
  SlotId* const larger = std::allocator<uint32_t>().allocate(size + size / kBlock);
  uint32_t* const times = larger + size;
  const auto mask = static_cast<uint32_t>(size - 1);
  for (uint32_t at = free_; at != end_; ++at) larger[at & mask] = slot(at);
  for (uint32_t at = waiting_; end_ - at >= kBlock; at += kBlock) times[(at & mask) / kBlock] = time_of(at);
  release();
  slots_ = larger;
  times_ = times;
  mask_ = mask;
}

void SlotQueue::close_block() noexcept {
  const auto now = static_cast<uint32_t>(now_ms());
  time_of(end_ - kBlock) = now;
  age(now);
}

void SlotQueue::age() noexcept {
  if (has_block()) age(static_cast<uint32_t>(now_ms()));
}

void SlotQueue::age(uint32_t now) noexcept {
  while (has_block()) {
    const uint32_t grace = end_ - waiting_ < kManyWaiting ? kGraceMs : kShortGraceMs;
    if (now - time_of(waiting_) < grace) return;
    waiting_ += kBlock;
  }
}

}  // namespace es_tree
