// Two small guards for the C boundary.
#ifndef ES_PLATFORM_SRC_GUARD_H_
#define ES_PLATFORM_SRC_GUARD_H_

#include <cerrno>
#include <cstdint>
#include <new>

namespace es_platform {

// Runs the body of a C function that returns a status: no exception leaves it, exhausted memory becomes
// ENOMEM.
template <typename Body>
uint32_t guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

// The diagnostics are called between a failure and the caller's look at errno: they leave errno as it was.
class errno_keeper {
 public:
  errno_keeper() : saved_(errno) {}
  ~errno_keeper() { errno = saved_; }
  errno_keeper(const errno_keeper&) = delete;
  errno_keeper& operator=(const errno_keeper&) = delete;

 private:
  const int saved_;
};

}  // namespace es_platform

#endif  // ES_PLATFORM_SRC_GUARD_H_
