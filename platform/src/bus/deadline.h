// A point in time by which a blocking step must have ended.
#ifndef ES_PLATFORM_SRC_BUS_DEADLINE_H_
#define ES_PLATFORM_SRC_BUS_DEADLINE_H_

#include <algorithm>
#include <cstdint>

#include "es_platform/clock.h"

namespace es_platform::bus {

class Deadline {
 public:
  static Deadline in_ms(uint64_t ms) { return Deadline(clock_now_ns() + ms * 1000000); }

  // Milliseconds left, rounded up so that waiting for them never ends early; 0 when the time is over.
  int left_ms() const {
    const uint64_t now = clock_now_ns();
    if (now >= at_ns_) return 0;
    return static_cast<int>(std::min<uint64_t>((at_ns_ - now + 999999) / 1000000, INT32_MAX));
  }

 private:
  explicit Deadline(uint64_t at_ns) : at_ns_(at_ns) {}
  uint64_t at_ns_;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_DEADLINE_H_
