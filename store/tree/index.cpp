#include "index.h"

#include <algorithm>
#include <utility>

namespace es_tree {

SeqIndex::~SeqIndex() {
  if (root_ != nullptr) drop_inners(root_, height_);
  while (spare_inner_ != nullptr) delete take_inner();
}

void SeqIndex::drop_inners(void* node, unsigned level) noexcept {
  if (level == 0) return;
  auto* inner = static_cast<Inner*>(node);
  for (uint32_t i = 0; i != inner->count; ++i) drop_inners(inner->values[i], level - 1);
  drop_inner(inner);
}

// --- Finding ---

inline Leaf* SeqIndex::leaf_for(uint32_t seq) const noexcept {
  void* node = root_;
  for (unsigned depth = 0; depth != height_; ++depth) {
    const auto* inner = static_cast<Inner*>(node);
    node = inner->values[inner->child_of(seq)];
  }
  return static_cast<Leaf*>(node);
}

SeqIndex::Path SeqIndex::path_to(uint32_t seq) const noexcept {
  Path path;
  void* node = root_;
  for (unsigned depth = 0; depth != height_; ++depth) {
    path.node[depth] = static_cast<Inner*>(node);
    path.at[depth] = path.node[depth]->child_of(seq);
    node = path.node[depth]->values[path.at[depth]];
  }
  return path;
}

// In the position's leaf the usual run asks for one number after the other, or for the same one again.
SeqIndex::Place SeqIndex::find(uint32_t seq, uint32_t direction, es_acl_iter hint) const noexcept {
  if (root_ == nullptr) return {};
  Leaf* leaf = leaf_of(hint);
  if (leaf != nullptr && leaf->spans(seq)) {
    const uint32_t near = place_of(hint);
    if (leaf->holds(seq, near)) return {leaf, near, true};
    const uint32_t next = direction == ES_ACL_FORWARD ? near + 1 : near - 1;
    if (leaf->holds(seq, next)) return {leaf, next, true};
  } else {
    leaf = leaf_for(seq);
  }
  const uint32_t pos = leaf->lower_bound(seq);
  return {leaf, pos, leaf->holds(seq, pos)};
}

// In a low index there is nothing to wait for.
void SeqIndex::find(const es_acl_batch_item* items, uint32_t n, Place* places) noexcept {
  if (root_ == nullptr) {
    std::fill_n(places, n, Place{});
    return;
  }
  moved_leaf_ = nullptr;
  void* nodes[ES_ACL_BATCH_MAX];
  std::fill_n(nodes, n, root_);
  for (unsigned depth = 0; depth != height_; ++depth) {
    for (uint32_t i = 0; i != n; ++i) {
      const auto* inner = static_cast<Inner*>(nodes[i]);
      nodes[i] = inner->values[inner->child_of(items[i].seq)];
      if (is_high()) static_cast<Block<SlotId>*>(nodes[i])->prefetch();
    }
  }
  for (uint32_t i = 0; i != n; ++i) {
    const uint32_t seq = items[i].seq;
    auto* leaf = static_cast<Leaf*>(nodes[i]);
    const uint32_t pos = leaf->lower_bound(seq);
    if (is_high()) leaf->prefetch_values(pos);
    places[i] = {leaf, pos, leaf->holds(seq, pos)};
  }
}

// The leaf is null when the number may have left it. Others that came or went may have moved the number within its leaf.
inline SeqIndex::Place SeqIndex::marked(uint32_t seq, es_acl_iter mark) const noexcept {
  if (mark == nullptr) return {};
  const auto bits = reinterpret_cast<uintptr_t>(mark);
  auto* const leaf = reinterpret_cast<Leaf*>(bits / kFanout * kFanout);
  uint32_t pos = bits % kFanout + (leaf == moved_leaf_ ? moved_ : 0);
  if (leaf->holds(seq, pos)) return {leaf, pos, true};
  if (leaf->parts(seq, pos)) return {leaf, pos, false};
  if (!leaf->spans(seq)) return {};
  pos = leaf->lower_bound(seq);
  return {leaf, pos, leaf->holds(seq, pos)};
}

SeqIndex::Place SeqIndex::find_marked(uint32_t seq, es_acl_iter mark) const noexcept {
  const Place place = marked(seq, mark);
  return place.leaf != nullptr ? place : find(seq, ES_ACL_FORWARD, nullptr);
}

inline SeqIndex::Place SeqIndex::with_room(Place place, uint32_t seq) {
  if (!place.found && place.leaf->full()) {
    path_ = path_to(seq);
    reserve(path_);
  }
  return place;
}

SeqIndex::Place SeqIndex::prepare(uint32_t seq, es_acl_iter hint) {
  if (root_ == nullptr) {
    reserve_leaf();
    root_ = leftmost_ = last_ = take_leaf();
  }
  Leaf* const leaf = leaf_to_change(seq, hint);
  const uint32_t pos = leaf->lower_bound(seq);
  return with_room({leaf, pos, leaf->holds(seq, pos)}, seq);
}

SeqIndex::Place SeqIndex::prepare_marked(uint32_t seq, es_acl_iter mark) {
  const Place place = marked(seq, mark);
  return place.leaf != nullptr ? with_room(place, seq) : prepare(seq, nullptr);
}

// What comes behind all others is the usual case where an ACL is filled.
inline Leaf* SeqIndex::leaf_to_change(uint32_t seq, es_acl_iter hint) const noexcept {
  if (last_->count != 0 && last_->last_key() < seq) return last_;
  Leaf* const leaf = leaf_of(hint);
  return leaf != nullptr && leaf->spans(seq) ? leaf : leaf_for(seq);
}

// --- Inserting ---

void SeqIndex::reserve_leaf() {
  if (spare_leaf_ != nullptr) return;
  uint32_t number = 0;
  spare_leaf_ = numbered_.add(&number);
  spare_leaf_->number = number;
}

void SeqIndex::reserve_inner(size_t count) {
  size_t have = 0;
  for (Inner* inner = spare_inner_; inner != nullptr && have < count; inner = inner->spare) ++have;
  for (; have < count; ++have) drop_inner(new Inner);
}

// One leaf, one inner node for each full one above it, and one more for a new root.
void SeqIndex::reserve(const Path& path) {
  size_t inners = 0;
  unsigned depth = height_;
  for (; depth != 0 && path.node[depth - 1]->full(); --depth) ++inners;
  reserve_leaf();
  reserve_inner(depth == 0 ? inners + 1 : inners);
}

Leaf* SeqIndex::take_leaf() noexcept {
  Leaf* leaf = spare_leaf_;
  spare_leaf_ = leaf->next;
  leaf->prev = leaf->next = nullptr;
  return leaf;
}

Inner* SeqIndex::take_inner() noexcept {
  Inner* inner = spare_inner_;
  spare_inner_ = inner->spare;
  inner->clear();
  return inner;
}

SeqIndex::Place SeqIndex::insert(Place place, uint32_t seq, SlotId slot) noexcept {
  if (place.leaf->full()) {
    Leaf* right = split(place.leaf, place.leaf == last_ && place.pos == kFanout, seq);
    if (place.pos > place.leaf->count || place.leaf->full()) {
      place.pos -= place.leaf->count;
      std::swap(right->run, place.leaf->run);  // the slots at hand go where the next numbers probably go
      place.leaf = right;
    }
  }
  place.leaf->insert_at(place.pos, seq, slot);
  note_move(place.leaf, 1);
  return {place.leaf, place.pos, true};
}

Leaf* SeqIndex::split(Leaf* leaf, bool append, uint32_t seq) noexcept {
  Leaf* right = take_leaf();
  if (!append) leaf->move_tail(kFanout / 2, *right);
  right->prev = leaf;
  right->next = leaf->next;
  (right->next != nullptr ? right->next->prev : last_) = right;
  leaf->next = right;
  add_child(path_, append ? seq : right->first_key(), right, append);
  return right;
}

// Enters a new node to the right of the one that the path ends in, and splits the full nodes above.
void SeqIndex::add_child(const Path& path, uint32_t key, void* child, bool append) noexcept {
  for (unsigned depth = height_; depth-- != 0;) {
    Inner* parent = path.node[depth];
    const uint32_t pos = path.at[depth] + 1;
    if (!parent->full()) return parent->insert_at(pos, key, child);
    Inner* right = take_inner();
    parent->move_tail(append ? kFanout : kFanout / 2, *right);
    if (pos > parent->count || parent->full()) {
      right->insert_at(pos - parent->count, key, child);
    } else {
      parent->insert_at(pos, key, child);
    }
    key = right->first_key();
    right->open();
    child = right;
  }
  Inner* root = take_inner();
  root->insert_at(0, 0, root_);
  root->insert_at(1, key, child);
  root_ = root;
  ++height_;
}

// --- Erasing ---

void SeqIndex::drop_leaf(Leaf* leaf, SlotPool& pool) noexcept {
  (leaf->prev != nullptr ? leaf->prev->next : leftmost_) = leaf->next;
  (leaf->next != nullptr ? leaf->next->prev : last_) = leaf->prev;
  pool.put_back(leaf->run);
  leaf->clear();
  leaf->prev = nullptr;
  leaf->next = spare_leaf_;
  spare_leaf_ = leaf;
}

void SeqIndex::drop_inner(Inner* inner) noexcept {
  inner->spare = spare_inner_;
  spare_inner_ = inner;
}

SeqIndex::Place SeqIndex::erase(Place place, SlotPool& pool) noexcept {
  Leaf* leaf = place.leaf;
  const uint32_t seq = leaf->keys[place.pos];
  leaf->erase_at(place.pos);
  note_move(leaf, -1);
  // The inner nodes still lead to where the number was.
  if (height_ != 0 && leaf->scarce()) repair(path_to(seq), pool);
  return {leaf, place.pos, false};
}

// Goes up from the leaf that the path ends in, as long as nodes have too few children left.
void SeqIndex::repair(const Path& path, SlotPool& pool) noexcept {
  for (unsigned depth = height_; depth-- != 0;) {
    Inner* parent = path.node[depth];
    const uint32_t at = path.at[depth];
    const bool leaves = depth + 1 == height_;
    if (!(leaves ? join_leaves(parent, at, pool) : join_inners(parent, at))) break;
  }
  while (height_ != 0 && static_cast<Inner*>(root_)->count == 1) {
    auto* root = static_cast<Inner*>(root_);
    root_ = root->values[0];
    drop_inner(root);
    --height_;
  }
}

// Each of the two tends to the child `at`, if it has too little left, and says whether the parent is to be
// looked at. An empty child goes; another joins a neighbour, or takes from it what evens the two out. An only
// child (it stands on the right edge) waits for the parent to get neighbours.
bool SeqIndex::join_leaves(Inner* parent, uint32_t at, SlotPool& pool) noexcept {
  auto* leaf = static_cast<Leaf*>(parent->values[at]);
  if (!leaf->scarce()) return false;
  if (leaf->count == 0) {
    // The last leaf of all stays, empty.
    if (leaf->prev == nullptr && leaf->next == nullptr) return false;
    drop_leaf(leaf, pool);
    parent->erase_at(at);
    parent->open();
    return true;
  }
  if (parent->count == 1) return true;
  if (at + 1 == parent->count) --at;
  auto* left = static_cast<Leaf*>(parent->values[at]);
  auto* right = static_cast<Leaf*>(parent->values[at + 1]);
  if (left->count + right->count > kFanout) {
    left->share(*right);
    parent->keys[at + 1] = right->first_key();
    return false;
  }
  left->absorb(*right);
  drop_leaf(right, pool);
  parent->erase_at(at + 1);
  return true;
}

bool SeqIndex::join_inners(Inner* parent, uint32_t at) noexcept {
  auto* inner = static_cast<Inner*>(parent->values[at]);
  if (!inner->scarce()) return false;
  if (inner->count == 0) {
    drop_inner(inner);
    parent->erase_at(at);
    parent->open();
    return true;
  }
  if (parent->count == 1) return true;
  if (at + 1 == parent->count) --at;
  auto* left = static_cast<Inner*>(parent->values[at]);
  auto* right = static_cast<Inner*>(parent->values[at + 1]);
  right->keys[0] = parent->keys[at + 1];  // its bound, in case it does not stay the first
  if (left->count + right->count > kFanout) {
    left->share(*right);
    parent->keys[at + 1] = right->first_key();
    right->open();
    return false;
  }
  left->absorb(*right);
  drop_inner(right);
  parent->erase_at(at + 1);
  return true;
}

// --- Renumbering ---

void SeqIndex::rebuild_bounds() noexcept {
  if (height_ != 0) rebuild_bounds(root_, height_);
}

uint32_t SeqIndex::rebuild_bounds(void* node, unsigned level) noexcept {
  if (level == 0) return static_cast<Leaf*>(node)->first_key();
  auto* inner = static_cast<Inner*>(node);
  for (uint32_t i = 0; i != inner->count; ++i) inner->keys[i] = rebuild_bounds(inner->values[i], level - 1);
  const uint32_t bound = inner->first_key();
  inner->open();
  return bound;
}

}  // namespace es_tree
