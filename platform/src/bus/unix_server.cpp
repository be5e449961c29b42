#include "bus/unix_server.h"

#include <sys/prctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "bus/dispatcher.h"
#include "bus/settings.h"

namespace es_platform::bus {

namespace {

constexpr uint64_t kWakeId = 0, kListenerId = 1, kFirstConnectionId = 2;
constexpr size_t kSpareKept = 4 << 20;  // larger answer buffers are given back when they rest
constexpr int kEventsAtOnce = 64;
constexpr uint64_t kPauseNs = 30'000;

constexpr FrameKinds kRequestKinds = frame_kinds(FrameKind::read, FrameKind::lookup, FrameKind::ping);
constexpr FrameKinds kEventKinds = frame_kinds(FrameKind::subscribe, FrameKind::unsubscribe, FrameKind::mark,
                                               FrameKind::response, FrameKind::beat);

FrameKinds accepted_on(const UnixConnection& connection) {
  if (connection.peer == nullptr) return frame_kinds(FrameKind::hello);
  return connection.sink != nullptr ? kEventKinds : kRequestKinds;
}

}  // namespace

uint32_t serve_unix(const std::string& class_name, const ServerOptions& options, Service& service,
                    std::unique_ptr<Server>* out, std::string* why) {
  auto server = std::make_unique<UnixServer>(class_name, options, service);
  const uint32_t status = server->open(why);
  if (status == 0) *out = std::move(server);
  return status;
}

// --- Start and end ---

UnixServer::UnixServer(const std::string& class_name, const ServerOptions& options, Service& service)
    : endpoint_(class_name),
      queue_limit_(options.queue_limit),
      service_(service),
      log_(class_name, options.log),
      acceptor_(endpoint_, log_),
      connections_(service, event_set_, wake_list_, queue_limit_, kFirstConnectionId) {}

UnixServer::~UnixServer() {
  if (!started_) return;
  stopping_.store(true);
  wake_list_.wake();
  pthread_join(thread_, nullptr);
}

uint32_t UnixServer::open(std::string* why) {
  if (const int error = endpoint_.open(why)) return static_cast<uint32_t>(error);
  if (!event_set_.open() || !acceptor_.open() || wake_list_.fd() < 0 ||
      !event_set_.add(wake_list_.fd(), kWakeId, EPOLLIN) ||
      !event_set_.add(endpoint_.listener(), kListenerId, EPOLLIN)) {
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
  prctl(PR_SET_TIMERSLACK, 1UL);  // ns; the usual 50 us would more than double a pause
  epoll_event events[kEventsAtOnce];
  Deadline next_beat = Deadline::in_ms(settings().beat_ms);
  while (!stopping_.load()) {
    const int count = event_set_.wait(events, std::min(next_beat.left_ns(), pause_left_ns()));
    for (int i = 0; i < count && !stopping_.load(); ++i) serve_event(events[i]);
    if (pause_left_ns() == 0) flush_woken();
    if (next_beat.left_ns() != 0) continue;
    next_beat = Deadline::in_ms(settings().beat_ms);
    beat_all();
    rest_spare();
  }
}

void UnixServer::serve_event(const epoll_event& event) {
  const uint64_t id = event.data.u64;
  try {
    if (id == kWakeId) return woken();
    if (id == kListenerId) return accept_all();
    UnixConnection* connection = connections_.find(id);
    if (connection != nullptr)
      serve_connection(*connection, event.events);  // else an earlier event has closed it
  } catch (const std::bad_alloc&) {
    UnixConnection* connection = connections_.find(id);
    log_.line("out of memory");
    if (connection != nullptr) connections_.close(*connection);
  }
}

void UnixServer::serve_connection(UnixConnection& connection, uint32_t events) {
  if ((events & EPOLLOUT) != 0) {
    if (connection.sink != nullptr)
      write_soon(connection);
    else if (!flush_answer(connection) || !handle_frames(connection))
      return;
  }
  if ((events & EPOLLIN) != 0) {
    read_from(connection);
  } else if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
    connections_.close(connection);
  }
}

void UnixServer::accept_all() {
  Fd fd;
  Credentials who{};
  while (acceptor_.next(&fd, &who)) connections_.admit(std::move(fd), who);
}

bool UnixServer::close_malformed(UnixConnection& connection, const char* why) {
  log_.line("malformed frame from process %d: %s; connection closed",
            static_cast<int>(connection.credentials.pid), why);
  return connections_.close(connection);
}

// --- Frames ---

bool UnixServer::read_from(UnixConnection& connection) {
  const std::span<char> room = connection.in.room();
  const ssize_t bytes = recv(connection.fd.get(), room.data(), room.size(), MSG_DONTWAIT);
  if (bytes < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
  if (bytes <= 0) return connections_.close(connection);
  connection.in.received(static_cast<size_t>(bytes));
  return handle_frames(connection);
}

// A request connection has one request under way at a time: the next frame is looked at when the answer has
// left.
bool UnixServer::handle_frames(UnixConnection& connection) {
  while (!connection.parked && !connection.answer.under_way) {
    FrameHeader header;
    char* payload = nullptr;
    const char* why = nullptr;
    switch (connection.in.next(accepted_on(connection), &header, &payload, &why)) {
      case InBuffer::Step::more:
        return connection.sink != nullptr || connections_.set_interest(connection, EPOLLIN);
      case InBuffer::Step::fault:
        return close_malformed(connection, why);
      case InBuffer::Step::frame:
        if (!handle(connection, header, payload)) return false;
    }
  }
  return true;
}

bool UnixServer::handle(UnixConnection& connection, const FrameHeader& header, char* payload) {
  UnixPeer* peer = connection.peer;
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
    case FrameKind::beat:
      return answered_beat(connection), true;
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
  return connections_.set_interest(connection, 0);
}

bool UnixServer::greet(UnixConnection& connection, const Hello& hello) {
  if (hello.role != Role::requests && hello.role != Role::events)
    return close_malformed(connection, "unknown role");
  connections_.join(connection, hello);
  if (connection.sink != nullptr) connection.sink->beat();
  return true;
}

void UnixServer::handle_change(UnixPeer& peer, const FrameHeader& header, const char* payload) {
  if (header.kind == FrameKind::subscribe)
    service_.subscribe(peer.who, header.tag, {payload, header.length}, header.word != 0);
  if (header.kind == FrameKind::unsubscribe) service_.unsubscribe(peer.who, header.tag);
  if (header.order <= peer.order) return;
  peer.order = header.order;
  unpark(peer);
}

// Answers the reads that waited for the change. Answering may close a connection; the peer stays, since the
// event connection on which the change came is its own.
void UnixServer::unpark(UnixPeer& peer) {
  const std::vector<uint64_t> parked = std::exchange(peer.parked, {});
  for (const uint64_t id : parked) {
    UnixConnection& connection = *connections_.find(id);
    if (connection.parked_header.order > peer.order) {
      peer.parked.push_back(id);
      continue;
    }
    connection.parked = false;
    if (answer(connection, connection.parked_header, connection.parked_payload)) handle_frames(connection);
  }
}

// --- Answers ---

bool UnixServer::answer(UnixConnection& connection, const FrameHeader& header, char* payload) {
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

uint32_t UnixServer::make_answer(UnixConnection& connection, const FrameHeader& header, char* payload,
                                 uint32_t* length) {
  if (header.kind == FrameKind::ping) return 0;
  const uint32_t capacity = std::min(header.word, kMaxAnswer);
  if (!grow_spare(capacity)) return ENOMEM;
  if (header.kind == FrameKind::lookup)
    return service_.lookup({payload, header.length}, spare_.get(), capacity, length);
  void* request = header.length != 0 ? payload : nullptr;
  const uint32_t status =
      service_.read(connection.peer->who, request, header.length, spare_.get(), capacity, length);
  return status == 0 && *length > capacity ? EMSGSIZE : status;
}

bool UnixServer::grow_spare(size_t capacity) {
  spare_rests_ = false;
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

// Fresh memory costs more than to fill it, and who reads much reads on: so a large buffer goes when it has rested from one
// beat to the next.
void UnixServer::rest_spare() {
  if (std::exchange(spare_rests_, true) && spare_capacity_ > kSpareKept) {
    spare_.reset();
    spare_capacity_ = 0;
  }
}

bool UnixServer::flush_answer(UnixConnection& connection) {
  UnixAnswer& answer = connection.answer;
  if (answer.flush(connection.fd.get()) != 0) return connections_.close(connection);
  if (answer.under_way) return connections_.set_interest(connection, EPOLLOUT);
  if (answer.body != nullptr && answer.capacity > spare_capacity_) {
    spare_ = std::move(answer.body);
    spare_capacity_ = answer.capacity;
  }
  answer.body.reset();
  return true;
}

// --- Events ---

void UnixServer::write_soon(const UnixConnection& connection) {
  woken_.push_back(connection.id);
  flush_at_ns_ = 0;
}

// Whether it is to be done again when it is due; else the socket says when, or nothing is left, or it has been closed.
bool UnixServer::flush_events(UnixConnection& connection, uint64_t now_ns) {
  bool rest = false;
  const int error = connection.sink->flush(&rest);
  if (error == ENOBUFS) {
    log_.line(
        "process %d: more than %llu bytes queued; event connection closed (overflow %llu of this producer)",
        static_cast<int>(connection.credentials.pid), static_cast<unsigned long long>(queue_limit_),
        static_cast<unsigned long long>(++overflows_));
  }
  if (error != 0) return connections_.close(connection);
  const bool again = rest && connection.sink->due_ns() > now_ns;
  return connections_.set_interest(connection, rest && !again ? EPOLLIN | EPOLLOUT : EPOLLIN) && again;
}

// A consumer that does not answer may be in a callback, which may take its time: that is said, and nothing done.
void UnixServer::beat_all() {
  connections_.each_for_events([&](UnixConnection& connection) {
    if (connection.sink->beat() || connection.unanswered_beats != 0) ++connection.unanswered_beats;
    if (connection.unanswered_beats != kMissedBeats + 1) return;
    log_.line("process %d has not answered for %u ms", static_cast<int>(connection.credentials.pid),
              silence_limit_ms());
  });
}

void UnixServer::answered_beat(UnixConnection& connection) {
  if (std::exchange(connection.unanswered_beats, 0) > kMissedBeats)
    log_.line("process %d answers again", static_cast<int>(connection.credentials.pid));
}

// In a burst those who push write most of it themselves, and are let do so.
void UnixServer::woken() {
  wake_list_.quiet();
  flush_at_ns_ = std::min(flush_at_ns_, clock_now_ns() + (connections_.are_crowded() ? kPauseNs : 0));
}

uint64_t UnixServer::pause_left_ns() const {
  const uint64_t now_ns = clock_now_ns();
  return now_ns < flush_at_ns_ ? flush_at_ns_ - now_ns : 0;
}

// What cannot be done for want of memory is done after the next pause.
void UnixServer::flush_woken() try {
  const uint64_t now_ns = clock_now_ns();
  flush_at_ns_ = now_ns + kPauseNs;
  wake_list_.take(&woken_);
  flush_at_ns_ = UINT64_MAX;
  std::erase_if(woken_, [&](uint64_t id) {
    UnixConnection* connection = connections_.find(id);
    if (connection == nullptr) return true;
    UnixSink& sink = *connection->sink;
    if (sink.due_ns() <= now_ns) {
      sink.woken();
      if (!flush_events(*connection, now_ns)) return true;
    }
    flush_at_ns_ = std::min(flush_at_ns_, sink.due_ns());
    return false;
  });
} catch (const std::bad_alloc&) {
  log_.line("out of memory");
}

}  // namespace es_platform::bus
