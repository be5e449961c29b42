// Heap buffers of one call: from malloc or calloc, so that running out is a null and not an exception.
#ifndef ES_ACL_SRC_BUFFER_H_
#define ES_ACL_SRC_BUFFER_H_

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace es_acl {

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};

template <typename T>
using Buffer = std::unique_ptr<T[], Free>;

// Null when memory runs out, and only then: there is room for one element at least.
template <typename T>
Buffer<T> zeroed(size_t count) {
  return Buffer<T>(static_cast<T*>(std::calloc(count != 0 ? count : 1, sizeof(T))));
}
// For what may take many megabytes: the fewer pages, the sooner it is there.
template <typename T>
Buffer<T> zeroed_large(size_t count) {
  Buffer<T> list = zeroed<T>(count);
#ifdef MADV_HUGEPAGE
  constexpr size_t kPage = size_t{2} << 20;
  if (list == nullptr || count * sizeof(T) < 2 * kPage) return list;
  const auto begin = (reinterpret_cast<uintptr_t>(list.get()) + kPage - 1) & ~(kPage - 1);
  const auto end = reinterpret_cast<uintptr_t>(list.get() + count) & ~(kPage - 1);
  if (begin < end) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#endif
  return list;
}
template <typename T>
Buffer<T> uninitialised(size_t count) {
  return Buffer<T>(static_cast<T*>(std::malloc((count != 0 ? count : 1) * sizeof(T))));
}

}  // namespace es_acl

#endif  // ES_ACL_SRC_BUFFER_H_
