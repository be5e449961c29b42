/* Callback-list registries: ordered lists of (function, context) pairs, walked while they change.
 *
 * Adding a pair that is present already adds a second one; deleting takes away the first equal one. A walk
 * shows the pairs in the order of their addition. A pair deleted during a walk is not shown any more once the
 * deletion has returned, unless the walk was showing it just then; a pair added during a walk is not shown by
 * it. Walks may nest, and go on in any number of threads; a walk belongs to one thread and holds no lock
 * between its steps. */
#ifndef ES_PLATFORM_LIST_REGISTRY_H_
#define ES_PLATFORM_LIST_REGISTRY_H_

#include "es_platform/platform.h"

typedef struct list_registry list_registry;
typedef struct list_registry_cursor list_registry_cursor;
typedef void (*list_registry_function)(void);

PLATFORM_BEGIN_DECLS

/* A registry, or null. The two arguments are accepted as they are. */
PLATFORM_API list_registry* list_registry_create(uint32_t flags, uint32_t kind);
/* Frees it. No walk may be going on. Null is allowed. */
PLATFORM_API void list_registry_destroy(list_registry* registry);
/* 0, 12, or 22 for a null registry. */
PLATFORM_API uint32_t list_registry_add(list_registry* registry, list_registry_function function,
                                        void* context);
/* 0, 2 when there is no such pair, or 22 for a null registry. */
PLATFORM_API uint32_t list_registry_delete(list_registry* registry, list_registry_function function,
                                           void* context);

/* Begins a walk: the first pair and a cursor, or null when there is none (the outputs are then untouched). */
PLATFORM_API list_registry_cursor* list_registry_first(list_registry* registry,
                                                       list_registry_function* function, void** context);
/* The next pair; null, and the cursor is gone, after the last. */
PLATFORM_API list_registry_cursor* list_registry_next(list_registry_cursor* cursor,
                                                      list_registry_function* function, void** context);
/* Ends a walk before its end. Null is allowed. */
PLATFORM_API void list_registry_end(list_registry_cursor* cursor);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_LIST_REGISTRY_H_ */
