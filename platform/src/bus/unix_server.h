// The producer's side of the Unix-domain transport: one service thread that takes connections in, reads their
// frames, calls the service and writes. Everything here but the sinks belongs to that thread.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_SERVER_H_
#define ES_PLATFORM_SRC_BUS_UNIX_SERVER_H_

#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "bus/event_set.h"
#include "bus/server_log.h"
#include "bus/transport.h"
#include "bus/unix_acceptor.h"
#include "bus/unix_connections.h"
#include "bus/unix_endpoint.h"
#include "bus/unix_sink.h"

namespace es_platform::bus {

// Transport::serve() of the Unix-domain transport.
uint32_t serve_unix(const std::string& class_name, const ServerOptions& options, Service& service,
                    std::unique_ptr<Server>* out, std::string* why);

class UnixServer final : public Server {
 public:
  UnixServer(const std::string& class_name, const ServerOptions& options, Service& service);
  ~UnixServer() override;
  uint32_t open(std::string* why);

 private:
  void run();
  void serve_event(const epoll_event& event);
  void serve_connection(UnixConnection& connection, uint32_t events);
  void accept_all();
  void woken();
  uint64_t pause_left_ns() const;
  void flush_woken();
  void write_soon(const UnixConnection& connection);
  bool flush_events(UnixConnection& connection, uint64_t now_ns);
  void beat_all();
  void answered_beat(UnixConnection& connection);

  // These may close the connection, and then return false: it is gone.
  bool read_from(UnixConnection& connection);
  bool handle_frames(UnixConnection& connection);
  bool handle(UnixConnection& connection, const FrameHeader& header, char* payload);
  bool greet(UnixConnection& connection, const Hello& hello);
  bool answer(UnixConnection& connection, const FrameHeader& header, char* payload);
  bool flush_answer(UnixConnection& connection);
  bool close_malformed(UnixConnection& connection, const char* why);

  void handle_change(UnixPeer& peer, const FrameHeader& header, const char* payload);
  void unpark(UnixPeer& peer);
  uint32_t make_answer(UnixConnection& connection, const FrameHeader& header, char* payload,
                       uint32_t* length);
  void rest_spare();
  bool grow_spare(size_t capacity);

  UnixEndpoint endpoint_;
  const uint64_t queue_limit_;
  Service& service_;
  ServerLog log_;
  EventSet event_set_;
  WakeList wake_list_;
  UnixAcceptor acceptor_;
  UnixConnections connections_;
  std::atomic<bool> stopping_{false};
  bool started_ = false;
  pthread_t thread_{};

  std::vector<uint64_t> woken_;
  uint64_t flush_at_ns_ = UINT64_MAX;  // when those that were woken for are written out
  std::unique_ptr<char[]> spare_;      // body for the next answer
  size_t spare_capacity_ = 0;
  bool spare_rests_ = true;  // not used since the last beat
  uint64_t overflows_ = 0;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_SERVER_H_
