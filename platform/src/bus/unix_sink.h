// The way of messages to one consumer's event connection: a bounded queue that any thread appends to and that is written
// out many messages with one call. Whoever pushes writes
//   - a message that comes alone: it has no others to wait for, and the consumer is spared the time in which the service
//     thread wakes;
//   - what makes a large write, unless there are many consumers: the service thread would only take the processor from
//     whoever pushes.
// The service thread writes the rest: what is queued when a burst pauses, and what the socket does not take at once. While
// a socket takes large pieces it comes back by the clock: to be woken costs the consumer that makes room more.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_SINK_H_
#define ES_PLATFORM_SRC_BUS_UNIX_SINK_H_

#include <atomic>
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
  // fd() says nothing until the next wake().
  void quiet() noexcept;
  // Makes room for that many connections, so that add() cannot fail. May throw std::bad_alloc.
  void reserve(size_t connections);
  void add(uint64_t connection) noexcept;
  void wake() noexcept;
  // Moves what has been added to *out. May throw std::bad_alloc.
  void take(std::vector<uint64_t>* out);

 private:
  Fd event_;
  std::mutex mutex_;
  std::vector<uint64_t> connections_;
};

// How closely messages follow each other, those to all consumers of a producer together: one message for
// hundreds of them is a burst as well. A short pause does not end a burst, since whoever pushes is kept from the
// processor now and then. An estimate; thread-safe.
class Pace {
 public:
  // A message comes: is it one of a few, or spaced like those before it?
  bool is_calm() noexcept;
  // Whoever pushes has written just now: the time.
  uint64_t wrote() noexcept;
  // Messages follow closely.
  bool is_crowded() const noexcept;

  void come() noexcept { consumers_.fetch_add(1, std::memory_order_relaxed); }
  void go() noexcept { consumers_.fetch_sub(1, std::memory_order_relaxed); }
  bool has_many() const noexcept;

 private:
  std::atomic<uint64_t> last_ns_{0};
  std::atomic<uint32_t> consumers_{0};
  std::atomic<uint32_t> crowd_{0};  // up with each message that follows closely, down with each that does not
};

class UnixSink final : public EventSink {
 public:
  // Writes to `fd`, which outlives it.
  UnixSink(uint64_t connection, int fd, uint64_t limit, WakeList& wake_list, Pace& pace)
      : connection_(connection), fd_(fd), limit_(limit), wake_list_(wake_list), pace_(pace) {
    pace_.come();
  }
  ~UnixSink() override { pace_.go(); }

  uint32_t push(uint64_t topic, uint32_t mtype, const void* payload, uint32_t length) override;
  uint32_t ask(uint64_t topic, uint64_t number, const void* payload, uint32_t length) override;
  uint32_t inquire(uint64_t topic, uint64_t number, const void* payload, uint32_t length) override;

  // --- Service thread ---

  // Lets the consumer hear from here. False when something is queued, which does so too, and when nothing can be.
  bool beat();
  // It has been taken from the wake list, and may be added again.
  void woken();
  // When it is to write: later, where whoever pushes comes to large writes, and while the socket takes large pieces.
  uint64_t due_ns() const noexcept { return due_ns_.load(std::memory_order_relaxed); }
  // Writes what the socket takes; *rest tells whether something is left: then it is due again, later or when the
  // socket says that it takes more. 0 or an errno value, here or when a message was handed in; ENOBUFS when the queue
  // has overflowed.
  int flush(bool* rest);

 private:
  uint32_t send(const FrameHeader& header, const void* payload);
  bool done_locked(int error);
  int append_locked(const FrameHeader& header, const void* payload);
  int write_locked();

  const uint64_t connection_;
  const int fd_;
  const uint64_t limit_;
  WakeList& wake_list_;
  Pace& pace_;
  std::mutex mutex_;
  OutQueue pending_;
  uint64_t queued_ = 0;  // bytes of pending_ and writing_
  int error_ = 0;        // why nothing can be written any more
  bool announced_ = false;
  // What is being written: by whoever holds the mutex, or by the service thread without it while `serviced_`.
  OutQueue writing_;
  bool serviced_ = false;  // the service thread writes, or will when the socket takes more
  std::atomic<uint64_t> due_ns_{0};
  uint64_t flowed_ns_ = 0;  // when the socket took a large piece of the service thread's
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_SINK_H_
