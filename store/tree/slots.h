// Where an ACL's nodes and ACE records live.
//
// A slot is one list node (24 bytes) and one element: the pointer to the ACE, then the ACE itself (88 bytes). Slots
// stand in slabs, first all nodes of the slab, then all its elements, because a walk is a chain of dependent loads
// through the nodes alone: kept apart they are dense (three nodes to a cache line and a bit), and the processor fetches
// the elements of the nodes ahead while it waits for nothing but the chain.
//
// Readers that hold no lock walk the nodes and read the ACEs while a writer changes the list. Three rules
// keep them safe:
//   - Slabs are given back only with the whole pool: a stale pointer always points to a slot.
//   - A node's element pointer and an element's ACE pointer are written once, when the slot is carved from
//   its slab.
//   - A retired slot keeps its next link and its ACE until a grace time has passed (slot_queue.h); only then may it be
//   taken again. What no reader can have got to may be taken at once, while it is in the caches.
//
// Who can have got to what. A reader says so before it follows a link (es_acl_head.looks); and whoever goes ACE by ACE may
// hold what a search gave (note_look()). Looks cut time into eras: retired slots are gathered, and when they are sorted
// the era ends if there has been a look in it. So a reader can have got to what was taken before the present era. From a
// slot that is still in the list it gets on by another look alone. From a retired one it gets to where its next link
// leads, which therefore is made known when a known slot is retired. Everything else is unknown to all.
//
// Not thread-safe: the ACL's lock guards it.
#ifndef ES_ACL_STORE_TREE_SLOTS_H_
#define ES_ACL_STORE_TREE_SLOTS_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "es_acl/es_acl_store.h"
#include "memory.h"
#include "slot_queue.h"

namespace es_tree {

// Neighbouring slots that belong to one leaf of the index and are not yet in use.
struct SlotRun {
  SlotId first = kNoSlot;
  uint32_t left = 0;
};

class SlotPool {
 public:
  // `looks` is the head's.
  explicit SlotPool(uint32_t* looks) noexcept : looks_(*looks) {}

  // Slots carved at a time. A leaf takes its slots from runs of its own, so that neighbours in the list are
  // mostly neighbours in memory, even when an ACL is filled in random order; longer runs waste more at the
  // leaf's end.
  static constexpr uint32_t kRunLength = 8;

  ~SlotPool();
  SlotPool(const SlotPool&) = delete;
  SlotPool& operator=(const SlotPool&) = delete;

  es_acl_ace_node* node(SlotId id) const noexcept {
    return slabs_[id >> kPlaceBits].nodes + (id & kPlaceMask);
  }
  es_acl_ace* ace(SlotId id) const noexcept { return &element(id)->record; }

  // Asks for the cache lines that a change of the node, or a look at the ACE, touches.
  [[gnu::always_inline]] void prefetch_node(SlotId id) const noexcept {
    prefetch(node(id), sizeof(es_acl_ace_node));
  }
  [[gnu::always_inline]] void prefetch_ace(SlotId id) const noexcept {
    prefetch(ace(id), sizeof(es_acl_ace));
    __builtin_prefetch(&era_of(id), 1);
  }

  // A slot for the leaf whose run this is. Throws std::bad_alloc; nothing has changed then.
  SlotId take(SlotRun& run);
  // The run of a leaf that goes: other leaves may use its slots.
  void put_back(SlotRun& run) noexcept;
  // Whether a reader may have got to the slot, as far as is known.
  bool is_known(SlotId id) const noexcept { return era_of(id) != era_; }
  void make_known(SlotId id) noexcept { era_of(id) = kBefore; }
  void note_look() noexcept { looked_ = true; }
  // A slot that has left the list. When it is known, the one behind it has been made known.
  void retire(SlotId id) noexcept {
    retired_[num_retired_++] = id;
    if (num_retired_ == kRetired) sort_retired();
  }

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
    uint8_t* eras;  // in which the slots were taken
    size_t bytes;
  };

  static constexpr unsigned kPlaceBits = 15;
  static constexpr SlotId kPlaceMask = (1u << kPlaceBits) - 1;
  static constexpr size_t kSlotBytes = sizeof(es_acl_ace_node) + sizeof(Element) + sizeof(uint8_t);
  static constexpr uint32_t kAhead = 8;  // how many takes before its own a free slot is asked for
  static constexpr uint32_t kRetired = 16;
  static constexpr uint8_t kBefore = 0;  // an era that has ended
  static_assert(kHugePage / kSlotBytes <= kPlaceMask, "a place in a slab has kPlaceBits bits");

  // Inline by order: a call of a function that does nothing but prefetch is one that compilers leave out.
  [[gnu::always_inline]] static void prefetch(const void* object, size_t size) noexcept {
    const auto* bytes = static_cast<const char*>(object);
    for (size_t at = 0; at < size - 1; at += 64) __builtin_prefetch(bytes + at, 1);
    __builtin_prefetch(bytes + size - 1, 1);
  }
  Element* element(SlotId id) const noexcept { return slabs_[id >> kPlaceBits].elements + (id & kPlaceMask); }
  static size_t slots_in(size_t slab_bytes) noexcept {
    return slab_bytes / kSlotBytes / kRunLength * kRunLength;
  }
  uint8_t& era_of(SlotId id) const noexcept { return slabs_[id >> kPlaceBits].eras[id & kPlaceMask]; }
  SlotId take_any(SlotRun& run);
  SlotId take_free() noexcept;
  bool has_been_looked_at() noexcept;
  void begin_era() noexcept;
  void sort_retired() noexcept;
  void carve(SlotRun& run);
  void add_slab();

  std::vector<Slab> slabs_;
  size_t bytes_ = 0;       // of all slabs
  size_t slots_ = 0;       // in all slabs
  size_t slab_slots_ = 0;  // in the last slab
  size_t slab_used_ = 0;   // carved from it
  SlotQueue queue_;

  const std::atomic_ref<uint32_t> looks_;
  bool looked_ = false;
  uint8_t era_ = kBefore + 1;
  SlotId retired_[kRetired];  // of which it is not decided yet whether they have to wait
  uint32_t num_retired_ = 0;
};

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_SLOTS_H_
