#include "memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <utility>

namespace es_tree {

namespace {

constexpr size_t kCacheLine = 64;

// Maps twice the size and gives back what stands before and after the aligned half.
char* map_page(bool huge) noexcept {
  void* map = mmap(nullptr, 2 * kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (map == MAP_FAILED) return nullptr;
  const auto at = reinterpret_cast<uintptr_t>(map);
  const size_t before = (kHugePage - at % kHugePage) % kHugePage;
  char* page = static_cast<char*>(map) + before;
  if (before != 0) munmap(map, before);
  munmap(page + kHugePage, kHugePage - before);
  if (huge) madvise(page, kHugePage, MADV_HUGEPAGE);  // a wish; without it the page is made of small ones
  return page;
}

// The pages that are shared. A page's units in use are the bits set in a word; a full page stands apart, so
// that the search for room meets only pages that have some.
class SharedPages {
 public:
  void* take(size_t units) noexcept {
    const std::lock_guard lock(mutex_);
    for (auto page = open_.begin(); page != open_.end(); ++page) {
      if (void* found = take_from(page, units)) return found;
    }
    char* fresh = map_page(first_ != nullptr);
    if (fresh == nullptr) return nullptr;
    try {
      const auto page = open_.emplace(fresh, 0).first;
      if (first_ == nullptr) first_ = fresh;
      return take_from(page, units);
    } catch (const std::bad_alloc&) {
      munmap(fresh, kHugePage);
      return nullptr;
    }
  }

  void give_back(char* slab, size_t units) noexcept {
    const std::lock_guard lock(mutex_);
    const size_t offset = reinterpret_cast<uintptr_t>(slab) % kHugePage;
    char* base = slab - offset;
    if (auto full = full_.extract(base)) open_.insert(std::move(full));
    const auto page = open_.find(base);
    page->second &= ~(mask(units) << offset / kUnit);
    if (page->second != 0 || base == first_) return;
    munmap(base, kHugePage);
    open_.erase(page);
  }

 private:
  using Pages = std::map<char*, uint64_t>;

  static uint64_t mask(size_t units) noexcept { return ~uint64_t{0} >> (64 - units); }

  void* take_from(Pages::iterator page, size_t units) noexcept {
    for (size_t at = 0; at + units <= 64; ++at) {
      if ((page->second & mask(units) << at) != 0) continue;
      page->second |= mask(units) << at;
      char* slab = page->first + at * kUnit;
      if (page->second == ~uint64_t{0}) full_.insert(open_.extract(page));
      return slab;
    }
    return nullptr;
  }

  std::mutex mutex_;
  Pages open_;
  Pages full_;
  char* first_ = nullptr;
};

// Never destroyed: other threads may still use the store while the process ends.
SharedPages& shared_pages() {
  alignas(SharedPages) static char place[sizeof(SharedPages)];
  static auto* const pages = new (place) SharedPages;
  return *pages;
}

}  // namespace

size_t next_slab_bytes(size_t have, size_t least) noexcept {
  const size_t bytes = std::clamp(have / 8, least, kHugePage);
  return bytes < kUnit ? bytes / kCacheLine * kCacheLine : bytes / kUnit * kUnit;
}

void* allocate_slab(size_t bytes) noexcept {
  if (bytes < kUnit) return std::aligned_alloc(kCacheLine, bytes);
  return bytes < kHugePage ? shared_pages().take(bytes / kUnit) : map_page(true);
}

void free_slab(void* slab, size_t bytes) noexcept {
  if (bytes < kUnit) {
    std::free(slab);
  } else if (bytes < kHugePage) {
    shared_pages().give_back(static_cast<char*>(slab), bytes / kUnit);
  } else {
    munmap(slab, kHugePage);
  }
}

}  // namespace es_tree
