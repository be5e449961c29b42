// Who is connected to a producer: connections, the processes they belong to, and how both come and go. What is
// said on the connections is not known here. Service thread only; the service is told from it.
//
// All connections of one process are one peer, which comes with the first and goes with the last of them. A
// peer has one event connection at a time: a newer one replaces the older.
#ifndef ES_PLATFORM_SRC_BUS_UNIX_CONNECTIONS_H_
#define ES_PLATFORM_SRC_BUS_UNIX_CONNECTIONS_H_

#include <map>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bus/event_set.h"
#include "bus/in_buffer.h"
#include "bus/transport.h"
#include "bus/unix_answer.h"
#include "bus/unix_sink.h"

namespace es_platform::bus {

struct UnixConnection;

struct UnixPeer {
  pcx_peer who;
  std::pair<pid_t, uint64_t> key;  // process id and token
  uint32_t connections = 0;
  UnixConnection* events = nullptr;
  uint64_t order = 0;            // number of the last change handled
  std::vector<uint64_t> parked;  // connections whose read waits for a change
};

struct UnixConnection {
  static constexpr size_t kRequestBuffer = 4096;  // kept for each connection

  uint64_t id;
  Fd fd;
  Credentials credentials;
  UnixPeer* peer = nullptr;  // null before the hello
  uint32_t interest = EPOLLIN;
  InBuffer in{kRequestBuffer};
  // Request connections. A parked request stays in `in`, from which nothing is read meanwhile.
  UnixAnswer answer{};
  bool parked = false;
  FrameHeader parked_header{};
  char* parked_payload = nullptr;
  // Event connections.
  std::unique_ptr<UnixSink> sink{};
  uint32_t unanswered_beats = 0;
};

class UnixConnections {
 public:
  // Connections are waited for under their ids, from first_id on.
  UnixConnections(Service& service, const EventSet& event_set, WakeList& wake_list, uint64_t queue_limit,
                  uint64_t first_id)
      : service_(service),
        event_set_(event_set),
        wake_list_(wake_list),
        queue_limit_(queue_limit),
        next_connection_(first_id) {}

  void admit(Fd fd, const Credentials& who);
  // Null when it has been closed.
  UnixConnection* find(uint64_t id) const;
  // The hello has come: the connection gets its peer, and its sink when it is for events.
  void join(UnixConnection& connection, const Hello& hello);

  // Calls for each event connection; none may be closed meanwhile.
  template <typename Call>
  void each_for_events(Call call) const {
    for (const auto& [key, peer] : peers_) {
      if (peer->events != nullptr) call(*peer->events);
    }
  }

  // Messages are pushed close after one another.
  bool are_crowded() const noexcept { return pace_.is_crowded(); }

  // These may close the connection, close() does, and then return false: it is gone.
  bool set_interest(UnixConnection& connection, uint32_t events);
  bool close(UnixConnection& connection);

 private:
  UnixPeer& peer_of(const UnixConnection& connection, uint64_t token);
  void give_events_to(UnixPeer& peer, UnixConnection& connection);
  void take_events_from(UnixPeer& peer);

  Service& service_;
  const EventSet& event_set_;
  WakeList& wake_list_;
  Pace pace_;
  const uint64_t queue_limit_;
  uint64_t next_connection_, next_peer_ = 1;
  std::unordered_map<uint64_t, std::unique_ptr<UnixConnection>> connections_;
  std::map<std::pair<pid_t, uint64_t>, std::unique_ptr<UnixPeer>> peers_;
  size_t event_connections_ = 0;
};

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_UNIX_CONNECTIONS_H_
