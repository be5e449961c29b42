// What stands behind the platform's time: reading it, and being woken at it.
//
// There is one source at a time. The system's serves every process; another may be put in its place before
// the first service that takes time has started, which is how time can be made to pass at will.
#ifndef ES_PLATFORM_SRC_CLOCK_SOURCE_H_
#define ES_PLATFORM_SRC_CLOCK_SOURCE_H_

#include <cstdint>

namespace es_platform {

class clock_source {
 public:
  // Nanoseconds; never goes back.
  virtual uint64_t now_ns() = 0;
  // Lets the timerfd become readable once, when the time has come to `at_ns` (at once when that has passed);
  // replaces what was armed before. 0 disarms. 0, or an errno value.
  virtual int arm(int timer_fd, uint64_t at_ns) = 0;

 protected:
  // Trivial, so that the system's source is still there for threads that outlive the end of main().
  ~clock_source() = default;
};

// The source in use.
clock_source& clock_current();

// Puts another source in use; null: the system's.
void clock_replace(clock_source* source);

}  // namespace es_platform

#endif  // ES_PLATFORM_SRC_CLOCK_SOURCE_H_
