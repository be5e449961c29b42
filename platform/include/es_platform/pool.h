/* Fixed-size element pools. Elements are aligned to 16 bytes; memory grows by whole chunks and is never given
 * back before the pool's end. Under AddressSanitizer an element that is not taken is poisoned. */
#ifndef ES_PLATFORM_POOL_H_
#define ES_PLATFORM_POOL_H_

#include "es_platform/platform.h"

typedef struct pool pool;

PLATFORM_BEGIN_DECLS

/* A pool, or null. Element size in bytes; `flags` and the last two arguments are accepted as they are and
 * have no effect here. The name is copied; it tells the pool in log lines. 0 as a size or a count: null. */
PLATFORM_API pool* pool_create(const char* name, uint32_t element_size, uint32_t elements_per_chunk,
                               uint32_t flags, uint32_t reserved_a, uint32_t reserved_b);
/* An element of unspecified content, or null. Null for a null pool. */
PLATFORM_API void* pool_take(pool* from);
/* Gives an element back to the pool that it came from. Null elements are allowed. */
PLATFORM_API void pool_give(pool* to, void* element);
/* Elements that are taken and not given back; exact while no other thread takes or gives. */
PLATFORM_API uint64_t pool_in_use(pool* of);
/* Frees the pool with all its elements. Null is allowed. */
PLATFORM_API void pool_destroy(pool* victim);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_POOL_H_ */
