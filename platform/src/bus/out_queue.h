// Frames waiting to be written to a stream, coalesced into large blocks so that many small messages leave
// with one system call. Not thread-safe.
#ifndef ES_PLATFORM_SRC_BUS_OUT_QUEUE_H_
#define ES_PLATFORM_SRC_BUS_OUT_QUEUE_H_

#include <cstddef>
#include <deque>
#include <memory>

#include "bus/frame.h"

namespace es_platform::bus {

class OutQueue {
 public:
  // Bytes that a frame takes up on the stream.
  static size_t frame_size(size_t length) { return sizeof(FrameHeader) + padded(length); }

  // May throw std::bad_alloc, and then nothing is appended.
  void append(const FrameHeader& header, const void* payload);
  // Moves what is in `other` behind what is here. False when memory ran out: the rest is still there.
  bool take(OutQueue& other) noexcept;
  void clear();
  bool empty() const { return blocks_.empty(); }
  size_t bytes() const { return bytes_; }

  // Writes what the socket takes without blocking; adds the number of bytes to *written. 0 (also when the
  // socket takes no more), or an errno value.
  int flush(int fd, size_t* written);

 private:
  struct Block {
    std::unique_ptr<char[]> data;
    size_t begin = 0, end = 0, capacity = 0;
  };
  void drop_written(size_t bytes);

  std::deque<Block> blocks_;
  size_t bytes_ = 0;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_OUT_QUEUE_H_
