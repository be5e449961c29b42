// POSIX calls that the linker routes here (--wrap): locks are watched, sleeping is virtual, allocations can
// be made to fail. Only the code linked into the test program is affected, never the C library itself.
#include <time.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <new>

#include "scripted_platform.h"

using namespace es_test;

// Where a wrapped call goes on to, and its definition here.
#define REAL(result, name, ...) extern "C" result __real_##name(__VA_ARGS__)
#define WRAP(result, name, ...) extern "C" result __wrap_##name(__VA_ARGS__)

// --- Locks ---

REAL(int, pthread_mutex_trylock, pthread_mutex_t*);
REAL(int, pthread_mutex_lock, pthread_mutex_t*);
REAL(int, pthread_mutex_unlock, pthread_mutex_t*);
REAL(int, pthread_mutex_init, pthread_mutex_t*, const pthread_mutexattr_t*);
REAL(int, pthread_mutexattr_destroy, pthread_mutexattr_t*);

namespace {

// Looked at on every lock step, also on those of the log's own mutex: lock-free.
std::array<std::atomic<const void*>, 64> watched{};

void lock_step(const char* step, const pthread_mutex_t* mutex) {
  if (Backstage::inside()) return;
  const Backstage backstage;
  for (const auto& entry : watched)
    if (entry.load(std::memory_order_acquire) == mutex) return record(kLock, describe(step, mutex));
}

void exchange_watched(const void* from, const void* to) {
  for (auto& entry : watched) {
    const void* expected = from;
    if (entry.compare_exchange_strong(expected, to)) return;
  }
}

}  // namespace

WRAP(int, pthread_mutex_trylock, pthread_mutex_t* mutex) {
  lock_step("trylock", mutex);
  return __real_pthread_mutex_trylock(mutex);
}
WRAP(int, pthread_mutex_lock, pthread_mutex_t* mutex) {
  lock_step("lock", mutex);
  return __real_pthread_mutex_lock(mutex);
}
WRAP(int, pthread_mutex_unlock, pthread_mutex_t* mutex) {
  lock_step("unlock", mutex);
  return __real_pthread_mutex_unlock(mutex);
}

WRAP(int, pthread_mutexattr_init, pthread_mutexattr_t* type) {
  return play(kCall, "pthread_mutexattr_init", platform().pthread_mutexattr_init, type);
}
WRAP(int, pthread_mutexattr_settype, pthread_mutexattr_t* type, int kind) {
  return play(kCall, "pthread_mutexattr_settype", platform().pthread_mutexattr_settype, type, kind);
}
WRAP(int, pthread_mutexattr_destroy, pthread_mutexattr_t* type) {
  const Backstage backstage;
  record(kCall, "pthread_mutexattr_destroy()");
  return __real_pthread_mutexattr_destroy(type);
}
// Only the library's own mutex: the test framework makes some, too.
WRAP(int, pthread_mutex_init, pthread_mutex_t* mutex, const pthread_mutexattr_t* type) {
  if (mutex != &es_acl_hmutex) return __real_pthread_mutex_init(mutex, type);
  return play(kCall, "pthread_mutex_init", platform().pthread_mutex_init, mutex, type);
}

WRAP(int, regcomp, regex_t* compiled, const char* pattern, int flags) {
  return play(kCall, "regcomp", platform().regcomp, compiled, pattern, flags);
}

WRAP(int, nanosleep, const timespec* interval, timespec*) {
  const Backstage backstage;
  record(kCall, describe("nanosleep", static_cast<uint64_t>(interval->tv_sec),
                         static_cast<uint64_t>(interval->tv_nsec)));
  return 0;
}

// --- Allocations ---

REAL(void*, malloc, size_t);
REAL(void*, calloc, size_t, size_t);

namespace {

constexpr int kNever = -1;
thread_local int allocations_left = kNever;
thread_local bool allocation_failed = false;

bool this_one_fails() {
  if (allocations_left == kNever || Backstage::inside()) return false;
  if (allocations_left == 0 || --allocations_left > 0) return false;
  allocation_failed = true;
  return true;
}

}  // namespace

// The sanitizers' allocators would end a process that asks for more memory than there is. They want to know early,
// before they can follow what is instrumented.
#define EARLY __attribute__((visibility("default"), no_sanitize("address", "thread")))
extern "C" EARLY const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" EARLY const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

WRAP(void*, malloc, size_t size) { return this_one_fails() ? nullptr : __real_malloc(size); }
WRAP(void*, calloc, size_t count, size_t size) {
  return this_one_fails() ? nullptr : __real_calloc(count, size);
}

void* operator new(size_t size, const std::nothrow_t&) noexcept { return malloc(size == 0 ? 1 : size); }
void* operator new(size_t size) {
  if (void* memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }

namespace es_test {

void watch_mutex(const pthread_mutex_t* mutex, const std::string& name) {
  name_pointer(mutex, name);
  exchange_watched(nullptr, mutex);
}
void unwatch_mutex(const pthread_mutex_t* mutex) { exchange_watched(mutex, nullptr); }

void fail_allocation(int nth) {
  allocations_left = nth;
  allocation_failed = false;
}
bool end_allocation_failure() {
  allocations_left = kNever;
  return allocation_failed;
}

}  // namespace es_test
