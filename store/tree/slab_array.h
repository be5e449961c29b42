// An array that grows by slabs: its elements have numbers, never move, and are freed together. Not
// thread-safe.
#ifndef ES_ACL_STORE_TREE_SLAB_ARRAY_H_
#define ES_ACL_STORE_TREE_SLAB_ARRAY_H_

#include <bit>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <vector>

#include "memory.h"

namespace es_tree {

template <typename T>
class SlabArray {
 public:
  static_assert(std::is_trivially_destructible_v<T> && sizeof(T) % 64 == 0);

  SlabArray() = default;
  ~SlabArray() {
    for (const Slab& slab : slabs_) free_slab(slab.items, slab.bytes);
  }
  SlabArray(const SlabArray&) = delete;
  SlabArray& operator=(const SlabArray&) = delete;

  // The element with that number, or null.
  T* find(uint64_t number) const noexcept {
    const uint64_t slab = number >> kPlaceBits;
    const uint64_t place = number & kPlaceMask;
    return slab < slabs_.size() && place < slabs_[slab].used ? slabs_[slab].items + place : nullptr;
  }

  // A new element and its number. Throws std::bad_alloc; nothing has changed then.
  T* add(uint32_t* number) {
    if (slabs_.empty() || slabs_.back().used == slabs_.back().bytes / sizeof(T)) add_slab();
    Slab& slab = slabs_.back();
    *number = static_cast<uint32_t>((slabs_.size() - 1) << kPlaceBits | slab.used);
    return new (slab.items + slab.used++) T;
  }

 private:
  // A number is its slab's and the place in it.
  static constexpr unsigned kPlaceBits = std::bit_width(kHugePage / sizeof(T) - 1);
  static constexpr uint64_t kPlaceMask = (uint64_t{1} << kPlaceBits) - 1;
  struct Slab {
    T* items;
    uint32_t bytes;
    uint32_t used;
  };

  void add_slab() {
    slabs_.reserve(slabs_.size() < slabs_.capacity() ? slabs_.capacity() : slabs_.size() * 2 + 4);
    const size_t bytes = next_slab_bytes(total_, sizeof(T));
    auto* items = static_cast<T*>(allocate_slab(bytes));
    if (items == nullptr) throw std::bad_alloc();
    slabs_.push_back({items, static_cast<uint32_t>(bytes), 0});
    total_ += bytes;
  }

  std::vector<Slab> slabs_;
  size_t total_ = 0;  // bytes
};

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_SLAB_ARRAY_H_
