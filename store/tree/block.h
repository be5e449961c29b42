// A sorted block of keys and their values: the common shape of the index's nodes.
//
// The keys behind the last are kept at the largest number, so that a search need not know how many there are.
// It narrows 64 keys down to 16, to 4 and to one, each time by three comparisons whose results are added up: there is
// no branch that a random key could make mispredicted, and the first comparisons, one in each cache line, fetch the
// lines side by side.
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
  bool holds(uint32_t key, uint32_t pos) const noexcept { return pos < count && keys[pos] == key; }

  // Whether the key is not there, and belongs between the two at the place.
  bool parts(uint32_t key, uint32_t pos) const noexcept {
    return pos != 0 && pos < count && keys[pos - 1] < key && key < keys[pos];
  }

  // The number of keys less than `key`.
  uint32_t lower_bound(uint32_t key) const noexcept {
    static_assert(kFanout == 64);
    const uint32_t* in = keys;
    in += 16 * less(in[16], in[32], in[48], key);
    in += 4 * less(in[4], in[8], in[12], key);
    return static_cast<uint32_t>(in - keys) + (in[0] < key) + less(in[1], in[2], in[3], key);
  }

  // The last place whose key is not greater than `key`; the first one if there is none.
  uint32_t child_of(uint32_t key) const noexcept {
    if (key == kNoKey) return count - 1;
    const uint32_t pos = lower_bound(key + 1);
    return pos - (pos != 0);
  }

  // Asks for what a search reads.
  void prefetch() const noexcept {
    for (uint32_t i = 0; i < kFanout; i += 64 / sizeof keys[0]) __builtin_prefetch(keys + i);
    __builtin_prefetch(&count);
  }

  // Asks for the values that an insertion or removal at the place moves.
  void prefetch_values(uint32_t pos) const noexcept {
    constexpr uint32_t kLine = 64 / sizeof(Value);
    for (uint32_t i = pos / kLine * kLine; i <= count && i < kFanout; i += kLine)
      __builtin_prefetch(values + i, 1);
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
  static constexpr uint32_t kNoKey = 0xffffffff;

  // How many of three keys are less than `key`.
  static uint32_t less(uint32_t a, uint32_t b, uint32_t c, uint32_t key) noexcept {
    uint32_t n = a < key;
    n += b < key;
    n += c < key;
    return n;
  }

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
