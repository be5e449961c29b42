#include "bus/out_queue.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace es_platform::bus {

namespace {

constexpr size_t kFirstBlock = 1024;  // most queues hold a single small frame
constexpr size_t kBlock = 64 << 10;
constexpr int kBlocksAtOnce = 16;

}  // namespace

void OutQueue::append(const FrameHeader& header, const void* payload) {
  const size_t size = frame_size(header.length);
  if (blocks_.empty() || blocks_.back().capacity - blocks_.back().end < size) {
    const size_t capacity = std::max(size, blocks_.empty() ? kFirstBlock : kBlock);
    Block block;
    block.data = std::make_unique_for_overwrite<char[]>(capacity);
    block.capacity = capacity;
    blocks_.push_back(std::move(block));
  }
  Block& block = blocks_.back();
  char* at = block.data.get() + block.end;
  std::memcpy(at, &header, sizeof header);
  if (header.length != 0) std::memcpy(at + sizeof header, payload, header.length);
  std::memset(at + sizeof header + header.length, 0, padded(header.length) - header.length);
  block.end += size;
  bytes_ += size;
}

bool OutQueue::take(OutQueue& other) noexcept try {
  if (blocks_.empty()) {
    blocks_.swap(other.blocks_);
    std::swap(bytes_, other.bytes_);
  }
  while (!other.blocks_.empty()) {
    Block& block = other.blocks_.front();
    const size_t size = block.end - block.begin;
    blocks_.push_back(std::move(block));
    other.blocks_.pop_front();
    bytes_ += size;
    other.bytes_ -= size;
  }
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

void OutQueue::clear() {
  blocks_.clear();
  bytes_ = 0;
}

int OutQueue::flush(int fd, size_t* written) {
  while (!blocks_.empty()) {
    iovec parts[kBlocksAtOnce];
    size_t count = 0;
    for (auto it = blocks_.begin(); it != blocks_.end() && count < kBlocksAtOnce; ++it) {
      parts[count++] = {it->data.get() + it->begin, it->end - it->begin};
    }
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : errno;
    *written += static_cast<size_t>(sent);
    drop_written(static_cast<size_t>(sent));
  }
  return 0;
}

void OutQueue::drop_written(size_t bytes) {
  bytes_ -= bytes;
  while (bytes != 0) {
    Block& front = blocks_.front();
    const size_t step = std::min(bytes, front.end - front.begin);
    front.begin += step;
    bytes -= step;
    if (front.begin == front.end) blocks_.pop_front();
  }
}

}  // namespace es_platform::bus
