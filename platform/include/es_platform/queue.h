/* Linked queues: singly linked, intrusive. An element's first word is its link. No lock: the caller
 * serialises.
 *
 * A zero-filled queue is empty. The queue's first word points to the first element. */
#ifndef ES_PLATFORM_QUEUE_H_
#define ES_PLATFORM_QUEUE_H_

#include "es_platform/platform.h"

typedef struct linked_queue {
  void* first;
  void* last;
} linked_queue;

PLATFORM_BEGIN_DECLS

/* At the end. */
PLATFORM_API void queue_append(linked_queue* queue, void* element);
/* Behind `after`; at the front when `after` is null. */
PLATFORM_API void queue_insert(linked_queue* queue, void* after, void* element);
/* Takes the element out. 0, or 2 when it is not in the queue. */
PLATFORM_API uint32_t queue_unlink(linked_queue* queue, void* element);
/* The first element (`element` null) or the one after `element`; null at the end. */
PLATFORM_API void* queue_next(const linked_queue* queue, const void* element);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_QUEUE_H_ */
