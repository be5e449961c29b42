// A sorted block of keys and their values: the common shape of the index's nodes.
#ifndef ES_ACL_STORE_TREE_BLOCK_H_
#define ES_ACL_STORE_TREE_BLOCK_H_

#include <cstdint>
#include <cstring>

namespace es_tree {

inline constexpr uint32_t kFanout = 64;

template <typename Value>
struct Block {
  uint32_t count = 0;
  uint32_t keys[kFanout];
  Value values[kFanout];

  bool full() const noexcept { return count == kFanout; }
  bool scarce() const noexcept { return count < kFanout / 4; }
  uint32_t first_key() const noexcept { return keys[0]; }
  uint32_t last_key() const noexcept { return keys[count - 1]; }
  bool spans(uint32_t key) const noexcept { return count != 0 && keys[0] <= key && key <= last_key(); }

  // Number of keys less than `key`. Written so that it compiles to conditional moves: the branches of a
  // search for a random key cannot be predicted.
  uint32_t lower_bound(uint32_t key) const noexcept {
    uint32_t base = 0;
    for (uint32_t n = count; n > 1;) {
      const uint32_t half = n / 2;
      base += keys[base + half - 1] < key ? half : 0;
      n -= half;
    }
    return base + (count != 0 && keys[base] < key);
  }

  // The last place whose key is not greater than `key`; the first one if there is none.
  uint32_t child_of(uint32_t key) const noexcept {
    uint32_t base = 0;
    for (uint32_t n = count; n > 1;) {
      const uint32_t half = n / 2;
      base += keys[base + half] <= key ? half : 0;
      n -= half;
    }
    return base;
  }

  void insert_at(uint32_t pos, uint32_t key, Value value) noexcept {
    shift(pos, pos + 1);
    keys[pos] = key;
    values[pos] = value;
    ++count;
  }

  void erase_at(uint32_t pos) noexcept {
    shift(pos + 1, pos);
    --count;
  }

  // Moves everything from `pos` on to the empty block.
  void move_tail(uint32_t pos, Block& right) noexcept {
    right.copy(0, *this, pos, count - pos);
    right.count = count - pos;
    count = pos;
  }

  // Takes over the whole of the block to the right, which must fit.
  void absorb(Block& right) noexcept {
    copy(count, right, 0, right.count);
    count += right.count;
    right.count = 0;
  }

  // Evens this block and the one to its right out.
  void share(Block& right) noexcept {
    const uint32_t mine = (count + right.count) / 2;
    if (count > mine) {
      const uint32_t moved = count - mine;
      right.shift(0, moved);
      right.copy(0, *this, mine, moved);
      right.count += moved;
    } else {
      const uint32_t moved = mine - count;
      copy(count, right, 0, moved);
      right.shift(moved, 0);
      right.count -= moved;
    }
    count = mine;
  }

 private:
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
