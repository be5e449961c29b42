// Where an ACL's nodes and ACE records live.
//
// A slot is one list node (24 bytes), one element: the pointer to the ACE, then the ACE itself (88 bytes), and a link
// for when it is not in use (4 bytes). Slots stand in slabs, first all nodes of the slab, then all its elements, then
// all links, because a walk is a chain of dependent loads through the nodes alone: kept apart they are dense (three
// nodes to a cache line and a bit), and the processor fetches the elements of the nodes ahead while it waits for
// nothing but the chain. The links are kept apart for a like reason: a slot that has waited out its grace time has left
// the caches, and is asked for while those before it are taken.
//
// Readers that hold no lock walk the nodes and read the ACEs while a writer changes the list. Three rules
// keep them safe:
//   - Slabs are given back only with the whole pool: a stale pointer always points to a slot.
//   - A node's element pointer and an element's ACE pointer are written once, when the slot is carved from
//   its slab.
//   - A retired slot keeps its next link and its ACE until a grace time has passed; only then may it be taken
//   again.
//
// Retired slots wait in two generations: those retired lately and those retired before. When the younger
// generation is a grace time old it becomes the older one, and the older one, which is at least that old by
// then, becomes free. So no slot carries a time, and under endless change about two grace times' worth of
// slots are waiting. That would be gigabytes where millions of changes come in a second, fresh memory for each of them
// included, so the grace time is shorter once a generation has become large.
//
// Not thread-safe: the ACL's lock guards it.
#ifndef ES_ACL_STORE_TREE_SLOTS_H_
#define ES_ACL_STORE_TREE_SLOTS_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "es_acl/es_acl_store.h"
#include "memory.h"

namespace es_tree {

// A slot's number: its slab's in the upper bits, its place in the slab in the lower ones.
using SlotId = uint32_t;
inline constexpr SlotId kNoSlot = 0xffffffff;

// Neighbouring slots that belong to one leaf of the index and are not yet in use.
struct SlotRun {
  SlotId first = kNoSlot;
  uint32_t left = 0;
};

class SlotPool {
 public:
  // How long a retired slot stays as it is; and how long at least where so many are retired together.
  static constexpr uint64_t kGraceMs = 3000;
  static constexpr uint64_t kShortGraceMs = 100;
  static constexpr uint32_t kManyRetired = 1 << 16;
  // Slots carved at a time. A leaf takes its slots from runs of its own, so that neighbours in the list are
  // mostly neighbours in memory, even when an ACL is filled in random order; longer runs waste more at the
  // leaf's end.
  static constexpr uint32_t kRunLength = 8;

  SlotPool() = default;
  ~SlotPool();
  SlotPool(const SlotPool&) = delete;
  SlotPool& operator=(const SlotPool&) = delete;

  es_acl_ace_node* node(SlotId id) const noexcept {
    return slabs_[id >> kPlaceBits].nodes + (id & kPlaceMask);
  }
  es_acl_ace* ace(SlotId id) const noexcept { return &element(id)->record; }

  // A slot for the leaf whose run this is. Throws std::bad_alloc; nothing has changed then.
  SlotId take(SlotRun& run);
  // The run of a leaf that goes: other leaves may use its slots.
  void put_back(SlotRun& run) noexcept;
  // A slot that readers may still see.
  void retire(SlotId id) noexcept;

  // Memory of all slabs; for tests and figures.
  size_t bytes() const noexcept { return bytes_; }

 private:
  struct Element {
    es_acl_ace* ace;
    es_acl_ace record;
  };
  struct Slab {
    es_acl_ace_node* nodes;
    Element* elements;
    SlotId* links;
    size_t bytes;
  };
  // Slots that wait, by their links.
  struct Chain {
    SlotId first = kNoSlot;
    SlotId last = kNoSlot;
  };

  static constexpr unsigned kPlaceBits = 15;
  static constexpr SlotId kPlaceMask = (1u << kPlaceBits) - 1;
  static constexpr size_t kSlotBytes = sizeof(es_acl_ace_node) + sizeof(Element) + sizeof(SlotId);
  static constexpr uint32_t kAhead = 8;  // free slots that are asked for before they are taken
  static_assert(kHugePage / kSlotBytes <= kPlaceMask, "a place in a slab has kPlaceBits bits");

  Element* element(SlotId id) const noexcept { return slabs_[id >> kPlaceBits].elements + (id & kPlaceMask); }
  SlotId& link(SlotId id) const noexcept { return slabs_[id >> kPlaceBits].links[id & kPlaceMask]; }
  SlotId take_free() noexcept;
  void fetch_ahead() noexcept;
  void chain(Chain& to, SlotId id) noexcept;
  void append(Chain& to, Chain& from) noexcept;
  void age() noexcept;
  void carve(SlotRun& run);
  void add_slab();

  std::vector<Slab> slabs_;
  size_t bytes_ = 0;       // of all slabs
  size_t slab_slots_ = 0;  // in the last slab
  size_t slab_used_ = 0;   // carved from it
  Chain free_;
  SlotId ahead_ = kNoSlot;  // the last of the `fetched_` first free slots that have been asked for
  uint32_t fetched_ = 0;
  Chain old_;
  Chain young_;
  uint64_t young_since_ = 0;
  uint32_t young_count_ = 0;
};

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_SLOTS_H_
