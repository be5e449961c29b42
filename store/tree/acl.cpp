#include "acl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace es_tree {

namespace {

// Readers without the lock load these words with acquire semantics.
void publish(es_acl_ace_node** link, es_acl_ace_node* node) noexcept {
  __atomic_store_n(link, node, __ATOMIC_RELEASE);
}

}  // namespace

Acl::Acl(std::string_view title) noexcept : es_acl_head{} {
  std::memcpy(title_, title.data(), title.size());
  title_[title.size()] = '\0';
  name = title_;
  refcount = 1;
  ace_first = ace_list_aux = sentinel();
  ace_end = sentinel();
  pthread_mutex_init(&lock, nullptr);
}

Acl::~Acl() { pthread_mutex_destroy(&lock); }

template <typename Prepare>
es_acl_status Acl::put(const es_acl_ace& offered, uint32_t seq, uint32_t flag, es_acl_iter* iter,
                       Prepare prepare) noexcept {
  try {
    SeqIndex::Place place = prepare();
    if (!place.found)
      place = insert(place, offered, seq);
    else if (flag != ES_ACL_ADD_KEEP)
      replace(place, offered, seq);
    if (iter != nullptr) *iter = SeqIndex::word(place);
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
  return 0;
}

// Who goes ACE by ACE may look at what a search gave until long after the next change; who goes by batches, until then.
es_acl_status Acl::add(es_acl_ace* offered, uint32_t seq, uint32_t flag, es_acl_iter* iter) noexcept {
  note_look();
  const es_acl_iter hint = iter != nullptr ? *iter : nullptr;
  const es_acl_status status = put(*offered, seq, flag, iter, [&] { return index_.prepare(seq, hint); });
  if (status == 0) es_acl_free_rules(offered);
  return status;
}

void Acl::add(es_acl_batch_item* items, uint32_t n) noexcept {
  for (es_acl_batch_item* item = items; item != items + n; ++item)
    item->status = put(*item->ace, item->seq, item->flag, nullptr,
                       [&] { return index_.prepare_marked(item->seq, item->mark); });
}

SeqIndex::Place Acl::insert(SeqIndex::Place place, const es_acl_ace& offered, uint32_t seq) {
  const SlotId slot = slots_.take(place.leaf->run);
  es_acl_ace_node* before = node_before(place);
  store(slot, offered, seq);
  link(slots_.node(slot), before, before->next);
  set_count(ace_count + 1);
  return index_.insert(place, seq, slot);
}

void Acl::replace(SeqIndex::Place place, const es_acl_ace& offered, uint32_t seq) {
  const SlotId slot = slots_.take(place.leaf->run);
  const SlotId old = place.leaf->values[place.pos];
  es_acl_ace_node* gone = slots_.node(old);
  store(slot, offered, seq);
  link(slots_.node(slot), gone->aux, gone->next);
  place.leaf->values[place.pos] = slot;
  retire(old, place);
}

void Acl::remove(uint32_t seq, uint32_t direction, es_acl_iter* iter) noexcept {
  note_look();
  const SeqIndex::Place place = take_out(index_.find(seq, direction, iter != nullptr ? *iter : nullptr));
  if (iter != nullptr) *iter = SeqIndex::word(place);
}

void Acl::remove(const es_acl_batch_item* items, uint32_t n) noexcept {
  for (const es_acl_batch_item* item = items; item != items + n; ++item)
    take_out(index_.find_marked(item->seq, item->mark));
}

// What stands at the place, if it was found. The place returned is good for a position word only.
SeqIndex::Place Acl::take_out(SeqIndex::Place place) noexcept {
  if (!place.found) return place;
  const SlotId slot = place.leaf->values[place.pos];
  const es_acl_ace_node* gone = slots_.node(slot);
  gone->next->aux = gone->aux;
  publish(&gone->aux->next, gone->next);
  retire(slot, place);
  set_count(ace_count - 1);
  return index_.erase(place, slots_);
}

// A slot that stood at the place. A reader who stands on it goes on to the one behind it.
void Acl::retire(SlotId slot, SeqIndex::Place place) noexcept {
  if (slots_.is_known(slot)) {
    if (const SlotId behind = SeqIndex::slot_behind(place); behind != kNoSlot) slots_.make_known(behind);
  }
  slots_.retire(slot);
}

// Asks for what a change of the place will touch: the nodes around it, and the ACE there.
inline void Acl::prefetch_around(SeqIndex::Place place) const noexcept {
  const uint32_t last = place.leaf->count - 1;
  slots_.prefetch_node(place.leaf->values[place.pos - (place.pos != 0)]);
  slots_.prefetch_node(place.leaf->values[std::min(place.pos, last)]);
  if (!place.found) return;
  slots_.prefetch_node(place.leaf->values[std::min(place.pos + 1, last)]);
  slots_.prefetch_ace(place.leaf->values[place.pos]);
}

void Acl::search(es_acl_batch_item* items, uint32_t n) noexcept {
  SeqIndex::Place places[ES_ACL_BATCH_MAX];
  index_.find(items, n, places);
  for (uint32_t i = 0; i != n; ++i) {
    const SeqIndex::Place& place = places[i];
    items[i].ace = place.found ? slots_.ace(place.leaf->values[place.pos]) : nullptr;
    items[i].mark = SeqIndex::mark(place);
  }
  if (index_.is_high())
    for (uint32_t i = 0; i != n; ++i) prefetch_around(places[i]);
}

es_acl_ace* Acl::search(uint32_t seq, uint32_t direction, es_acl_iter* iter) noexcept {
  note_look();
  const SeqIndex::Place place = index_.find(seq, direction, iter != nullptr ? *iter : nullptr);
  if (iter != nullptr) *iter = SeqIndex::word(place);
  return place.found ? slots_.ace(place.leaf->values[place.pos]) : nullptr;
}

void Acl::store(SlotId slot, const es_acl_ace& offered, uint32_t seq) noexcept {
  es_acl_ace* ace = slots_.ace(slot);
  *ace = offered;
  ace->seq = seq;
}

// Puts the node between two neighbours, and with the last store into the readers' way.
void Acl::link(es_acl_ace_node* node, es_acl_ace_node* before, es_acl_ace_node* after) noexcept {
  // A reader who overstayed the grace time may still look at the slot: atomic, though nothing is published by
  // it.
  __atomic_store_n(&node->next, after, __ATOMIC_RELAXED);
  node->aux = before;
  after->aux = node;
  publish(&before->next, node);
}

es_acl_ace_node* Acl::node_before(SeqIndex::Place place) noexcept {
  if (place.pos != 0) return slots_.node(place.leaf->values[place.pos - 1]);
  const Leaf* left = place.leaf->prev;
  return left != nullptr ? slots_.node(left->values[left->count - 1]) : sentinel();
}

// The count is also read without the lock, where a head is copied.
void Acl::set_count(uint32_t count) noexcept { __atomic_store_n(&ace_count, count, __ATOMIC_RELAXED); }

}  // namespace es_tree
