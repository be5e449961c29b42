// Heap buffers of one call: from malloc or calloc, so that running out is a null and not an exception.
#ifndef ES_ACL_SRC_BUFFER_H_
#define ES_ACL_SRC_BUFFER_H_

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
template <typename T>
Buffer<T> uninitialised(size_t count) {
  return Buffer<T>(static_cast<T*>(std::malloc((count != 0 ? count : 1) * sizeof(T))));
}

}  // namespace es_acl

#endif  // ES_ACL_SRC_BUFFER_H_
