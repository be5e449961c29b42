#include "stop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <system_error>

namespace es_acl::tool {

namespace {

int descriptor = -1;  // an event counter, never closed: a signal may come until the process has ended

void on_signal(int) {
  const int saved = errno;
  request_stop();
  errno = saved;
}

}  // namespace

void prepare_stop() {
  descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  struct sigaction action = {};
  action.sa_handler = on_signal;
  action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
  for (const int number : {SIGINT, SIGTERM}) sigaction(number, &action, nullptr);
}

void request_stop() noexcept {
  const uint64_t one = 1;
  // Can only fail when the counter is full, which is a request as well.
  [[maybe_unused]] const ssize_t written = write(descriptor, &one, sizeof one);
}

bool stop_requested() {
  pollfd entry = {descriptor, POLLIN, 0};
  return poll(&entry, 1, 0) == 1;
}

int stop_descriptor() { return descriptor; }

}  // namespace es_acl::tool
