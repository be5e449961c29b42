#include "bus/unix_sink.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace es_platform::bus {

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

// The two vectors change places, so both come to have the room that was reserved.
void WakeList::take(std::vector<uint64_t>* out) {
  uint64_t count;
  [[maybe_unused]] const ssize_t drained = read(event_.get(), &count, sizeof count);
  out->clear();
  std::lock_guard lock(mutex_);
  out->reserve(connections_.capacity());
  connections_.swap(*out);
}

uint32_t UnixSink::push(uint64_t topic, uint32_t mtype, const void* payload, uint32_t length) {
  return queue(make_frame(FrameKind::push, length, topic, mtype), payload);
}

uint32_t UnixSink::ask(uint64_t topic, uint64_t number, const void* payload, uint32_t length) {
  return queue(make_frame(FrameKind::sync, length, topic, 0, number), payload);
}

// A message that cannot be queued ends the connection, whatever the reason: the consumer must not miss one in
// between.
uint32_t UnixSink::queue(const FrameHeader& header, const void* payload) {
  std::lock_guard lock(mutex_);
  if (overflowed_) return ESRCH;
  const size_t size = OutQueue::frame_size(header.length);
  overflowed_ = queued_ + size > limit_;
  if (!overflowed_) {
    try {
      pending_.append(header, payload);
      queued_ += size;
    } catch (const std::bad_alloc&) {
      overflowed_ = true;
    }
  }
  if (overflowed_) pending_.clear();
  if (!announced_) wake_list_.add(connection_);
  announced_ = true;
  return overflowed_ ? ESRCH : 0;
}

int UnixSink::flush(int fd, bool* rest) {
  {
    std::lock_guard lock(mutex_);
    announced_ = false;
    if (overflowed_) return ENOBUFS;
    writing_.take(pending_);
  }
  size_t written = 0;
  const int error = writing_.flush(fd, &written);
  *rest = !writing_.empty();
  std::lock_guard lock(mutex_);
  queued_ -= written;
  return error;
}

}  // namespace es_platform::bus
