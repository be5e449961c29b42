// Fixed-size element pools: a free list through the free elements themselves, fed by chunks.
//
// Elements go out last-in-first-out, so that what is taken is warm in the cache. A pair of take and give by
// one thread is common, and one free element therefore waits in `spare_`, where a single atomic exchange
// hands it over; everything else happens under the mutex.
//
// Under AddressSanitizer a free element is poisoned: using it after its return, or returning it twice, is
// reported.
#include "es_platform/pool.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "log.h"

#if defined(__SANITIZE_ADDRESS__)
#define POOL_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define POOL_POISONS 1
#endif
#endif
#ifdef POOL_POISONS
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#endif

namespace {

constexpr size_t kAlignment = 16;

struct free_element {
  free_element* next;
};

struct chunk_deleter {
  void operator()(unsigned char* memory) const { std::free(memory); }
};
using chunk = std::unique_ptr<unsigned char, chunk_deleter>;

}  // namespace

struct pool {
 public:
  pool(const char* name, uint32_t element_size, uint32_t elements_per_chunk)
      : name_(name != nullptr ? name : ""),
        stride_((size_t{element_size} + kAlignment - 1) / kAlignment * kAlignment),
        per_chunk_(elements_per_chunk) {}
  ~pool();
  pool(const pool&) = delete;
  pool& operator=(const pool&) = delete;

  void* take();
  void give(void* element);
  uint64_t in_use();

 private:
  bool grow();
  void push(void* element);

  const std::string name_;
  const size_t stride_;
  const size_t per_chunk_;

  alignas(64) std::atomic<void*> spare_{nullptr};
  alignas(64) std::mutex mutex_;  // guards everything below
  free_element* free_ = nullptr;
  uint64_t free_count_ = 0;
  std::vector<chunk> chunks_;
};

pool::~pool() {
  for (const chunk& memory : chunks_) ASAN_UNPOISON_MEMORY_REGION(memory.get(), stride_ * per_chunk_);
}

// The link is written while the element is not poisoned: an element given back twice is found out here.
void pool::push(void* element) {
  auto* link = static_cast<free_element*>(element);
  link->next = free_;
  free_ = link;
  ++free_count_;
  ASAN_POISON_MEMORY_REGION(element, stride_);
}

// The new elements go out in the order of their addresses.
bool pool::grow() {
  unsigned char* memory = nullptr;
  try {
    chunks_.reserve(chunks_.size() + 1 > chunks_.capacity() ? chunks_.size() * 2 + 1 : chunks_.capacity());
    memory = static_cast<unsigned char*>(std::aligned_alloc(kAlignment, stride_ * per_chunk_));
  } catch (const std::bad_alloc&) {
  }
  if (memory == nullptr) {
    es_platform::log_line("pool \"%s\": no memory for %zu more elements", name_.c_str(), per_chunk_);
    return false;
  }
  chunks_.emplace_back(memory);
  for (size_t i = per_chunk_; i-- > 0;) push(memory + i * stride_);
  return true;
}

void* pool::take() {
  void* element = nullptr;
  if (spare_.load(std::memory_order_relaxed) != nullptr) {
    element = spare_.exchange(nullptr, std::memory_order_acquire);
  }
  if (element == nullptr) {
    const std::lock_guard lock(mutex_);
    if (free_ == nullptr && !grow()) return nullptr;
    element = free_;
    ASAN_UNPOISON_MEMORY_REGION(element, stride_);
    free_ = static_cast<free_element*>(element)->next;
    --free_count_;
    return element;
  }
  ASAN_UNPOISON_MEMORY_REGION(element, stride_);
  return element;
}

void pool::give(void* element) {
#ifdef POOL_POISONS
  static_cast<volatile free_element*>(element)->next = nullptr;
  ASAN_POISON_MEMORY_REGION(element, stride_);
#endif
  void* none = nullptr;
  if (spare_.load(std::memory_order_relaxed) == nullptr &&
      spare_.compare_exchange_strong(none, element, std::memory_order_release, std::memory_order_relaxed)) {
    return;
  }
  const std::lock_guard lock(mutex_);
  ASAN_UNPOISON_MEMORY_REGION(element, stride_);
  push(element);
}

uint64_t pool::in_use() {
  const std::lock_guard lock(mutex_);
  const uint64_t spare = spare_.load(std::memory_order_relaxed) != nullptr ? 1 : 0;
  return chunks_.size() * per_chunk_ - free_count_ - spare;
}

pool* pool_create(const char* name, uint32_t element_size, uint32_t elements_per_chunk, uint32_t, uint32_t,
                  uint32_t) {
  if (element_size == 0 || elements_per_chunk == 0) return nullptr;
  try {
    return new pool(name, element_size, elements_per_chunk);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void* pool_take(pool* from) { return from != nullptr ? from->take() : nullptr; }

void pool_give(pool* to, void* element) {
  if (to != nullptr && element != nullptr) to->give(element);
}

uint64_t pool_in_use(pool* of) { return of != nullptr ? of->in_use() : 0; }

void pool_destroy(pool* victim) { delete victim; }
