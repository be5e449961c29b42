// Callback-list registries: a linked list under a mutex, and cursors that pin the node they stand on.
//
// A deleted node that a cursor stands on stays linked, marked, until the last such cursor has moved on, so
// that a walk always finds its way. Each addition gets a number, and a walk ends before those added after its
// beginning: a callback that deletes and adds itself is not shown again and again. No lock is held between
// two steps of a walk.
//
// A few cursors live in the registry itself, so that walks normally allocate nothing.
#include "es_platform/list_registry.h"

#include <cerrno>
#include <list>
#include <mutex>
#include <new>

#include "guard.h"
#include "log.h"

namespace {

struct node {
  list_registry_function function;
  void* context;
  uint64_t number;
  uint32_t pins = 0;
  bool deleted = false;
};

using node_list = std::list<node>;

constexpr size_t kOwnCursors = 4;

}  // namespace

struct list_registry_cursor {
  list_registry* registry;  // null: a free one
  node_list::iterator at;
  uint64_t last_number;  // of the additions that this walk shows
  bool on_heap;
};

struct list_registry {
 public:
  void add(list_registry_function function, void* context);
  bool remove(list_registry_function function, void* context);
  list_registry_cursor* first(list_registry_function* function, void** context);
  list_registry_cursor* next(list_registry_cursor* cursor, list_registry_function* function, void** context);
  void end(list_registry_cursor* cursor);

 private:
  list_registry_cursor* new_cursor();
  void free_cursor(list_registry_cursor* cursor);
  node_list::iterator first_shown(node_list::iterator from, uint64_t last_number);
  void unpin(node_list::iterator at);
  void drop_if_unused(node_list::iterator at);

  std::mutex mutex_;
  node_list nodes_;
  uint64_t last_number_ = 0;
  list_registry_cursor own_cursors_[kOwnCursors] = {};
};

void list_registry::add(list_registry_function function, void* context) {
  const std::lock_guard lock(mutex_);
  nodes_.push_back(node{function, context, last_number_ + 1});
  ++last_number_;
}

bool list_registry::remove(list_registry_function function, void* context) {
  const std::lock_guard lock(mutex_);
  for (auto at = nodes_.begin(); at != nodes_.end(); ++at) {
    if (at->deleted || at->function != function || at->context != context) continue;
    at->deleted = true;
    drop_if_unused(at);
    return true;
  }
  return false;
}

void list_registry::drop_if_unused(node_list::iterator at) {
  if (at->deleted && at->pins == 0) nodes_.erase(at);
}

void list_registry::unpin(node_list::iterator at) {
  --at->pins;
  drop_if_unused(at);
}

node_list::iterator list_registry::first_shown(node_list::iterator from, uint64_t last_number) {
  while (from != nodes_.end() && from->deleted) ++from;
  return from != nodes_.end() && from->number > last_number ? nodes_.end() : from;
}

list_registry_cursor* list_registry::new_cursor() {
  for (list_registry_cursor& cursor : own_cursors_) {
    if (cursor.registry != nullptr) continue;
    cursor.registry = this;
    return &cursor;
  }
  auto* cursor = new (std::nothrow) list_registry_cursor{this, {}, 0, true};
  if (cursor == nullptr) es_platform::log_line("callback list: no memory for a walk");
  return cursor;
}

void list_registry::free_cursor(list_registry_cursor* cursor) {
  if (cursor->on_heap) {
    delete cursor;
  } else {
    cursor->registry = nullptr;
  }
}

list_registry_cursor* list_registry::first(list_registry_function* function, void** context) {
  const std::lock_guard lock(mutex_);
  const auto shown = first_shown(nodes_.begin(), last_number_);
  if (shown == nodes_.end()) return nullptr;
  list_registry_cursor* cursor = new_cursor();
  if (cursor == nullptr) return nullptr;
  ++shown->pins;
  cursor->at = shown;
  cursor->last_number = last_number_;
  *function = shown->function;
  *context = shown->context;
  return cursor;
}

list_registry_cursor* list_registry::next(list_registry_cursor* cursor, list_registry_function* function,
                                          void** context) {
  const std::lock_guard lock(mutex_);
  const auto shown = first_shown(std::next(cursor->at), cursor->last_number);
  unpin(cursor->at);
  if (shown == nodes_.end()) {
    free_cursor(cursor);
    return nullptr;
  }
  ++shown->pins;
  cursor->at = shown;
  *function = shown->function;
  *context = shown->context;
  return cursor;
}

void list_registry::end(list_registry_cursor* cursor) {
  const std::lock_guard lock(mutex_);
  unpin(cursor->at);
  free_cursor(cursor);
}

list_registry* list_registry_create(uint32_t, uint32_t) { return new (std::nothrow) list_registry; }

void list_registry_destroy(list_registry* registry) { delete registry; }

uint32_t list_registry_add(list_registry* registry, list_registry_function function, void* context) {
  if (registry == nullptr) return EINVAL;
  return es_platform::guarded([&]() -> uint32_t {
    registry->add(function, context);
    return 0;
  });
}

uint32_t list_registry_delete(list_registry* registry, list_registry_function function, void* context) {
  if (registry == nullptr) return EINVAL;
  return registry->remove(function, context) ? 0 : ENOENT;
}

list_registry_cursor* list_registry_first(list_registry* registry, list_registry_function* function,
                                          void** context) {
  return registry != nullptr ? registry->first(function, context) : nullptr;
}

list_registry_cursor* list_registry_next(list_registry_cursor* cursor, list_registry_function* function,
                                         void** context) {
  return cursor != nullptr ? cursor->registry->next(cursor, function, context) : nullptr;
}

void list_registry_end(list_registry_cursor* cursor) {
  if (cursor != nullptr) cursor->registry->end(cursor);
}
