#include "bus/unix_connections.h"

namespace es_platform::bus {

void UnixConnections::admit(Fd fd, const Credentials& who) {
  const uint64_t id = next_connection_++;
  auto connection = std::make_unique<UnixConnection>();
  connection->id = id;
  connection->credentials = who;
  connection->fd = std::move(fd);
  if (!event_set_.add(connection->fd.get(), id, EPOLLIN)) return;
  connections_.emplace(id, std::move(connection));
}

UnixConnection* UnixConnections::find(uint64_t id) const {
  const auto found = connections_.find(id);
  return found != connections_.end() ? found->second.get() : nullptr;
}

void UnixConnections::join(UnixConnection& connection, const Hello& hello) {
  UnixPeer& peer = peer_of(connection, hello.token);
  connection.peer = &peer;
  ++peer.connections;
  if (hello.role == Role::events) give_events_to(peer, connection);
}

UnixPeer& UnixConnections::peer_of(const UnixConnection& connection, uint64_t token) {
  const std::pair key{connection.credentials.pid, token};
  const auto found = peers_.find(key);
  if (found == peers_.end()) {
    auto fresh = std::make_unique<UnixPeer>();
    fresh->who = {next_peer_++, connection.credentials.pid, connection.credentials.uid};
    fresh->key = key;
    service_.peer_came(fresh->who);
    return *peers_.emplace(key, std::move(fresh)).first->second;
  }
  return *found->second;
}

void UnixConnections::give_events_to(UnixPeer& peer, UnixConnection& connection) {
  UnixConnection* older = peer.events;
  if (older != nullptr) close(*older);
  wake_list_.reserve(event_connections_ + 1);
  connection.sink =
      std::make_unique<UnixSink>(connection.id, connection.fd.get(), queue_limit_, wake_list_, pace_);
  peer.events = &connection;
  ++event_connections_;
  service_.events_opened(peer.who, connection.sink.get());
}

void UnixConnections::take_events_from(UnixPeer& peer) {
  peer.events = nullptr;
  peer.order = 0;
  --event_connections_;
  service_.events_closed(peer.who);
}

bool UnixConnections::close(UnixConnection& connection) {
  UnixPeer* peer = connection.peer;
  if (peer != nullptr) {
    if (peer->events == &connection) take_events_from(*peer);
    if (connection.parked) std::erase(peer->parked, connection.id);
    if (--peer->connections == 0) {
      service_.peer_gone(peer->who);
      peers_.erase(peer->key);
    }
  }
  connections_.erase(connection.id);
  return false;
}

bool UnixConnections::set_interest(UnixConnection& connection, uint32_t events) {
  if (connection.interest == events) return true;
  if (!event_set_.change(connection.fd.get(), connection.id, events)) return close(connection);
  connection.interest = events;
  return true;
}

}  // namespace es_platform::bus
