// Time that passes only when it is told to.
#ifndef ES_ACL_TESTS_PLATFORM_VIRTUAL_CLOCK_H_
#define ES_ACL_TESTS_PLATFORM_VIRTUAL_CLOCK_H_

#include <poll.h>
#include <sys/timerfd.h>

#include <map>
#include <mutex>

#include "clock_source.h"

class virtual_clock final : public es_platform::clock_source {
 public:
  virtual_clock() { es_platform::clock_replace(this); }
  ~virtual_clock() { es_platform::clock_replace(nullptr); }

  uint64_t now_ns() override {
    const std::lock_guard lock(mutex_);
    return now_;
  }

  int arm(int timer_fd, uint64_t at_ns) override {
    const std::lock_guard lock(mutex_);
    armed_.erase(timer_fd);
    if (at_ns != 0) armed_[timer_fd] = at_ns;
    fire_due();
    return 0;
  }

  // When it returns, the timers that have become due are readable.
  void advance(uint64_t ns) {
    const std::lock_guard lock(mutex_);
    now_ += ns;
    fire_due();
  }

 private:
  void fire_due() {
    for (auto at = armed_.begin(); at != armed_.end();) {
      if (at->second > now_) {
        ++at;
        continue;
      }
      itimerspec soon{};
      soon.it_value.tv_nsec = 1;
      timerfd_settime(at->first, 0, &soon, nullptr);
      pollfd fired{at->first, POLLIN, 0};
      poll(&fired, 1, -1);
      at = armed_.erase(at);
    }
  }

  std::mutex mutex_;
  uint64_t now_ = 1'000'000;
  std::map<int, uint64_t> armed_;
};

#endif  // ES_ACL_TESTS_PLATFORM_VIRTUAL_CLOCK_H_
