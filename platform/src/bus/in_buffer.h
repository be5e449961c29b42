// Received bytes of a stream, cut into frames. Frames are read in place: several small ones arrive with one
// receive, a large one grows the buffer to its size, which is given back afterwards. Not thread-safe.
#ifndef ES_PLATFORM_SRC_BUS_IN_BUFFER_H_
#define ES_PLATFORM_SRC_BUS_IN_BUFFER_H_

#include <algorithm>
#include <cstring>
#include <memory>
#include <span>

#include "bus/frame.h"

namespace es_platform::bus {

class InBuffer {
 public:
  // `usual` bytes are kept between frames, a multiple of 8.
  explicit InBuffer(size_t usual) : usual_(usual) {}

  // Free room behind what has been received, never empty. May throw std::bad_alloc.
  std::span<char> room() {
    const size_t held = end_ - begin_;
    const size_t wanted = std::max(usual_, wanted_);
    if (capacity_ < wanted || (held == 0 && capacity_ > wanted)) {
      reallocate(wanted);
    } else if (begin_ != 0) {  // what is held is less than a frame
      std::memmove(data_.get(), data_.get() + begin_, held);
      begin_ = 0;
      end_ = held;
    }
    return {data_.get() + end_, capacity_ - end_};
  }
  void received(size_t bytes) { end_ += bytes; }

  enum class Step { frame, more, fault };
  // The next whole frame: its header is copied, its payload stays in place until the next call of room(). On
  // a fault *why tells it.
  Step next(FrameKinds accepted, FrameHeader* header, char** payload, const char** why) {
    wanted_ = 0;
    if (end_ - begin_ < sizeof *header) return Step::more;
    std::memcpy(header, data_.get() + begin_, sizeof *header);
    *why = frame_fault(*header, accepted);
    if (*why != nullptr) return Step::fault;
    const size_t size = sizeof *header + padded(header->length);
    if (end_ - begin_ < size) {
      wanted_ = size;
      return Step::more;
    }
    *payload = data_.get() + begin_ + sizeof *header;
    begin_ += size;
    return Step::frame;
  }

  bool empty() const { return begin_ == end_; }

 private:
  void reallocate(size_t capacity) {
    auto fresh = std::make_unique_for_overwrite<char[]>(capacity);
    const size_t held = end_ - begin_;
    if (held != 0) std::memcpy(fresh.get(), data_.get() + begin_, held);
    data_ = std::move(fresh);
    capacity_ = capacity;
    begin_ = 0;
    end_ = held;
  }

  size_t usual_;
  std::unique_ptr<char[]> data_;
  size_t capacity_ = 0;
  size_t begin_ = 0;
  size_t end_ = 0;
  size_t wanted_ = 0;  // size of the frame at the front, when it is known and not all there
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_IN_BUFFER_H_
