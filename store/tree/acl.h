// One ACL: the head that the library sees, and behind it the list, its slots and its index.
//
// The list is what readers without the lock follow, so every change of it is one release store of a next link
// into the place where they come by:
//
//   insert   the new node gets its links and its ACE first, then its predecessor's next link is set to it
//   remove   the predecessor's next link passes over the node; the node keeps its own, so that a reader standing on it
//            finds the way back into the list
//   replace  both at once: the new node's next link is the old node's, the predecessor's is set to the new node
//
// A reader therefore sees a list that is or was there, in ascending order, and ends at the sentinel. The aux links run
// backward; only the writer uses them.
//
// Thread-safety: whoever calls holds the ACL's lock, but for the constructor and the destructor.
#ifndef ES_ACL_STORE_TREE_ACL_H_
#define ES_ACL_STORE_TREE_ACL_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "es_acl/es_acl_store.h"
#include "index.h"
#include "slots.h"

namespace es_tree {

class Acl : public es_acl_head {
 public:
  // `title` is at most ES_ACL_NAME_MAX characters long.
  explicit Acl(std::string_view title) noexcept;
  ~Acl();
  Acl(const Acl&) = delete;
  Acl& operator=(const Acl&) = delete;

  static Acl* of(es_acl_head* head) noexcept { return static_cast<Acl*>(head); }

  // The store's slots of the same names; see es_acl_store.h. `iter` may be null.
  es_acl_status add(es_acl_ace* offered, uint32_t seq, uint32_t flag, es_acl_iter* iter) noexcept;
  void remove(uint32_t seq, uint32_t direction, es_acl_iter* iter) noexcept;
  es_acl_ace* search(uint32_t seq, uint32_t direction, es_acl_iter* iter) noexcept;
  // The same for several; see es_acl_batch_table.
  void add(es_acl_batch_item* items, uint32_t n) noexcept;
  void remove(const es_acl_batch_item* items, uint32_t n) noexcept;
  void search(es_acl_batch_item* items, uint32_t n) noexcept;
  es_acl_status resequence(uint32_t start, uint32_t step, uint32_t num_skip, const uint32_t* skip) noexcept;

  es_acl_ace_node* sentinel() noexcept { return reinterpret_cast<es_acl_ace_node*>(&ace_first); }

  // The caller may keep what it sees.
  void note_look() noexcept { slots_.note_look(); }
  // Calls `visit` with each ACE in order until it returns false.
  template <typename Visit>
  void each(Visit visit) {
    for (es_acl_ace_node* n = ace_first; n != sentinel(); n = n->next) {
      if (!visit(ace_of(n))) return;
    }
  }

  size_t slab_bytes() const noexcept { return slots_.bytes(); }

 private:
  static es_acl_ace* ace_of(es_acl_ace_node* node) noexcept {
    return static_cast<es_acl_ace**>(node->element)[ES_ACL_ELEMENT_ACE_WORD];
  }
  template <typename Prepare>
  es_acl_status put(const es_acl_ace& offered, uint32_t seq, uint32_t flag, es_acl_iter* iter,
                    Prepare prepare) noexcept;
  SeqIndex::Place insert(SeqIndex::Place place, const es_acl_ace& offered, uint32_t seq);
  void replace(SeqIndex::Place place, const es_acl_ace& offered, uint32_t seq);
  void store(SlotId slot, const es_acl_ace& offered, uint32_t seq) noexcept;
  static void link(es_acl_ace_node* node, es_acl_ace_node* before, es_acl_ace_node* after) noexcept;
  // Inline by order: a call of a function that does nothing but prefetch is one that compilers leave out.
  [[gnu::always_inline]] void prefetch_around(SeqIndex::Place place) const noexcept;
  es_acl_ace_node* node_before(SeqIndex::Place place) noexcept;
  SeqIndex::Place take_out(SeqIndex::Place place) noexcept;
  void retire(SlotId slot, SeqIndex::Place place) noexcept;
  void set_count(uint32_t count) noexcept;

  SlotPool slots_{&looks};
  SeqIndex index_;
  char title_[ES_ACL_NAME_FIELD_SIZE];
};

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_ACL_H_
