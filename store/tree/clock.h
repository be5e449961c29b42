// The one clock of the store: tests link another definition and move the time by hand.
#ifndef ES_ACL_STORE_TREE_CLOCK_H_
#define ES_ACL_STORE_TREE_CLOCK_H_

#include <cstdint>

namespace es_tree {

// Milliseconds of a clock that never goes back; cheap (no system call) and a few milliseconds coarse. Any
// thread.
uint64_t now_ms() noexcept;

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_CLOCK_H_
