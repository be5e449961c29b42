// What the timers and the callback lists do without a script: the plain thing, with virtual time.
#ifndef TESTS_SUPPORT_SCRIPTED_CALLBACKS_H_
#define TESTS_SUPPORT_SCRIPTED_CALLBACKS_H_

#include "es_platform/list_registry.h"
#include "es_platform/mtimer.h"

namespace es_test {

inline uint64_t one_second() { return 1000000000; }
mtimer_tree* make_tree(const evm_sigevent* event, uint32_t flags);
mtimer_leaf* make_leaf(mtimer_tree* tree, uint16_t type, uint32_t flags, void* context);
void free_leaf(mtimer_leaf* leaf);
void start_leaf(mtimer_leaf* leaf, uint64_t delay);
void stop_leaf(mtimer_leaf* leaf);
uint16_t leaf_type(const mtimer_leaf* leaf);
void* leaf_context(const mtimer_leaf* leaf);
int tree_expired(mtimer_tree* tree);
mtimer_leaf* first_expired(mtimer_tree* tree);

list_registry* make_registry(uint32_t flags, uint32_t kind);
void destroy_registry(list_registry* registry);
uint32_t add_entry(list_registry* registry, list_registry_function function, void* context);
uint32_t delete_entry(list_registry* registry, list_registry_function function, void* context);
list_registry_cursor* first_entry(list_registry* registry, list_registry_function* function, void** context);
list_registry_cursor* next_entry(list_registry_cursor* cursor, list_registry_function* function,
                                 void** context);
void end_walk(list_registry_cursor* cursor);

}  // namespace es_test

#endif  // TESTS_SUPPORT_SCRIPTED_CALLBACKS_H_
