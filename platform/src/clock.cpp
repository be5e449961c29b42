#include "es_platform/clock.h"

#include <sys/timerfd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "clock_source.h"

namespace es_platform {

namespace {

constexpr uint64_t kNsPerSecond = 1'000'000'000;

class system_clock_source final : public clock_source {
 public:
  uint64_t now_ns() override {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
  }

  int arm(int timer_fd, uint64_t at_ns) override {
    itimerspec when{};
    when.it_value.tv_sec = static_cast<time_t>(at_ns / kNsPerSecond);
    when.it_value.tv_nsec = static_cast<long>(at_ns % kNsPerSecond);
    return timerfd_settime(timer_fd, TFD_TIMER_ABSTIME, &when, nullptr) == 0 ? 0 : errno;
  }
};

constinit system_clock_source system_source;
constinit std::atomic<clock_source*> current{&system_source};

}  // namespace

clock_source& clock_current() { return *current.load(std::memory_order_acquire); }

void clock_replace(clock_source* source) {
  current.store(source != nullptr ? source : &system_source, std::memory_order_release);
}

}  // namespace es_platform

uint64_t clock_now_ns() { return es_platform::clock_current().now_ns(); }
