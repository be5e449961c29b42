// The first word is written atomically: a reader may test it for an empty queue without the caller's lock.
#include "es_platform/queue.h"

#include <cerrno>

namespace {

// An element's link is its first word.
void*& link_of(void* element) { return *static_cast<void**>(element); }

void set_first(linked_queue* queue, void* element) {
  __atomic_store_n(&queue->first, element, __ATOMIC_RELEASE);
}

void* previous_of(const linked_queue* queue, const void* element) {
  void* at = queue->first;
  while (at != nullptr && link_of(at) != element) at = link_of(at);
  return at;
}

}  // namespace

void queue_append(linked_queue* queue, void* element) { queue_insert(queue, queue->last, element); }

void queue_insert(linked_queue* queue, void* after, void* element) {
  link_of(element) = after != nullptr ? link_of(after) : queue->first;
  if (after == queue->last) queue->last = element;
  if (after != nullptr) {
    link_of(after) = element;
  } else {
    set_first(queue, element);
  }
}

uint32_t queue_unlink(linked_queue* queue, void* element) {
  if (element == nullptr) return ENOENT;
  void* const previous = queue->first == element ? nullptr : previous_of(queue, element);
  if (previous == nullptr && queue->first != element) return ENOENT;
  if (queue->last == element) queue->last = previous;
  if (previous != nullptr) {
    link_of(previous) = link_of(element);
  } else {
    set_first(queue, link_of(element));
  }
  link_of(element) = nullptr;
  return 0;
}

void* queue_next(const linked_queue* queue, const void* element) {
  return element != nullptr ? *static_cast<void* const*>(element) : queue->first;
}
