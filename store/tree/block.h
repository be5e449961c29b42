// A sorted block of keys and their values: the common shape of the index's nodes.
//
// The keys behind the last are kept at the largest number, so that a search need not know how many there are.
// It looks at every eighth key and then at the eight keys of one group: no step waits for the one before, the
// cache lines of the keys are fetched side by side, and there is no branch that a random key could make
// mispredicted.
#ifndef ES_ACL_STORE_TREE_BLOCK_H_
#define ES_ACL_STORE_TREE_BLOCK_H_

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace es_tree {

inline constexpr uint32_t kFanout = 64;

template <typename Value>
struct alignas(64) Block {
  uint32_t keys[kFanout];
  Value values[kFanout];
  uint32_t count;

  Block() noexcept { clear(); }
  void clear() noexcept { truncate(0); }

  bool full() const noexcept { return count == kFanout; }
  bool scarce() const noexcept { return count < kFanout / 4; }
  uint32_t first_key() const noexcept { return keys[0]; }
  uint32_t last_key() const noexcept { return keys[count - 1]; }
  bool spans(uint32_t key) const noexcept { return count != 0 && keys[0] <= key && key <= last_key(); }

  // Whether a block beside this one is likely to span the key: it is no farther away than this block is wide. To look
  // there in vain would cost as much as to come from the root.
  bool spans_near(uint32_t key) const noexcept {
    if (count == 0) return false;
    const uint32_t width = last_key() - keys[0];
    return key < keys[0] ? keys[0] - key <= width : key - last_key() <= width;
  }

  // The number of keys less than `key`.
  uint32_t lower_bound(uint32_t key) const noexcept {
    static_assert(kFanout == 64 && kGroup == 8);
    const uint32_t group = (keys[8] < key) + (keys[16] < key) + (keys[24] < key) + (keys[32] < key) +
                           (keys[40] < key) + (keys[48] < key) + (keys[56] < key);
    const uint32_t* in = keys + group * kGroup;
    uint32_t pos = group * kGroup;
    for (uint32_t i = 0; i != kGroup; ++i) pos += in[i] < key;
    return pos;
  }

  // The last place whose key is not greater than `key`; the first one if there is none.
  uint32_t child_of(uint32_t key) const noexcept {
    if (key == kNoKey) return count - 1;
    const uint32_t pos = lower_bound(key + 1);
    return pos - (pos != 0);
  }

  // Asks for the values' cache lines, which the search that follows will make known too late.
  void prefetch_values() const noexcept {
    for (uint32_t i = 0; i < kFanout; i += 64 / sizeof(Value)) __builtin_prefetch(values + i);
  }

  void insert_at(uint32_t pos, uint32_t key, Value value) noexcept {
    shift(pos, pos + 1);
    keys[pos] = key;
    values[pos] = value;
    ++count;
  }

  void erase_at(uint32_t pos) noexcept {
    shift(pos + 1, pos);
    keys[--count] = kNoKey;
  }

  // Moves everything from `pos` on to the empty block.
  void move_tail(uint32_t pos, Block& right) noexcept {
    right.copy(0, *this, pos, count - pos);
    right.count = count - pos;
    truncate(pos);
  }

  // Takes over the whole of the block to the right, which must fit.
  void absorb(Block& right) noexcept {
    copy(count, right, 0, right.count);
    count += right.count;
    right.clear();
  }

  // Evens this block and the one to its right out.
  void share(Block& right) noexcept {
    const uint32_t mine = (count + right.count) / 2;
    if (count > mine) {
      const uint32_t moved = count - mine;
      right.shift(0, moved);
      right.copy(0, *this, mine, moved);
      right.count += moved;
      truncate(mine);
    } else {
      const uint32_t moved = mine - count;
      copy(count, right, 0, moved);
      count = mine;
      right.shift(moved, 0);
      right.truncate(right.count - moved);
    }
  }

 private:
  static constexpr uint32_t kGroup = 8;
  static constexpr uint32_t kNoKey = 0xffffffff;

  void truncate(uint32_t new_count) noexcept {
    count = new_count;
    std::fill(keys + count, keys + kFanout, kNoKey);
  }

  void shift(uint32_t from, uint32_t to) noexcept {
    std::memmove(keys + to, keys + from, (count - from) * sizeof keys[0]);
    std::memmove(values + to, values + from, (count - from) * sizeof values[0]);
  }

  void copy(uint32_t to, const Block& other, uint32_t from, uint32_t n) noexcept {
    std::memcpy(keys + to, other.keys + from, n * sizeof keys[0]);
    std::memcpy(values + to, other.values + from, n * sizeof values[0]);
  }
};

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_BLOCK_H_
