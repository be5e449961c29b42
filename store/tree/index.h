// The index of one ACL: a B+ tree from sequence number to slot.
//
// All nodes are sorted blocks of up to 64 keys. A leaf's values are slots; an inner node's are the nodes
// below it, and its keys are lower bounds of theirs; its first key is 0, for the first child also takes what
// is less than all others. Leaves are chained in order. The list itself lives in the slots; the index finds
// the place.
//
// An append into a full last leaf opens a new one beside it, so that an ACL filled in order has full leaves;
// other full nodes are split in halves. A removal that leaves a node under a quarter full merges it with a
// neighbour or evens the two out.
//
// Position words. A word names a leaf by its number and a place in it. Leaves are never freed before the
// index is, so any word whatever either names a leaf of this index or none; the leaf is then used only if it
// has the sought number between its first and last key. So a stale word costs a descent from the root, never more.
//
// Batches. A pushed batch is searched for and then changed. In a large ACL each search waits for memory; but the places of
// several numbers are found side by side, level by level, so that the waits are one. The changes get them back as marks. A
// mark is looked at before it is believed, as a position word is, but must be one that this index has given.
//
// Not thread-safe: the ACL's lock guards it.
#ifndef ES_ACL_STORE_TREE_INDEX_H_
#define ES_ACL_STORE_TREE_INDEX_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "block.h"
#include "es_acl/es_acl_store.h"
#include "slab_array.h"
#include "slots.h"

namespace es_tree {

struct Leaf : Block<SlotId> {
  Leaf* prev = nullptr;
  Leaf* next = nullptr;
  uint32_t number = 0;
  SlotRun run;
};

struct Inner : Block<void*> {
  Inner* spare = nullptr;  // the next unused one

  void open() noexcept { keys[0] = 0; }
};

class SeqIndex {
 public:
  // Where a number stands, or would be inserted. `leaf` is null in an index that never held anything.
  struct Place {
    Leaf* leaf;
    uint32_t pos;
    bool found;
  };

  SeqIndex() = default;
  ~SeqIndex();
  SeqIndex(const SeqIndex&) = delete;
  SeqIndex& operator=(const SeqIndex&) = delete;

  // The place of `seq`, from the position if it is near. When the number is not there, only `found` says
  // something.
  Place find(uint32_t seq, uint32_t direction, es_acl_iter hint) const noexcept;
  // Finds the places of the items' numbers side by side. A place's leaf is null only where all are.
  void find(const es_acl_batch_item* items, uint32_t n, Place* places) noexcept;
  // A word for the place of a number, for one change or search of that number later. Null is for no place, and for the one
  // behind a full leaf.
  static es_acl_iter mark(const Place& place) noexcept {
    static_assert(alignof(Leaf) == kFanout);
    return place.pos == kFanout ? nullptr : reinterpret_cast<char*>(place.leaf) + place.pos;
  }
  Place find_marked(uint32_t seq, es_acl_iter mark) const noexcept;
  // The place where `seq` is or belongs, with memory set aside for insert(). Throws std::bad_alloc; nothing
  // has changed then.
  Place prepare(uint32_t seq, es_acl_iter hint);
  Place prepare_marked(uint32_t seq, es_acl_iter mark);
  // Puts the slot at the place that either of the two gave just before, and returns where it is now.
  Place insert(Place place, uint32_t seq, SlotId slot) noexcept;
  // Takes the number at a found place out. `pool` gets the rest of the run of a leaf that goes. The place
  // returned is good for a position word only.
  Place erase(Place place, SlotPool& pool) noexcept;

  // The slot behind the one at a found place; kNoSlot behind the last.
  static SlotId slot_behind(const Place& place) noexcept {
    if (place.pos + 1 != place.leaf->count) return place.leaf->values[place.pos + 1];
    return place.leaf->next != nullptr ? place.leaf->next->values[0] : kNoSlot;
  }

  Leaf* first_leaf() const noexcept { return leftmost_; }
  // Too large to be in the caches of whoever changes it.
  bool is_high() const noexcept { return height_ > 1; }
  // After the leaves' keys were changed (in ascending order), makes the inner nodes' keys agree.
  void rebuild_bounds() noexcept;

  static es_acl_iter word(const Place& place) noexcept {
    if (place.leaf == nullptr) return nullptr;
    const uintptr_t bits = (uintptr_t{place.leaf->number} << 8 | place.pos) + 1;
    return reinterpret_cast<es_acl_iter>(bits);
  }

 private:
  // 4 billion keys in nodes of at least 16 stand 8 levels high.
  static constexpr unsigned kMaxHeight = 10;
  // The inner nodes above a leaf, the root first, and the child taken in each.
  struct Path {
    std::array<Inner*, kMaxHeight> node;
    std::array<uint32_t, kMaxHeight> at;
  };

  Place marked(uint32_t seq, es_acl_iter mark) const noexcept;
  Place with_room(Place place, uint32_t seq);
  void note_move(Leaf* leaf, uint32_t by) noexcept {
    moved_ = leaf == moved_leaf_ ? moved_ + by : by;
    moved_leaf_ = leaf;
  }
  Leaf* leaf_for(uint32_t seq) const noexcept;
  Leaf* leaf_to_change(uint32_t seq, es_acl_iter hint) const noexcept;
  Path path_to(uint32_t seq) const noexcept;
  static uintptr_t bits_of(es_acl_iter word) noexcept { return reinterpret_cast<uintptr_t>(word) - 1; }
  // Null becomes the largest number, which no leaf has.
  Leaf* leaf_of(es_acl_iter word) const noexcept { return numbered_.find(bits_of(word) >> 8); }
  static uint32_t place_of(es_acl_iter word) noexcept { return bits_of(word) & 0xff; }
  void reserve(const Path& path);
  void reserve_leaf();
  void reserve_inner(size_t count);
  Leaf* take_leaf() noexcept;
  Inner* take_inner() noexcept;
  void drop_leaf(Leaf* leaf, SlotPool& pool) noexcept;
  void drop_inner(Inner* inner) noexcept;
  void drop_inners(void* node, unsigned level) noexcept;
  Leaf* split(Leaf* leaf, bool append, uint32_t seq) noexcept;
  void add_child(const Path& path, uint32_t key, void* child, bool append) noexcept;
  void repair(const Path& path, SlotPool& pool) noexcept;
  bool join_leaves(Inner* parent, uint32_t at, SlotPool& pool) noexcept;
  bool join_inners(Inner* parent, uint32_t at) noexcept;
  uint32_t rebuild_bounds(void* node, unsigned level) noexcept;

  void* root_ = nullptr;
  unsigned height_ = 0;  // inner levels above the leaves
  Leaf* leftmost_ = nullptr;
  Leaf* last_ = nullptr;
  Path path_{};  // of the last number that room was made for
  // How far what lies behind the last change has moved in its leaf, since another leaf was changed or a batch searched for.
  Leaf* moved_leaf_ = nullptr;
  uint32_t moved_ = 0;
  SlabArray<Leaf> numbered_;    // every leaf there ever was
  Leaf* spare_leaf_ = nullptr;  // chained by next, empty
  Inner* spare_inner_ = nullptr;
};

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_INDEX_H_
