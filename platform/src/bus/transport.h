// The seam between the bus and what carries it: connect, request, subscribe, serve.
//
// Everything above speaks of classes, names, topics and messages; everything below of connections. The one
// transport so far is Unix-domain stream sockets on one host (unix_*.cpp). Statuses are those of pcx.h.
#ifndef ES_PLATFORM_SRC_BUS_TRANSPORT_H_
#define ES_PLATFORM_SRC_BUS_TRANSPORT_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bus/deadline.h"
#include "es_platform/pcx_producer.h"

namespace es_platform::bus {

// Bytes from malloc() that a handler handed over; empty when there are none.
struct Response {
  void* data = nullptr;
  uint32_t length = 0;
};

// --- Consumer's side ---

// A handler has thrown an exception: what it was to be told is missing.
struct HandlerFailure {};

// What is told to a consumer. Called on the transport's one delivery thread, one message at a time, never
// under a lock of the transport's; may call any operation of any Link.
class Receiver {
 public:
  virtual ~Receiver() = default;
  // `payload` is aligned to 8, may be written to, and is null when `length` is 0. The response is the
  // caller's to free. May throw HandlerFailure and std::bad_alloc.
  virtual Response deliver(uint64_t topic, uint32_t mtype, void* payload, uint32_t length) = 0;
  // A question that is no message, in order with the messages; likewise.
  virtual Response inquire(uint64_t topic, void* payload, uint32_t length) = 0;
  // The producer has been heard on the connection of that number (1 and up, higher each time), and what it brings comes
  // next. Then: it has ended, all that it brought has been delivered, and something may have been missed.
  virtual void link_up(uint64_t generation) = 0;
  virtual void link_down(uint64_t generation) = 0;
  // The time of Link::call_at() has come. Only between link_up() and link_down().
  virtual void time_come(uint64_t generation) = 0;
};

// A consumer's link to the producer of one class, there or not. Any thread.
class Link {
 public:
  virtual ~Link() = default;
  // 0 when a producer is there and answers.
  virtual uint32_t connect(Deadline deadline) = 0;
  // Is the name published? 0, DSV_NO_DATA, or why nobody could be asked. The size of
  // `all_names` is room for all published names, each with a NUL behind it; 0 afterwards when they do not fit, or on failure.
  virtual uint32_t lookup(std::string_view name, std::vector<char>* all_names, Deadline deadline) = 0;
  // Sends a request and receives its answer into the buffer. Answered when every subscribe() before it has
  // reached the producer. *answer_length: capacity in, length out, unchanged on failure.
  virtual uint32_t request(const void* request, uint32_t length, void* answer, uint32_t* answer_length,
                           Deadline deadline) = 0;
  // From now on what is pushed for the name is delivered under `topic`, a number never used before; made
  // again by itself after a lost connection. Neither blocks. May throw std::bad_alloc, and then nothing has
  // changed.
  virtual void subscribe(uint64_t topic, std::string_view name) = 0;
  virtual void unsubscribe(uint64_t topic) noexcept = 0;
  // Both at once: the name is subscribed under another number instead. Needs no memory.
  virtual void resubscribe(uint64_t topic, uint64_t fresh) noexcept = 0;
  // Between the two, changes may wait, to go out together. May be nested, and on several threads.
  virtual void hold_changes() noexcept = 0;
  virtual void send_changes() noexcept = 0;
  // The number of the connection on which all changes are, or are on their way; 0 when there is none.
  virtual uint64_t generation(Deadline deadline) = 0;
  // Since the receipt of what was handled last; UINT32_MAX when the link is not up.
  virtual uint32_t silence_ms() const noexcept = 0;
  // When the receiver is to be called, by clock_now_ns(); 0: not at all. Replaces the time before.
  virtual void call_at(uint64_t at_ns) noexcept = 0;
};

// --- Producer's side ---

// The way to one consumer's event connection, handed to the service by events_opened(), gone after
// events_closed().
class EventSink {
 public:
  virtual ~EventSink() = default;
  // Writes or queues a message; never blocks. 0; 12 when there is no memory; 3 when it will not be delivered, since the
  // connection is lost or its queue has just overflowed (events_closed() follows).
  virtual uint32_t push(uint64_t topic, uint32_t mtype, const void* payload, uint32_t length) = 0;
  virtual uint32_t ask(uint64_t topic, uint64_t number, const void* payload, uint32_t length) = 0;
  virtual uint32_t inquire(uint64_t topic, uint64_t number, const void* payload, uint32_t length) = 0;
};

// What happens to a producer. All on its one service thread, never under a lock of the transport's.
class Service {
 public:
  virtual ~Service() = default;
  virtual uint32_t read(const pcx_peer& peer, void* request, uint32_t length, void* answer, uint32_t capacity,
                        uint32_t* answer_length) = 0;
  // 0 or DSV_NO_DATA. With a 0 all published names go to `names`, each with a NUL behind it, if they fit.
  virtual uint32_t lookup(std::string_view name, char* names, uint32_t capacity, uint32_t* length) = 0;
  virtual void peer_came(const pcx_peer& peer) = 0;
  virtual void events_opened(const pcx_peer& peer, EventSink* sink) = 0;
  // `renewed`: made again after a lost connection, by a consumer that has read since it was first made. May throw
  // std::bad_alloc, which ends the event connection.
  virtual void subscribe(const pcx_peer& peer, uint64_t topic, std::string_view name, bool renewed) = 0;
  virtual void unsubscribe(const pcx_peer& peer, uint64_t topic) = 0;
  virtual void response(const pcx_peer& peer, uint64_t number, const void* data, uint32_t length) = 0;
  virtual void events_closed(const pcx_peer& peer) = 0;
  virtual void peer_gone(const pcx_peer& peer) = 0;
};

struct ServerOptions {
  uint64_t queue_limit;
  void (*log)(const char* line);
};

// A served class; destroying it stops the service and closes everything, without further calls to the
// Service.
class Server {
 public:
  virtual ~Server() = default;
};

class Transport {
 public:
  virtual ~Transport() = default;
  // Opens nothing yet. The receiver outlives the link; links live as long as the process.
  virtual std::unique_ptr<Link> open_link(const std::string& class_name, Receiver& receiver) = 0;
  // 0 and *out; else a status and a sentence about it.
  virtual uint32_t serve(const std::string& class_name, const ServerOptions& options, Service& service,
                         std::unique_ptr<Server>* out, std::string* why) = 0;
};

// The process's transport.
Transport& transport();

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_TRANSPORT_H_
