// POSIX calls that the linker routes here (--wrap): locks are watched, sleeping is virtual, allocations can
// be made to fail. Only the code linked into the test program is affected, never the C library itself.
#include <array>
#include <atomic>
#include <cstdlib>
#include <new>

#include "scripted_call.h"
#include "scripted_platform.h"

extern "C" {
int __real_pthread_mutex_trylock(pthread_mutex_t*);
int __real_pthread_mutex_lock(pthread_mutex_t*);
int __real_pthread_mutex_unlock(pthread_mutex_t*);
int __real_pthread_mutex_init(pthread_mutex_t*, const pthread_mutexattr_t*);
int __real_pthread_mutexattr_init(pthread_mutexattr_t*);
int __real_pthread_mutexattr_settype(pthread_mutexattr_t*, int);
int __real_pthread_mutexattr_destroy(pthread_mutexattr_t*);
int __real_regcomp(regex_t*, const char*, int);
void* __real_malloc(size_t);
void* __real_calloc(size_t, size_t);
void* __real_realloc(void*, size_t);
}

namespace {

using es_test::Backstage;
using es_test::platform;
using es_test::ScriptedCall;

// Looked at on every lock step, also on those of the log's own mutex: lock-free.
std::array<std::atomic<const void*>, 64> watched{};

void lock_step(const char* step, const pthread_mutex_t* mutex) {
  if (Backstage::inside()) return;
  for (const auto& entry : watched) {
    if (entry.load(std::memory_order_acquire) != mutex) continue;
    const ScriptedCall call(es_test::kLock, step, static_cast<const void*>(mutex));
    return;
  }
}

constexpr int kNever = -1;
thread_local int allocations_left = kNever;
thread_local bool allocation_failed = false;

bool this_one_fails() {
  if (allocations_left == kNever || Backstage::inside()) return false;
  if (allocations_left == 0 || --allocations_left > 0) return false;
  allocation_failed = true;
  return true;
}

void* allocate(size_t size) { return this_one_fails() ? nullptr : __real_malloc(size == 0 ? 1 : size); }

void* allocate_or_throw(size_t size) {
  if (void* memory = allocate(size)) return memory;
  throw std::bad_alloc();
}

}  // namespace

extern "C" {

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
  lock_step("trylock", mutex);
  return __real_pthread_mutex_trylock(mutex);
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  lock_step("lock", mutex);
  return __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  lock_step("unlock", mutex);
  return __real_pthread_mutex_unlock(mutex);
}

int __wrap_pthread_mutexattr_init(pthread_mutexattr_t* attribute) {
  if (Backstage::inside()) return __real_pthread_mutexattr_init(attribute);
  const ScriptedCall call("pthread_mutexattr_init");
  return platform().pthread_mutexattr_init(attribute);
}

int __wrap_pthread_mutexattr_settype(pthread_mutexattr_t* attribute, int type) {
  if (Backstage::inside()) return __real_pthread_mutexattr_settype(attribute, type);
  const ScriptedCall call("pthread_mutexattr_settype",
                          type == PTHREAD_MUTEX_RECURSIVE ? "recursive" : "another");
  return platform().pthread_mutexattr_settype(attribute, type);
}

int __wrap_pthread_mutexattr_destroy(pthread_mutexattr_t* attribute) {
  if (Backstage::inside()) return __real_pthread_mutexattr_destroy(attribute);
  const ScriptedCall call("pthread_mutexattr_destroy");
  return __real_pthread_mutexattr_destroy(attribute);
}

// Only the library's own mutex: the test framework makes some, too.
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attribute) {
  if (Backstage::inside() || mutex != &es_acl_hmutex) return __real_pthread_mutex_init(mutex, attribute);
  const ScriptedCall call("pthread_mutex_init", static_cast<const void*>(mutex));
  return platform().pthread_mutex_init(mutex, attribute);
}

int __wrap_regcomp(regex_t* compiled, const char* pattern, int flags) {
  if (Backstage::inside()) return __real_regcomp(compiled, pattern, flags);
  const ScriptedCall call("regcomp", pattern, static_cast<uint64_t>(flags));
  return platform().regcomp(compiled, pattern, flags);
}

int __wrap_nanosleep(const timespec* interval, timespec*) {
  const ScriptedCall call("nanosleep", static_cast<uint64_t>(interval->tv_sec),
                          static_cast<uint64_t>(interval->tv_nsec));
  return 0;
}

void* __wrap_malloc(size_t size) { return this_one_fails() ? nullptr : __real_malloc(size); }
void* __wrap_calloc(size_t count, size_t size) {
  return this_one_fails() ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* memory, size_t size) {
  return this_one_fails() ? nullptr : __real_realloc(memory, size);
}

}  // extern "C"

void* operator new(size_t size) { return allocate_or_throw(size); }
void* operator new[](size_t size) { return allocate_or_throw(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { free(memory); }
void operator delete[](void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
void operator delete[](void* memory, size_t) noexcept { free(memory); }

namespace es_test {

void watch_mutex(const pthread_mutex_t* mutex, const std::string& name) {
  name_pointer(mutex, name);
  for (auto& entry : watched) {
    const void* expected = nullptr;
    if (entry.compare_exchange_strong(expected, mutex) || expected == mutex) return;
  }
}

void unwatch_mutex(const pthread_mutex_t* mutex) {
  for (auto& entry : watched) {
    const void* expected = mutex;
    entry.compare_exchange_strong(expected, nullptr);
  }
}

FailAllocation::FailAllocation(int nth) {
  allocations_left = nth;
  allocation_failed = false;
}

FailAllocation::~FailAllocation() { allocations_left = kNever; }

bool FailAllocation::fired() const { return allocation_failed; }

}  // namespace es_test
