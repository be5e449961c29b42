// Event manager on one epoll descriptor, which is also what evm_fd() gives out.
//
// Every event is an entry under its code. An entry is due because it was signalled, or because the descriptor
// that it watches is readable. Signals are remembered in the entries and announced through one eventfd, so
// that signalling allocates nothing and any number of signals is one wake-up.
//
// Everything below the mutex is short; handlers run without it. While one runs, `running_` names it, and
// whoever detaches it waits for `changed_`.
#include "es_platform/evm.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <thread>

#include "evm_internal.h"

namespace {

constexpr int kNoCode = 0;
constexpr int kEventsPerWait = 32;

// A descriptor that is closed with its owner.
class owned_fd {
 public:
  explicit owned_fd(int fd) : fd_(fd) {}
  ~owned_fd() {
    if (fd_ >= 0) close(fd_);
  }
  owned_fd(const owned_fd&) = delete;
  owned_fd& operator=(const owned_fd&) = delete;
  int get() const { return fd_; }

 private:
  const int fd_;
};

struct entry {
  evm_async_handler handler;
  void* context;
  int watched_fd;      // -1: none
  uint64_t signalled;  // place among the signals not yet served; 0: not signalled
};

int failed(int error) {
  errno = error;
  return -1;
}

}  // namespace

struct evm {
 public:
  evm() : epoll_(epoll_create1(EPOLL_CLOEXEC)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

  // Completes the construction. 0, or an errno value.
  uint32_t open() {
    if (epoll_.get() < 0 || wake_.get() < 0) return static_cast<uint32_t>(errno);
    return add_to_epoll(wake_.get(), kNoCode) == 0 ? 0 : static_cast<uint32_t>(errno);
  }

  int fd() const { return epoll_.get(); }
  int attach(evm_async_handler handler, void* context, int watched_fd);
  int detach(int code);
  bool knows(int code);
  uint32_t signal(int code);
  int dispatch(int timeout_ms);
  void stop();
  bool take_stop() { return stop_.exchange(false, std::memory_order_acquire); }
  uint64_t next_step(int code);
  void wait_step_passed(uint64_t step);

 private:
  int add_to_epoll(int fd, int code);
  int free_code();
  bool run(int code, int* counted);
  uint64_t begin_signalled();
  int next_signalled(uint64_t up_to);
  int serve(const epoll_event* events, int count);
  void wake();
  bool busy_elsewhere() const { return running_ != kNoCode && runner_ != std::this_thread::get_id(); }

  const owned_fd epoll_;
  const owned_fd wake_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> dispatching_{false};

  std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  std::map<int, entry> entries_;
  int last_code_ = kNoCode;
  uint64_t last_signal_ = 0;
  int running_ = kNoCode;
  std::thread::id runner_;
  uint64_t step_ = 0;
};

int evm::add_to_epoll(int fd, int code) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = static_cast<uint64_t>(code);
  return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event);
}

// Codes are given out once, so that a late signal to a detached code can hit no other handler. kNoCode when
// used up.
int evm::free_code() {
  if (last_code_ == std::numeric_limits<int>::max()) return kNoCode;
  if (++last_code_ == EVM_CODE_ANY) ++last_code_;
  return last_code_;
}

int evm::attach(evm_async_handler handler, void* context, int watched_fd) {
  const std::lock_guard lock(mutex_);
  const int code = free_code();
  if (code == kNoCode) return failed(ENOSPC);
  entries_.emplace(code, entry{handler, context, watched_fd, 0});
  if (watched_fd >= 0 && add_to_epoll(watched_fd, code) != 0) {
    entries_.erase(code);
    return -1;
  }
  return code;
}

int evm::detach(int code) {
  std::unique_lock lock(mutex_);
  const auto found = entries_.find(code);
  if (found == entries_.end()) return failed(EINVAL);
  if (found->second.watched_fd >= 0) {
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.watched_fd, nullptr);
  }
  entries_.erase(found);
  changed_.wait(lock, [&] { return running_ != code || !busy_elsewhere(); });
  return 0;
}

bool evm::knows(int code) {
  const std::lock_guard lock(mutex_);
  return entries_.contains(code);
}

uint32_t evm::signal(int code) {
  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(code);
  if (found == entries_.end()) return EINVAL;
  if (found->second.signalled == 0) {
    found->second.signalled = ++last_signal_;
    wake();
  }
  return 0;
}

// Can only fail when the counter is at its limit, and then the descriptor is readable as it should be.
void evm::wake() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof one);
}

void evm::stop() {
  const int saved = errno;
  stop_.store(true, std::memory_order_release);
  wake();
  errno = saved;
}

// Runs the code's handler unless it has been detached meanwhile. Adds to *counted when it is a client's.
bool evm::run(int code, int* counted) {
  std::unique_lock lock(mutex_);
  const auto found = entries_.find(code);
  if (found == entries_.end()) return false;
  const entry due = found->second;
  running_ = code;
  runner_ = std::this_thread::get_id();
  ++step_;
  lock.unlock();
  due.handler(code, due.context);
  lock.lock();
  running_ = kNoCode;
  ++step_;
  changed_.notify_all();
  if (due.watched_fd < 0) ++*counted;
  return true;
}

// Takes note of the wake-up; what is signalled from here on is left to the next dispatch.
uint64_t evm::begin_signalled() {
  const std::lock_guard lock(mutex_);
  uint64_t wakeups;
  [[maybe_unused]] const ssize_t got = read(wake_.get(), &wakeups, sizeof wakeups);
  return last_signal_;
}

// The earliest signal that has not been served, up to the one given; it counts as served from now.
int evm::next_signalled(uint64_t up_to) {
  const std::lock_guard lock(mutex_);
  auto earliest = entries_.end();
  for (auto it = entries_.begin(); it != entries_.end(); ++it) {
    const uint64_t place = it->second.signalled;
    if (place == 0 || place > up_to) continue;
    if (earliest == entries_.end() || place < earliest->second.signalled) earliest = it;
  }
  if (earliest == entries_.end()) return kNoCode;
  earliest->second.signalled = 0;
  return earliest->first;
}

// Watched descriptors first: what they signal is served in the same dispatch.
int evm::serve(const epoll_event* events, int count) {
  int counted = 0;
  for (int i = 0; i < count; ++i) {
    const int code = static_cast<int>(events[i].data.u64);
    if (code != kNoCode) run(code, &counted);
  }
  const uint64_t up_to = begin_signalled();
  while (const int code = next_signalled(up_to)) run(code, &counted);
  return counted;
}

int evm::dispatch(int timeout_ms) {
  if (dispatching_.exchange(true, std::memory_order_acquire)) return failed(EBUSY);
  epoll_event events[kEventsPerWait];
  const int count = epoll_wait(epoll_.get(), events, kEventsPerWait, timeout_ms);
  const int error = errno;
  const int counted = count > 0 ? serve(events, count) : 0;
  dispatching_.store(false, std::memory_order_release);
  return count < 0 && error != EINTR ? failed(error) : counted;
}

uint64_t evm::next_step(int code) {
  const std::lock_guard lock(mutex_);
  if (running_ != code || busy_elsewhere()) return 0;
  changed_.notify_all();
  return ++step_;
}

void evm::wait_step_passed(uint64_t step) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return step_ != step || !busy_elsewhere(); });
}

namespace es_platform {

int evm_watch(evm* manager, int fd, evm_async_handler handler, void* context) {
  try {
    return manager->attach(handler, context, fd);
  } catch (const std::bad_alloc&) {
    return failed(ENOMEM);
  }
}

void evm_unwatch(evm* manager, int code) { manager->detach(code); }

uint64_t evm_next_step(evm* manager, int code) { return manager->next_step(code); }

void evm_wait_step_passed(evm* manager, uint64_t step) {
  if (step != 0) manager->wait_step_passed(step);
}

}  // namespace es_platform

uint32_t evm_create(evm** out) {
  if (out == nullptr) return EINVAL;
  *out = nullptr;
  evm* made = new (std::nothrow) evm;
  if (made == nullptr) return ENOMEM;
  const uint32_t error = made->open();
  if (error != 0) {
    delete made;
    return error;
  }
  *out = made;
  return 0;
}

void evm_destroy(evm* manager) { delete manager; }

int evm_fd(evm* manager) { return manager != nullptr ? manager->fd() : failed(EINVAL); }

int evm_dispatch(evm* manager, int timeout_ms) {
  return manager != nullptr ? manager->dispatch(timeout_ms) : failed(EINVAL);
}

uint32_t evm_run(evm* manager) {
  if (manager == nullptr) return EINVAL;
  while (!manager->take_stop()) {
    if (manager->dispatch(-1) < 0) return static_cast<uint32_t>(errno);
  }
  return 0;
}

void evm_stop(evm* manager) {
  if (manager != nullptr) manager->stop();
}

int evm_async_attach(evm* manager, int code, evm_async_handler handler, void* context) {
  if (manager == nullptr || (code == EVM_CODE_ANY) != (handler != nullptr)) return failed(EINVAL);
  if (handler == nullptr) return manager->detach(code);
  return es_platform::evm_watch(manager, -1, handler, context);
}

int evm_init_sigevent(evm* manager, int code, int value, uint64_t flags, evm_sigevent* record) {
  if (manager == nullptr || record == nullptr || !manager->knows(code)) return failed(EINVAL);
  *record = {manager, code, value, flags};
  return 0;
}

uint32_t evm_signal(const evm_sigevent* record) {
  if (record == nullptr || record->manager == nullptr) return EINVAL;
  return record->manager->signal(record->code);
}
