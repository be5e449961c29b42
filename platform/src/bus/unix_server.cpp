#include "bus/unix_server.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "bus/dispatcher.h"
#include "log.h"

namespace es_platform::bus {

namespace {

constexpr uint64_t kWakeId = 0, kListenerId = 1, kFirstConnectionId = 2;
constexpr size_t kRequestBuffer = 4096;  // kept for each connection
constexpr size_t kSpareKept = 4 << 20;   // larger answer buffers are given back after use
constexpr int kEventsAtOnce = 64;

constexpr FrameKinds kRequestKinds = frame_kinds(FrameKind::read, FrameKind::lookup, FrameKind::ping);
constexpr FrameKinds kEventKinds =
    frame_kinds(FrameKind::subscribe, FrameKind::unsubscribe, FrameKind::mark, FrameKind::response);

}  // namespace

struct UnixServer::Peer {
  pcx_peer who;
  std::pair<pid_t, uint64_t> key;
  uint32_t connections = 0;
  Connection* events = nullptr;
  uint64_t order = 0;            // number of the last change handled
  std::vector<uint64_t> parked;  // connections whose read waits for a change
};

struct UnixServer::Connection {
  uint64_t id;
  Fd fd;
  Credentials credentials;
  Peer* peer = nullptr;  // null before the hello
  uint32_t interest = EPOLLIN;
  InBuffer in{kRequestBuffer};
  // Request connections. A parked request stays in `in`, from which nothing is read meanwhile.
  UnixAnswer answer{};
  bool parked = false;
  FrameHeader parked_header{};
  char* parked_payload = nullptr;
  // Event connections.
  std::unique_ptr<UnixSink> sink{};

  FrameKinds accepted() const {
    if (peer == nullptr) return frame_kinds(FrameKind::hello);
    return sink != nullptr ? kEventKinds : kRequestKinds;
  }
};

uint32_t serve_unix(const std::string& class_name, const ServerOptions& options, Service& service,
                    std::unique_ptr<Server>* out, std::string* why) {
  auto server = std::make_unique<UnixServer>(class_name, options, service);
  const uint32_t status = server->open(why);
  if (status == 0) *out = std::move(server);
  return status;
}

// --- Start and end ---

UnixServer::UnixServer(const std::string& class_name, const ServerOptions& options, Service& service)
    : endpoint_(class_name), options_(options), service_(service), next_connection_(kFirstConnectionId) {}

UnixServer::~UnixServer() {
  if (!started_) return;
  stopping_.store(true);
  wake_list_.wake();
  pthread_join(thread_, nullptr);
}

uint32_t UnixServer::open(std::string* why) {
  if (const int error = endpoint_.open(why)) return static_cast<uint32_t>(error);
  epoll_ = Fd(epoll_create1(EPOLL_CLOEXEC));
  reserve_ = Fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!epoll_ || !reserve_ || wake_list_.fd() < 0 ||
      !watch(wake_list_.fd(), kWakeId, EPOLL_CTL_ADD, EPOLLIN) ||
      !watch(endpoint_.listener(), kListenerId, EPOLL_CTL_ADD, EPOLLIN)) {
    const int error = errno;
    *why = "cannot serve " + endpoint_.class_name() + ": no descriptors: " + std::strerror(error);
    return static_cast<uint32_t>(error);
  }
  start_quiet_thread([](void* self) -> void* { return static_cast<UnixServer*>(self)->run(), nullptr; }, this,
                     &thread_);
  started_ = true;
  return 0;
}

void UnixServer::run() {
  pthread_setname_np(pthread_self(), "pcx-service");
  epoll_event events[kEventsAtOnce];
  while (!stopping_.load()) {
    const int count = epoll_wait(epoll_.get(), events, kEventsAtOnce, -1);
    for (int i = 0; i < count && !stopping_.load(); ++i) {
      try {
        serve_event(events[i]);
      } catch (const std::bad_alloc&) {
        const auto found = connections_.find(events[i].data.u64);
        log("%s: out of memory", endpoint_.class_name().c_str());
        if (found != connections_.end()) close(*found->second);
      }
    }
  }
}

void UnixServer::serve_event(const epoll_event& event) {
  if (event.data.u64 == kWakeId) return flush_woken();
  if (event.data.u64 == kListenerId) return accept_all();
  const auto found = connections_.find(event.data.u64);
  if (found == connections_.end()) return;  // closed while an earlier event was served
  Connection& connection = *found->second;
  if ((event.events & EPOLLOUT) != 0) {
    const bool alive = connection.sink != nullptr ? flush_events(connection)
                                                  : flush_answer(connection) && handle_frames(connection);
    if (!alive) return;
  }
  if ((event.events & EPOLLIN) != 0) {
    read_from(connection);
  } else if ((event.events & (EPOLLHUP | EPOLLERR)) != 0) {
    close(connection);
  }
}

bool UnixServer::watch(int fd, uint64_t id, int operation, uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  return epoll_ctl(epoll_.get(), operation, fd, &event) == 0;
}

// --- Coming and going ---

void UnixServer::accept_all() {
  for (;;) {
    Fd fd;
    const int error = accept_from(endpoint_.listener(), &fd);
    if (error == EMFILE || error == ENFILE) return refuse_for_want_of_descriptors();
    if (error != 0) return;
    out_of_descriptors_ = false;
    admit(std::move(fd));
  }
}

// With no descriptor left the connection would wait in the listener's queue and the thread would spin on it:
// the descriptor held in reserve takes it out and closes it.
void UnixServer::refuse_for_want_of_descriptors() {
  if (!out_of_descriptors_)
    log("%s: no descriptors left; connections refused", endpoint_.class_name().c_str());
  out_of_descriptors_ = true;
  reserve_.reset();
  Fd fd;
  accept_from(endpoint_.listener(), &fd);
  fd.reset();
  reserve_ = Fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
}

void UnixServer::admit(Fd fd) {
  Credentials who{};
  if (!credentials_of(fd.get(), &who) || !user_is_allowed(who.uid, endpoint_.directory())) {
    if (who.pid != last_refused_) {
      log("%s: process %d of user %u refused", endpoint_.class_name().c_str(), static_cast<int>(who.pid),
          who.uid);
    }
    last_refused_ = who.pid;
    return;
  }
  const uint64_t id = next_connection_++;
  auto connection = std::make_unique<Connection>();
  connection->id = id;
  connection->credentials = who;
  connection->fd = std::move(fd);
  if (!watch(connection->fd.get(), id, EPOLL_CTL_ADD, EPOLLIN)) return;
  connections_.emplace(id, std::move(connection));
}

bool UnixServer::greet(Connection& connection, const Hello& hello) {
  if (hello.role != Role::requests && hello.role != Role::events)
    return close_malformed(connection, "unknown role");
  const std::pair key{connection.credentials.pid, hello.token};
  std::unique_ptr<Peer>& slot = peers_[key];
  if (slot == nullptr) {
    slot = std::make_unique<Peer>();
    slot->who = {next_peer_++, connection.credentials.pid, connection.credentials.uid};
    slot->key = key;
    service_.peer_came(slot->who);
  }
  Peer& peer = *slot;
  connection.peer = &peer;
  ++peer.connections;
  if (hello.role == Role::requests) return true;
  Connection* older = peer.events;
  if (older != nullptr) close(*older);
  wake_list_.reserve(event_connections_ + 1);
  connection.sink = std::make_unique<UnixSink>(connection.id, options_.queue_limit, wake_list_);
  peer.events = &connection;
  ++event_connections_;
  service_.events_opened(peer.who, connection.sink.get());
  return true;
}

void UnixServer::take_events_from(Peer& peer) {
  peer.events = nullptr;
  peer.order = 0;
  --event_connections_;
  service_.events_closed(peer.who);
}

bool UnixServer::close(Connection& connection) {
  Peer* peer = connection.peer;
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

bool UnixServer::close_malformed(Connection& connection, const char* why) {
  log("%s: malformed frame from process %d: %s; connection closed", endpoint_.class_name().c_str(),
      static_cast<int>(connection.credentials.pid), why);
  return close(connection);
}

bool UnixServer::set_interest(Connection& connection, uint32_t events) {
  if (connection.interest == events) return true;
  if (!watch(connection.fd.get(), connection.id, EPOLL_CTL_MOD, events)) return close(connection);
  connection.interest = events;
  return true;
}

// --- Frames ---

bool UnixServer::read_from(Connection& connection) {
  const std::span<char> room = connection.in.room();
  const ssize_t bytes = recv(connection.fd.get(), room.data(), room.size(), MSG_DONTWAIT);
  if (bytes < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
  if (bytes <= 0) return close(connection);
  connection.in.received(static_cast<size_t>(bytes));
  return handle_frames(connection);
}

// A request connection has one request under way at a time: the next frame is looked at when the answer has
// left.
bool UnixServer::handle_frames(Connection& connection) {
  while (!connection.parked && !connection.answer.under_way) {
    FrameHeader header;
    char* payload = nullptr;
    const char* why = nullptr;
    switch (connection.in.next(connection.accepted(), &header, &payload, &why)) {
      case InBuffer::Step::more:
        return connection.sink != nullptr || set_interest(connection, EPOLLIN);
      case InBuffer::Step::fault:
        return close_malformed(connection, why);
      case InBuffer::Step::frame:
        if (!handle(connection, header, payload)) return false;
    }
  }
  return true;
}

bool UnixServer::handle(Connection& connection, const FrameHeader& header, char* payload) {
  Peer* peer = connection.peer;
  switch (header.kind) {
    case FrameKind::hello: {
      Hello hello;
      std::memcpy(&hello, payload, sizeof hello);
      return greet(connection, hello);
    }
    case FrameKind::subscribe:
      if (header.length == 0) return close_malformed(connection, "subscription without a name");
      if (header.word > 1) return close_malformed(connection, "subscription neither new nor renewed");
      [[fallthrough]];
    case FrameKind::unsubscribe:
    case FrameKind::mark:
      return handle_change(*peer, header, payload), true;
    case FrameKind::response:
      return service_.response(peer->who, header.order, payload, header.length), true;
    default:
      break;
  }
  if (header.order <= peer->order) return answer(connection, header, payload);
  connection.parked = true;
  connection.parked_header = header;
  connection.parked_payload = payload;
  peer->parked.push_back(connection.id);
  return set_interest(connection, 0);
}

void UnixServer::handle_change(Peer& peer, const FrameHeader& header, const char* payload) {
  if (header.kind == FrameKind::subscribe)
    service_.subscribe(peer.who, header.tag, {payload, header.length}, header.word != 0);
  if (header.kind == FrameKind::unsubscribe) service_.unsubscribe(peer.who, header.tag);
  if (header.order <= peer.order) return;
  peer.order = header.order;
  unpark(peer);
}

// Answers the reads that waited for the change. Answering may close a connection; the peer stays, since the
// event connection on which the change came is its own.
void UnixServer::unpark(Peer& peer) {
  const std::vector<uint64_t> parked = std::exchange(peer.parked, {});
  for (const uint64_t id : parked) {
    Connection& connection = *connections_.find(id)->second;
    if (connection.parked_header.order > peer.order) {
      peer.parked.push_back(id);
      continue;
    }
    connection.parked = false;
    if (answer(connection, connection.parked_header, connection.parked_payload)) handle_frames(connection);
  }
}

// --- Answers ---

bool UnixServer::answer(Connection& connection, const FrameHeader& header, char* payload) {
  uint32_t length = 0;
  const uint32_t status = make_answer(connection, header, payload, &length);
  UnixAnswer& answer = connection.answer;
  answer.header = make_frame(FrameKind::answer, status == 0 ? length : 0, header.tag, status);
  if (answer.header.length != 0) {
    answer.body = std::move(spare_);
    answer.capacity = std::exchange(spare_capacity_, 0);
  }
  answer.sent = 0;
  answer.under_way = true;
  return flush_answer(connection);
}

uint32_t UnixServer::make_answer(Connection& connection, const FrameHeader& header, char* payload,
                                 uint32_t* length) {
  if (header.kind == FrameKind::ping) return 0;
  if (header.kind == FrameKind::lookup) return service_.lookup({payload, header.length});
  const uint32_t capacity = std::min(header.word, kMaxAnswer);
  if (!grow_spare(capacity)) return ENOMEM;
  void* request = header.length != 0 ? payload : nullptr;
  const uint32_t status =
      service_.read(connection.peer->who, request, header.length, spare_.get(), capacity, length);
  return status == 0 && *length > capacity ? EMSGSIZE : status;
}

bool UnixServer::grow_spare(size_t capacity) {
  if (spare_ != nullptr && spare_capacity_ >= capacity) return true;
  spare_.reset();
  spare_capacity_ = 0;
  try {
    spare_ = std::make_unique_for_overwrite<char[]>(std::max<size_t>(capacity, 1));
  } catch (const std::bad_alloc&) {
    return false;
  }
  spare_capacity_ = capacity;
  return true;
}

bool UnixServer::flush_answer(Connection& connection) {
  UnixAnswer& answer = connection.answer;
  if (answer.flush(connection.fd.get()) != 0) return close(connection);
  if (answer.under_way) return set_interest(connection, EPOLLOUT);
  if (answer.body != nullptr && answer.capacity <= kSpareKept && spare_ == nullptr) {
    spare_ = std::move(answer.body);
    spare_capacity_ = answer.capacity;
  }
  answer.body.reset();
  return true;
}

// --- Events ---

bool UnixServer::flush_events(Connection& connection) {
  bool rest = false;
  const int error = connection.sink->flush(connection.fd.get(), &rest);
  if (error == ENOBUFS) {
    log("%s: process %d: more than %llu bytes queued; event connection closed (overflow %llu of this "
        "producer)",
        endpoint_.class_name().c_str(), static_cast<int>(connection.credentials.pid),
        static_cast<unsigned long long>(options_.queue_limit), static_cast<unsigned long long>(++overflows_));
  }
  if (error != 0) return close(connection);
  return set_interest(connection, rest ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

void UnixServer::flush_woken() {
  wake_list_.take(&woken_);
  for (const uint64_t id : woken_) {
    const auto found = connections_.find(id);
    if (found != connections_.end()) flush_events(*found->second);
  }
}

void UnixServer::log(const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (options_.log != nullptr) return options_.log(line);
  log_line("%s", line);
}

}  // namespace es_platform::bus
