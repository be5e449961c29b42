// The descriptors that a thread waits for, each under a number of its own. Level-triggered.
#ifndef ES_PLATFORM_SRC_BUS_EVENT_SET_H_
#define ES_PLATFORM_SRC_BUS_EVENT_SET_H_

#include <sys/epoll.h>

#include <cerrno>
#include <ctime>

#include "bus/deadline.h"
#include "bus/unix_socket.h"

namespace es_platform::bus {

class EventSet {
 public:
  // Each of the three: false and errno.
  bool open() {
    set_ = Fd(epoll_create1(EPOLL_CLOEXEC));
    return static_cast<bool>(set_);
  }
  bool add(int fd, uint64_t id, uint32_t events) const { return control(EPOLL_CTL_ADD, fd, id, events); }
  bool change(int fd, uint64_t id, uint32_t events) const { return control(EPOLL_CTL_MOD, fd, id, events); }

  // The number of events, or -1. Where the kernel cannot (before 5.11) or may not, it waits for whole milliseconds.
  template <int kMost>
  int wait(epoll_event (&events)[kMost], uint64_t timeout_ns) const {
    const timespec timeout = {static_cast<time_t>(timeout_ns / 1'000'000'000),
                              static_cast<long>(timeout_ns % 1'000'000'000)};
    const int count = epoll_pwait2(set_.get(), events, kMost, &timeout, nullptr);
    if (count >= 0 || errno == EINTR) return count;
    return epoll_wait(set_.get(), events, kMost, ms_between(0, timeout_ns));
  }

 private:
  bool control(int operation, int fd, uint64_t id, uint32_t events) const {
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    return epoll_ctl(set_.get(), operation, fd, &event) == 0;
  }

  Fd set_;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_EVENT_SET_H_
