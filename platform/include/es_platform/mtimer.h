/* Managed timers: a tree holds leaves, each of which expires once after it has been started.
 *
 * When a leaf expires, the tree signals the event it was made with; the event's handler, on the event
 * manager's thread, then asks the tree for its expired leaves until there are none:
 *
 *     while (mtimer_tree_expired(tree)) {
 *       mtimer_leaf* leaf = mtimer_tree_first_expired(tree);
 *       if (leaf == NULL) return;  // another thread has stopped or freed it
 *       mtimer_leaf_stop(leaf);
 *       ... mtimer_leaf_get_context(leaf) ...
 *     }
 *
 * Leaves may be started, stopped, made and freed from any thread. */
#ifndef ES_PLATFORM_MTIMER_H_
#define ES_PLATFORM_MTIMER_H_

#include "es_platform/evm.h"
#include "es_platform/platform.h"

typedef struct mtimer_tree mtimer_tree;
typedef struct mtimer_leaf mtimer_leaf;

PLATFORM_BEGIN_DECLS

/* The delay of one second, as mtimer_leaf_start() takes it: nanoseconds. */
PLATFORM_API uint64_t timer_one_second(void);

/* A tree that reports to the event, or null with errno. `flags` is 0. To be freed before its event manager.
 */
PLATFORM_API mtimer_tree* mtimer_tree_new(const evm_sigevent* event, uint32_t flags);
/* Frees the tree and its leaves. Its handler must have been detached before; null is allowed. */
PLATFORM_API void mtimer_tree_free(mtimer_tree* tree);

/* A stopped leaf, or null with errno. `flags` is 0; type and context are handed back as they are. */
PLATFORM_API mtimer_leaf* mtimer_leaf_new(mtimer_tree* tree, uint16_t type, uint32_t flags, void* context);
/* Stops and frees the leaf. When the thread of the event manager has taken this leaf with
 * mtimer_tree_first_expired() and is still inside the event's handler, waits until the handler has returned
 * or taken another leaf, unless called from inside that handler: afterwards nobody but the caller can be
 * using the leaf's context. Waits with no lock held. Null is allowed. */
PLATFORM_API void mtimer_leaf_free(mtimer_leaf* leaf);

/* Lets the leaf expire `delay` nanoseconds from now, whether or not it was started already. */
PLATFORM_API void mtimer_leaf_start(mtimer_leaf* leaf, uint64_t delay);
/* The leaf expires no more, and is no longer among the expired ones. */
PLATFORM_API void mtimer_leaf_stop(mtimer_leaf* leaf);
PLATFORM_API uint16_t mtimer_leaf_get_type(const mtimer_leaf* leaf);
PLATFORM_API void* mtimer_leaf_get_context(const mtimer_leaf* leaf);

/* Non-zero while the tree holds an expired leaf that has not been stopped. */
PLATFORM_API int mtimer_tree_expired(mtimer_tree* tree);
/* The leaf that expired first, or null. It stays expired until it is stopped or started. */
PLATFORM_API mtimer_leaf* mtimer_tree_first_expired(mtimer_tree* tree);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_MTIMER_H_ */
