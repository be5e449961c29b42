// Memory for slabs. Any thread.
#ifndef ES_ACL_STORE_TREE_MEMORY_H_
#define ES_ACL_STORE_TREE_MEMORY_H_

#include <cstddef>

namespace es_tree {

inline constexpr size_t kHugePage = size_t{2} << 20;

// Memory of any content, aligned to a cache line, or null. `bytes` is a multiple of 64 and at most kHugePage.
void* allocate_slab(size_t bytes) noexcept;
void free_slab(void* slab, size_t bytes) noexcept;

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_MEMORY_H_
