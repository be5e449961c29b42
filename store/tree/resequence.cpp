// Renumbering an ACL. Two passes of the same generator: the first, dry, finds out whether the numbers
// suffice; the second writes them into the index's leaves and the records. Nothing moves, for the order
// stays.
#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <vector>

#include "acl.h"

namespace es_tree {

namespace {

// Yields start, start + step, ..., without the numbers of an ascending skip list.
class Numbers {
 public:
  Numbers(uint32_t start, uint32_t step, const std::vector<uint32_t>& skip)
      : next_(start), step_(step), skip_(skip.begin()), end_(skip.end()) {}

  uint64_t take() noexcept {
    while (is_skipped()) next_ += step_;
    const uint64_t number = next_;
    next_ += step_;
    return number;
  }

 private:
  bool is_skipped() noexcept {
    while (skip_ != end_ && *skip_ < next_) ++skip_;
    return skip_ != end_ && *skip_ == next_;
  }

  uint64_t next_;
  const uint64_t step_;
  std::vector<uint32_t>::const_iterator skip_;
  const std::vector<uint32_t>::const_iterator end_;
};

bool suffice(Numbers numbers, uint32_t count) {
  for (; count != 0; --count) {
    if (numbers.take() > std::numeric_limits<uint32_t>::max()) return false;
  }
  return true;
}

}  // namespace

es_acl_status Acl::resequence(uint32_t start, uint32_t step, uint32_t num_skip,
                              const uint32_t* skip) noexcept {
  if (start == 0 || step == 0 || (num_skip != 0 && skip == nullptr)) return EINVAL;
  std::vector<uint32_t> skips;
  try {
    skips.assign(skip, skip + num_skip);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  std::sort(skips.begin(), skips.end());
  Numbers numbers(start, step, skips);
  if (!suffice(numbers, ace_count)) return EINVAL;
  for (Leaf* leaf = index_.first_leaf(); leaf != nullptr; leaf = leaf->next) {
    for (uint32_t i = 0; i != leaf->count; ++i) {
      leaf->keys[i] = static_cast<uint32_t>(numbers.take());
      // Readers without the lock see the old number or the new one.
      __atomic_store_n(&slots_.ace(leaf->values[i])->seq, leaf->keys[i], __ATOMIC_RELAXED);
    }
  }
  index_.rebuild_bounds();
  return 0;
}

}  // namespace es_tree
