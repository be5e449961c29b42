// A point in time by which a blocking step must have ended.
#ifndef ES_PLATFORM_SRC_BUS_DEADLINE_H_
#define ES_PLATFORM_SRC_BUS_DEADLINE_H_

#include <algorithm>
#include <cstdint>

#include "es_platform/clock.h"

namespace es_platform::bus {

// Milliseconds to wait, rounded up so that waiting for them never ends early; 0 when the time is over.
inline int ms_between(uint64_t now_ns, uint64_t then_ns) {
  if (now_ns >= then_ns) return 0;
  const uint64_t ns = then_ns - now_ns;
  return static_cast<int>(std::min<uint64_t>(ns / 1000000 + (ns % 1000000 != 0), INT32_MAX));
}

class Deadline {
 public:
  static Deadline in_ms(uint64_t ms) { return Deadline(clock_now_ns() + ms * 1000000); }

  // 0 when it has passed.
  uint64_t left_ns() const {
    const uint64_t now_ns = clock_now_ns();
    return now_ns < at_ns_ ? at_ns_ - now_ns : 0;
  }
  // Milliseconds left, 0 when it has passed.
  int left_ms() const { return ms_between(clock_now_ns(), at_ns_); }

 private:
  explicit Deadline(uint64_t at_ns) : at_ns_(at_ns) {}
  uint64_t at_ns_;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_DEADLINE_H_
