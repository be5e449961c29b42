// An allocator that fails on demand, under a test program linked with --wrap for the calls that the store
// allocates by.
#ifndef ES_ACL_TESTS_STORE_FAILING_ALLOC_H_
#define ES_ACL_TESTS_STORE_FAILING_ALLOC_H_

#include <cstdint>

namespace store_test {

// Allocations until one fails; negative: none does. Set it around one operation only.
extern int64_t allocations_left;

// Runs the operation with its n-th allocation failing, from 0; true when there was one.
template <typename Operation>
bool failing_at(int64_t n, Operation operation) {
  allocations_left = n;
  operation();
  const bool failed = allocations_left < 0;
  allocations_left = -1;
  return failed;
}

}  // namespace store_test

#endif  // ES_ACL_TESTS_STORE_FAILING_ALLOC_H_
