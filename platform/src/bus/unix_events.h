// A consumer process's event connection to the producer of one class, and the thread that serves all of them.
//
// Who does what: any thread may change what is subscribed, open a connection where there is none, and write
// out what waits; only the delivery thread reads and calls the receiver. A connection that is lost is
// replaced at once by whoever notices; the delivery thread reads the old one to its end before it turns to
// the new one, so what a producer sent before it went is still delivered, in order.
//
// Order. Every change of the subscriptions has a number. It goes out with the change, and a read carries the
// number of the last change made before it; the producer answers a read when it has seen that change. So a
// read can never overtake the registration before it, although they travel on different connections and
// registering never waits.
//
// Silence. A producer that hangs, or is held up, keeps its connections, so it has to let itself be heard. Only time in
// which the delivery thread waits counts as silence: what came while a handler ran has not been looked at yet. A
// connection on which nothing has come so far is not given up: a new one would only queue up behind it at the
// producer's listener. Nor is the receiver told of it before something has: nothing read from there would be answered.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_EVENTS_H_
#define ES_PLATFORM_SRC_BUS_UNIX_EVENTS_H_

#include <poll.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "bus/in_buffer.h"
#include "bus/out_queue.h"
#include "bus/transport.h"
#include "bus/unix_socket.h"

namespace es_platform::bus {

class UnixEvents {
 public:
  UnixEvents(const UnixAddress& address, Receiver& receiver);

  void subscribe(uint64_t topic, std::string_view name);
  void unsubscribe(uint64_t topic) noexcept;
  void resubscribe(uint64_t topic, uint64_t fresh) noexcept;
  void hold_changes() noexcept;
  void send_changes() noexcept;
  // What a request goes out behind: the last change's number, 0 when nothing is subscribed, and the connection that
  // brings it.
  struct Standing {
    uint64_t order = 0;
    uint64_t connection = 0;
  };
  // Sees to it that all changes are on their way, as far as there is a producer.
  Standing settle(const Deadline& deadline);
  // A request sent behind it has been answered: the subscriptions up to it, made again after a lost connection, are
  // renewed ones. False when they have been made again already, as new ones: to the producer nobody has read behind
  // those, so the request has to go out once more.
  bool answered(const Standing& standing);
  uint64_t generation(const Deadline& deadline);
  uint32_t silence_ms() const noexcept;
  void call_at(uint64_t at_ns) noexcept;

  // --- Delivery thread only ---

  // What to wait for; fd -1 when there is no connection. Lowers *until_ns to the time at which to look again.
  pollfd prepare(uint64_t now_ns, uint64_t* until_ns);
  // Serves what poll() reported, perhaps nothing, and what the waiting for it, from began_ns to now_ns, has made due.
  void serve(short revents, uint64_t began_ns, uint64_t now_ns);

 private:
  using Connection = std::shared_ptr<Fd>;

  bool connect_locked();
  void append_all_locked();
  void append_subscription_locked(uint64_t topic, std::string_view name);
  void append_change_locked(const FrameHeader& header, const void* payload);
  void flush_locked();
  void lose_locked();
  uint64_t next_delay_ns();

  void read_some(uint64_t now_ns);
  bool receive_and_deliver(uint64_t now_ns);
  bool handle_frames(uint64_t now_ns);
  void deliver(const FrameHeader& header, char* payload);
  void respond(uint64_t number, const Response& response);
  void send_back(const FrameHeader& header, const void* payload);
  void close_reader();

  const UnixAddress& address_;
  Receiver& receiver_;

  std::mutex mutex_;
  struct Topic {
    std::string name;
    uint64_t order;  // number of the change that made it
  };
  std::map<uint64_t, Topic> topics_;
  uint64_t order_ = 0;           // number of the last change
  uint64_t answered_order_ = 0;  // number of the last change behind which a request has been answered
  uint64_t connections_ = 0;     // made so far
  uint64_t renewed_order_ = 0;   // what answered_order_ was when the last of them was made
  Connection current_;           // where changes and responses go; null when there is none
  OutQueue out_;                 // waits for current_
  uint32_t holders_ = 0;         // of changes: those that wait for send_changes() are sent by a read, too

  uint64_t call_at_ns_ = 0;  // when the receiver wants to be called, 0: never

  // When that was received which has been handled last of reader_; 0 when nothing has.
  std::atomic<uint64_t> in_step_ns_{0};

  // Delivery thread only.
  Connection reader_;             // being read; may be an older one than current_
  uint64_t reader_number_ = 0;    // what connections_ was when it was made
  bool heard_ = false;            // something has come over it, and the receiver knows of it
  uint64_t silent_ns_ = 0;        // waited for it since something came
  uint64_t due_ns_ = UINT64_MAX;  // when to call the receiver
  InBuffer in_;
  uint64_t opened_at_ns_ = 0, retry_at_ns_ = 0, backoff_ns_ = 0;
  std::minstd_rand random_;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_EVENTS_H_
