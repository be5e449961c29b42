// The producer's side of the Unix-domain transport: one service thread that accepts, reads frames, calls the
// service and writes. Everything here but the sinks' queues belongs to that thread.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_SERVER_H_
#define ES_PLATFORM_SRC_BUS_UNIX_SERVER_H_

#include <pthread.h>
#include <sys/epoll.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bus/in_buffer.h"
#include "bus/transport.h"
#include "bus/unix_answer.h"
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
  struct Peer;
  struct Connection;

  void run();
  void serve_event(const epoll_event& event);
  void accept_all();
  void refuse_for_want_of_descriptors();
  void admit(Fd fd);
  bool watch(int fd, uint64_t id, int operation, uint32_t events);
  void flush_woken();

  // These may close the connection, and then return false: it is gone.
  bool read_from(Connection& connection);
  bool handle_frames(Connection& connection);
  bool handle(Connection& connection, const FrameHeader& header, char* payload);
  bool greet(Connection& connection, const Hello& hello);
  bool answer(Connection& connection, const FrameHeader& header, char* payload);
  bool flush_answer(Connection& connection);
  bool flush_events(Connection& connection);
  bool set_interest(Connection& connection, uint32_t events);
  bool close(Connection& connection);
  bool close_malformed(Connection& connection, const char* why);

  void handle_change(Peer& peer, const FrameHeader& header, const char* payload);
  void unpark(Peer& peer);
  void take_events_from(Peer& peer);
  uint32_t make_answer(Connection& connection, const FrameHeader& header, char* payload, uint32_t* length);
  bool grow_spare(size_t capacity);
  void log(const char* format, ...) __attribute__((format(printf, 2, 3)));

  UnixEndpoint endpoint_;
  const ServerOptions options_;
  Service& service_;
  WakeList wake_list_;
  Fd epoll_, reserve_;
  std::atomic<bool> stopping_{false};
  bool started_ = false;
  pthread_t thread_{};

  uint64_t next_connection_, next_peer_ = 1;
  std::unordered_map<uint64_t, std::unique_ptr<Connection>> connections_;
  std::map<std::pair<pid_t, uint64_t>, std::unique_ptr<Peer>> peers_;  // by process id and token
  std::vector<uint64_t> woken_;
  std::unique_ptr<char[]> spare_;  // body for the next answer
  size_t spare_capacity_ = 0;
  size_t event_connections_ = 0;
  uint64_t overflows_ = 0;
  pid_t last_refused_ = 0;
  bool out_of_descriptors_ = false;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_SERVER_H_
