// The bounded queue of one consumer's event connection. Any thread appends; the service thread writes it out.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_SINK_H_
#define ES_PLATFORM_SRC_BUS_UNIX_SINK_H_

#include <mutex>
#include <vector>

#include "bus/out_queue.h"
#include "bus/transport.h"
#include "bus/unix_socket.h"

namespace es_platform::bus {

// Tells the service thread which connections have something to write. Thread-safe.
class WakeList {
 public:
  WakeList();
  int fd() const { return event_.get(); }
  // Makes room for that many connections, so that add() cannot fail. May throw std::bad_alloc.
  void reserve(size_t connections);
  void add(uint64_t connection) noexcept;
  void wake() noexcept;
  // Everything added since the last call.
  void take(std::vector<uint64_t>* out);

 private:
  Fd event_;
  std::mutex mutex_;
  std::vector<uint64_t> connections_;
};

class UnixSink final : public EventSink {
 public:
  UnixSink(uint64_t connection, uint64_t limit, WakeList& wake_list)
      : connection_(connection), limit_(limit), wake_list_(wake_list) {}

  uint32_t push(uint64_t topic, uint32_t mtype, const void* payload, uint32_t length) override;
  uint32_t ask(uint64_t topic, uint64_t number, const void* payload, uint32_t length) override;

  // --- Service thread ---

  // Writes what the socket takes; *rest tells whether something is left. 0 or an errno value; ENOBUFS when
  // the queue has overflowed.
  int flush(int fd, bool* rest);

 private:
  uint32_t queue(const FrameHeader& header, const void* payload);

  const uint64_t connection_, limit_;
  WakeList& wake_list_;
  std::mutex mutex_;
  OutQueue pending_;
  uint64_t queued_ = 0;  // bytes of pending_ and writing_
  bool announced_ = false, overflowed_ = false;
  OutQueue writing_;  // service thread only
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_SINK_H_
