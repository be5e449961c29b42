#include "bus/dispatcher.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "bus/deadline.h"
#include "bus/unix_events.h"

namespace es_platform::bus {

void start_quiet_thread(void* (*run)(void*), void* argument, pthread_t* thread) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const int error = pthread_create(thread, nullptr, run, argument);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error != 0) throw std::bad_alloc();
}

// Lives as long as the process: the thread may be delivering while exit handlers run.
Dispatcher& Dispatcher::instance() {
  static Dispatcher& dispatcher = *new Dispatcher;
  return dispatcher;
}

Dispatcher::Dispatcher() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_) throw std::bad_alloc();
}

void Dispatcher::add(UnixEvents* events) {
  std::lock_guard lock(mutex_);
  if (std::find(events_.begin(), events_.end(), events) == events_.end()) events_.push_back(events);
  if (!running_) {
    pthread_t thread;
    start_quiet_thread([](void* self) -> void* { return static_cast<Dispatcher*>(self)->run(), nullptr; },
                       this, &thread);
    pthread_detach(thread);
    running_ = true;
  }
}

void Dispatcher::wake() noexcept {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof one);
}

void Dispatcher::run() {
  pthread_setname_np(pthread_self(), "pcx-delivery");
  std::vector<UnixEvents*> served;
  for (;;) {
    try {
      serve_once(&served);
    } catch (const std::bad_alloc&) {
      poll(nullptr, 0, 10);  // what was to be read is still in the sockets
    }
  }
}

void Dispatcher::serve_once(std::vector<UnixEvents*>* served) {
  {
    std::lock_guard lock(mutex_);
    *served = events_;
  }
  std::vector<pollfd> waits;
  waits.push_back({wake_.get(), POLLIN, 0});
  const uint64_t began_ns = clock_now_ns();
  uint64_t until_ns = UINT64_MAX;
  for (UnixEvents* events : *served) waits.push_back(events->prepare(began_ns, &until_ns));
  const int timeout_ms = until_ns != UINT64_MAX ? ms_between(began_ns, until_ns) : -1;
  if (poll(waits.data(), waits.size(), timeout_ms) < 0) return;
  const uint64_t now_ns = clock_now_ns();
  if (waits[0].revents != 0) {
    uint64_t count;
    [[maybe_unused]] const ssize_t drained = read(wake_.get(), &count, sizeof count);
  }
  for (size_t i = 0; i < served->size(); ++i) {
    (*served)[i]->serve(waits[i + 1].revents, began_ns, now_ns);
  }
}

}  // namespace es_platform::bus
