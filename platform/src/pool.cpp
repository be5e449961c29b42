// Fixed-size element pools: a free list through the free elements themselves, fed by chunks.
//
// Elements go out last-in-first-out, so that what is taken is warm in the cache.
//
// There are two lists. One thread usually takes and gives all the time, and the lane is for it: whoever finds the lane
// empty of threads goes through at the cost of one atomic exchange. Nobody waits at the lane; a thread that meets
// another one there turns to the shared list, under the mutex. Elements end up on either list. Before the pool grows,
// the lane's come over to the shared list, so that there is always a use for every free element.
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
#include <thread>
#include <utility>
#include <vector>

#include "asan.h"
#include "log.h"

#if ES_PLATFORM_ASAN
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#define ASAN_UNPOISON_MEMORY_REGION(address, size) (static_cast<void>(address), static_cast<void>(size))
#endif

namespace {

constexpr size_t kAlignment = 16;

// A list of free elements of `size` bytes.
class free_list {
 public:
  explicit free_list(size_t size) : size_(size) {}

  uint64_t count() const { return count_; }
  bool empty() const { return first_ == nullptr; }
  void swap(free_list& other) {
    std::swap(first_, other.first_);
    std::swap(count_, other.count_);
  }

  // The link is written while the element should not be poisoned: one given back twice is found out here.
  void push(void* element) {
    auto* const link = static_cast<free_element*>(element);
    link->next = first_;
    first_ = link;
    ++count_;
    ASAN_POISON_MEMORY_REGION(element, size_);
  }

  // Null when there is none.
  void* pop() {
    free_element* const element = first_;
    if (element == nullptr) return nullptr;
    ASAN_UNPOISON_MEMORY_REGION(element, size_);
    first_ = element->next;
    --count_;
    return element;
  }

 private:
  struct free_element {
    free_element* next;
  };

  const size_t size_;
  free_element* first_ = nullptr;
  uint64_t count_ = 0;
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
  // The lane with its list is one thread's from enter to leave: a few instructions.
  bool enter_lane() { return !lane_taken_.exchange(true, std::memory_order_acquire); }
  void leave_lane() { lane_taken_.store(false, std::memory_order_release); }
  void wait_for_lane() {
    while (!enter_lane()) std::this_thread::yield();
  }
  void* take_shared();
  bool grow();

  const std::string name_;
  const size_t stride_;
  const size_t per_chunk_;

  alignas(64) std::atomic<bool> lane_taken_{false};
  free_list lane_{stride_};
  alignas(64) std::mutex mutex_;  // guards everything below
  free_list shared_{stride_};
  std::vector<chunk> chunks_;
};

pool::~pool() {
  for (const chunk& memory : chunks_) ASAN_UNPOISON_MEMORY_REGION(memory.get(), stride_ * per_chunk_);
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
  for (size_t i = per_chunk_; i-- > 0;) shared_.push(memory + i * stride_);
  return true;
}

void* pool::take() {
  if (enter_lane()) {
    void* const element = lane_.pop();
    leave_lane();
    if (element != nullptr) return element;
  }
  return take_shared();
}

void* pool::take_shared() {
  const std::lock_guard lock(mutex_);
  if (shared_.empty()) {
    wait_for_lane();
    shared_.swap(lane_);
    leave_lane();
  }
  if (shared_.empty() && !grow()) return nullptr;
  return shared_.pop();
}

void pool::give(void* element) {
  if (enter_lane()) {
    lane_.push(element);
    leave_lane();
    return;
  }
  const std::lock_guard lock(mutex_);
  shared_.push(element);
}

uint64_t pool::in_use() {
  const std::lock_guard lock(mutex_);
  wait_for_lane();
  const uint64_t on_lane = lane_.count();
  leave_lane();
  return chunks_.size() * per_chunk_ - shared_.count() - on_lane;
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
