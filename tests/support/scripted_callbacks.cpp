#include "scripted_callbacks.h"

#include <cerrno>
#include <list>
#include <mutex>
#include <vector>

#include "scripted_platform.h"

// What the library never frees stays reachable from here.
struct mtimer_leaf {
  uint16_t type;
  void* context;
  uint64_t running_for;
  bool expired;
};
struct mtimer_tree {
  std::list<mtimer_leaf> leaves;
};

struct list_registry {
  struct Entry {
    list_registry_function function;
    void* context;
  };
  std::vector<Entry> entries;
};
// A walk shows a copy of the list.
struct list_registry_cursor {
  std::vector<list_registry::Entry> entries;
  size_t at;
};

namespace es_test {
namespace {

std::mutex mutex;  // of all leaves and lists

// The process has one tree.
mtimer_tree& the_tree() {
  static auto* const tree = new mtimer_tree;
  return *tree;
}

mtimer_leaf* as_leaf(void* leaf) { return static_cast<mtimer_leaf*>(leaf); }

list_registry_cursor* shown(list_registry_cursor* cursor, list_registry_function* function, void** context) {
  if (cursor->at == cursor->entries.size()) {
    delete cursor;
    return nullptr;
  }
  *function = cursor->entries[cursor->at].function;
  *context = cursor->entries[cursor->at].context;
  return cursor;
}

}  // namespace

mtimer_tree* make_tree(const evm_sigevent*, uint32_t) {
  name_pointer(&the_tree(), "tree");
  return &the_tree();
}

mtimer_leaf* make_leaf(mtimer_tree* tree, uint16_t type, uint32_t, void* context) {
  const std::lock_guard guard(mutex);
  tree->leaves.push_back({type, context, 0, false});
  name_pointer(&tree->leaves.back(), "leaf");
  return &tree->leaves.back();
}

// A test may stand any token in for a leaf.
void free_leaf(mtimer_leaf* leaf) {
  const std::lock_guard guard(mutex);
  the_tree().leaves.remove_if([&](const mtimer_leaf& one) { return &one == leaf; });
}

void start_leaf(mtimer_leaf* leaf, uint64_t delay) {
  const std::lock_guard guard(mutex);
  leaf->running_for = delay;
  leaf->expired = false;
}
void stop_leaf(mtimer_leaf* leaf) { start_leaf(leaf, 0); }
uint16_t leaf_type(const mtimer_leaf* leaf) { return leaf->type; }
void* leaf_context(const mtimer_leaf* leaf) { return leaf->context; }

mtimer_leaf* first_expired(mtimer_tree* tree) {
  const std::lock_guard guard(mutex);
  for (mtimer_leaf& leaf : tree->leaves)
    if (leaf.expired) return &leaf;
  return nullptr;
}
int tree_expired(mtimer_tree* tree) { return first_expired(tree) != nullptr ? 1 : 0; }

void expire(void* leaf) {
  const Backstage backstage;
  const std::lock_guard guard(mutex);
  as_leaf(leaf)->expired = true;
}
uint64_t running_for(void* leaf) {
  const Backstage backstage;
  const std::lock_guard guard(mutex);
  return as_leaf(leaf)->running_for;
}

list_registry* make_registry(uint32_t, uint32_t) {
  const std::lock_guard guard(mutex);
  static auto* const kept = new std::list<list_registry>;
  kept->emplace_back();
  name_pointer(&kept->back(), "registry");
  return &kept->back();
}
void destroy_registry(list_registry*) {}

uint32_t add_entry(list_registry* registry, list_registry_function function, void* context) {
  const std::lock_guard guard(mutex);
  registry->entries.push_back({function, context});
  return 0;
}

uint32_t delete_entry(list_registry* registry, list_registry_function function, void* context) {
  const std::lock_guard guard(mutex);
  auto& entries = registry->entries;
  for (auto at = entries.begin(); at != entries.end(); ++at) {
    if (at->function != function || at->context != context) continue;
    entries.erase(at);
    return 0;
  }
  return ENOENT;
}

list_registry_cursor* first_entry(list_registry* registry, list_registry_function* function, void** context) {
  const std::lock_guard guard(mutex);
  return shown(new list_registry_cursor{registry->entries, 0}, function, context);
}
list_registry_cursor* next_entry(list_registry_cursor* cursor, list_registry_function* function,
                                 void** context) {
  ++cursor->at;
  return shown(cursor, function, context);
}
void end_walk(list_registry_cursor* cursor) { delete cursor; }

}  // namespace es_test
