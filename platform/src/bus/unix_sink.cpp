#include "bus/unix_sink.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "es_platform/clock.h"

namespace es_platform::bus {

namespace {

constexpr uint64_t kPauseNs = 5'000;  // about what it takes to write a message and to wake who reads it
constexpr uint64_t kLongPauseNs = 1'000'000;
constexpr uint32_t kFew = 4;  // that may follow closely and are written one by one all the same
constexpr uint32_t kCrowd = 16;
constexpr size_t kLongestAtOnce = 8 << 10;
constexpr size_t kLargeWrite = 88 << 10;  // consumers spend a fifth more time on receiving pieces of 64 KB
constexpr uint32_t kManyConsumers = 8;
constexpr uint64_t kBurstPauseNs = 100'000;  // two or three times what a large piece takes to come together
constexpr size_t kFlow = 32 << 10;           // what a socket takes at once that is emptied quickly
constexpr uint64_t kFlowPauseNs = 100'000;   // in which hardly a consumer empties a socket
constexpr uint64_t kFlowEndNs = 500'000;     // a few of the pieces in which consumers receive

}  // namespace

WakeList::WakeList() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void WakeList::reserve(size_t connections) {
  std::lock_guard lock(mutex_);
  if (connections > connections_.capacity()) connections_.reserve(2 * connections);
}

void WakeList::add(uint64_t connection) noexcept {
  {
    std::lock_guard lock(mutex_);
    connections_.push_back(connection);
    if (connections_.size() != 1) return;
  }
  wake();
}

void WakeList::wake() noexcept {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(event_.get(), &one, sizeof one);
}

void WakeList::quiet() noexcept {
  uint64_t count;
  [[maybe_unused]] const ssize_t drained = read(event_.get(), &count, sizeof count);
}

void WakeList::take(std::vector<uint64_t>* out) {
  out->reserve(out->size() + connections_.capacity());  // which other threads do not change
  std::lock_guard lock(mutex_);
  out->insert(out->end(), connections_.begin(), connections_.end());
  connections_.clear();
}

bool Pace::is_calm() noexcept {
  const uint64_t now = clock_now_ns();
  const uint64_t pause = now - last_ns_.exchange(now, std::memory_order_relaxed);
  uint32_t crowd = crowd_.load(std::memory_order_relaxed);
  if (pause >= kLongPauseNs)
    crowd = 0;
  else if (pause < kPauseNs)
    crowd = std::min(crowd + 1, kCrowd);
  else if (crowd != 0)
    --crowd;
  crowd_.store(crowd, std::memory_order_relaxed);
  return crowd < kFew;
}

bool Pace::has_many() const noexcept { return consumers_.load(std::memory_order_relaxed) > kManyConsumers; }

bool Pace::is_crowded() const noexcept { return crowd_.load(std::memory_order_relaxed) >= kFew; }

uint64_t Pace::wrote() noexcept {
  const uint64_t now = clock_now_ns();
  last_ns_.store(now, std::memory_order_relaxed);
  return now;
}

uint32_t UnixSink::push(uint64_t topic, uint32_t mtype, const void* payload, uint32_t length) {
  return send(make_frame(FrameKind::push, length, topic, mtype), payload);
}

uint32_t UnixSink::ask(uint64_t topic, uint64_t number, const void* payload, uint32_t length) {
  return send(make_frame(FrameKind::sync, length, topic, 0, number), payload);
}

uint32_t UnixSink::inquire(uint64_t topic, uint64_t number, const void* payload, uint32_t length) {
  return send(make_frame(FrameKind::inquiry, length, topic, 0, number), payload);
}

// A message that can be neither written nor queued ends the connection, whatever the reason: the consumer must
// not miss one in between. The service thread does it.
uint32_t UnixSink::send(const FrameHeader& header, const void* payload) {
  std::lock_guard lock(mutex_);
  if (error_ != 0) return ESRCH;
  const bool at_once = pace_.is_calm() && header.length <= kLongestAtOnce;
  const int error = append_locked(header, payload);
  if (error != 0 || serviced_) return done_locked(error) ? 0 : ESRCH;
  if (at_once || (pending_.bytes() >= kLargeWrite && !pace_.has_many()))
    return done_locked(write_locked()) ? 0 : ESRCH;
  return done_locked(0) ? 0 : ESRCH;
}

// A beat is no message: it says nothing about the pace.
bool UnixSink::beat() {
  std::lock_guard lock(mutex_);
  if (error_ != 0 || queued_ != 0) return false;
  const int error = append_locked(make_frame(FrameKind::beat, 0), nullptr);
  return done_locked(error != 0 ? error : write_locked());
}

// A service thread that waits for the socket comes back by itself, and is not woken for what it then takes.
bool UnixSink::done_locked(int error) {
  error_ = error;
  if (error_ != 0) pending_.clear();
  const bool is_due = error_ != 0 || (queued_ != 0 && !serviced_);
  if (is_due && !announced_) {
    wake_list_.add(connection_);
    announced_ = true;
  }
  return error_ == 0;
}

int UnixSink::append_locked(const FrameHeader& header, const void* payload) try {
  const size_t size = OutQueue::frame_size(header.length);
  if (queued_ + size > limit_) return ENOBUFS;
  pending_.append(header, payload);
  queued_ += size;
  return 0;
} catch (const std::bad_alloc&) {
  return ENOBUFS;
}

// What the socket does not take stays queued.
int UnixSink::write_locked() {
  const bool large = pending_.bytes() >= kLargeWrite;
  writing_.take(pending_);
  size_t written = 0;
  const int error = writing_.flush(fd_, &written);
  queued_ -= written;
  const uint64_t now_ns = pace_.wrote();
  if (large) due_ns_.store(now_ns + kBurstPauseNs, std::memory_order_relaxed);
  return error;
}

void UnixSink::woken() {
  std::lock_guard lock(mutex_);
  announced_ = false;
}

int UnixSink::flush(bool* rest) {
  *rest = false;
  bool all = true;
  {
    std::lock_guard lock(mutex_);
    if (error_ != 0 || queued_ == 0) return error_;
    all = writing_.take(pending_);
    serviced_ = true;
  }
  size_t written = 0;
  const int error = writing_.flush(fd_, &written);
  *rest = !writing_.empty() || !all;
  const uint64_t now_ns = clock_now_ns();
  if (written >= kFlow) flowed_ns_ = now_ns;
  if (*rest && now_ns - flowed_ns_ < kFlowEndNs)
    due_ns_.store(now_ns + kFlowPauseNs, std::memory_order_relaxed);
  std::lock_guard lock(mutex_);
  queued_ -= written;
  serviced_ = *rest;
  done_locked(error_);
  return error;
}

}  // namespace es_platform::bus
