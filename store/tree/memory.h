// Memory for slabs. Thread-safe.
//
// Touching fresh memory costs more than everything else about a first fill: some 1.7 us for each 4 KB page;
// and records scattered over many pages cost a page walk at each access. So slabs of kUnit and more are cut
// from huge pages, which the ACLs of a process share; a slab of kHugePage has one to itself. Smaller slabs
// come from the heap.
//
// The first page that is shared is left to small pages, so that a process with few ACEs does not pay for 2
// MB, and is kept for the process's life, so that getting and releasing an ACL time and again does not touch
// fresh memory.
#ifndef ES_ACL_STORE_TREE_MEMORY_H_
#define ES_ACL_STORE_TREE_MEMORY_H_

#include <cstddef>

namespace es_tree {

inline constexpr size_t kHugePage = size_t{2} << 20;
inline constexpr size_t kUnit = kHugePage / 64;

// How large the next slab should be for an owner that has `have` bytes in slabs and needs at least `least` (a
// multiple of 64, less than kUnit): an eighth of what there is, so that little is wasted at any size, up to a
// huge page.
size_t next_slab_bytes(size_t have, size_t least) noexcept;

// Memory of any content, aligned to a cache line, or null. `bytes` is a multiple of 64, and of kUnit if not
// smaller.
void* allocate_slab(size_t bytes) noexcept;
void free_slab(void* slab, size_t bytes) noexcept;

}  // namespace es_tree

#endif  // ES_ACL_STORE_TREE_MEMORY_H_
