// In a file of its own, so that the compiler does not see through operator new where it is used.
#include "failing_alloc.h"

#include <sys/mman.h>

#include <cstdlib>
#include <new>

namespace store_test {

int64_t allocations_left = -1;

}  // namespace store_test

namespace {

bool fails() { return store_test::allocations_left >= 0 && store_test::allocations_left-- == 0; }

void* or_throw(void* memory) {
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

extern "C" {
void* __real_aligned_alloc(size_t alignment, size_t size);
void* __real_mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset);
void* __wrap_aligned_alloc(size_t alignment, size_t size);
void* __wrap_mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset);

void* __wrap_aligned_alloc(size_t alignment, size_t size) {
  return fails() ? nullptr : __real_aligned_alloc(alignment, size);
}

void* __wrap_mmap(void* at, size_t size, int protection, int flags, int fd, off_t offset) {
  return fails() ? MAP_FAILED : __real_mmap(at, size, protection, flags, fd, offset);
}
}

void* operator new(size_t size) { return or_throw(fails() ? nullptr : std::malloc(size)); }
void* operator new(size_t size, std::align_val_t alignment) {
  const auto unit = static_cast<size_t>(alignment);
  return or_throw(fails() ? nullptr : __real_aligned_alloc(unit, (size + unit - 1) / unit * unit));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, size_t, std::align_val_t) noexcept { std::free(memory); }
