#include "clock.h"

#include <time.h>

namespace es_tree {

uint64_t now_ms() noexcept {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

}  // namespace es_tree
