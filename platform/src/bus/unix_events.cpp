#include "bus/unix_events.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "asan.h"
#include "bus/dispatcher.h"
#include "bus/settings.h"
#include "bus/unix_requests.h"
#include "es_platform/pcx.h"
#include "log.h"

namespace es_platform::bus {

namespace {

constexpr size_t kReadBuffer = 256 << 10;
constexpr size_t kMaxUnsent =
    2 * size_t{kMaxMessage};  // changes and responses waiting for the producer to read
constexpr FrameKinds kKinds =
    frame_kinds(FrameKind::push, FrameKind::sync, FrameKind::beat, FrameKind::inquiry);
constexpr uint64_t kMillisecond = 1000000;
constexpr uint64_t kFirstBackoff = 10 * kMillisecond;
constexpr uint64_t kLongestBackoff = 500 * kMillisecond;

uint64_t silence_limit_ns() { return silence_limit_ms() * kMillisecond; }

bool hung_up(int fd) {
  pollfd poll_fd = {fd, 0, 0};
  return poll(&poll_fd, 1, 0) > 0;
}

}  // namespace

UnixEvents::UnixEvents(const UnixAddress& address, Receiver& receiver)
    : address_(address),
      receiver_(receiver),
      in_(kReadBuffer),
      random_(static_cast<std::minstd_rand::result_type>(process_token())) {}

// --- Changes: any thread ---

void UnixEvents::subscribe(uint64_t topic, std::string_view name) {
  Dispatcher::instance().add(this);
  std::lock_guard lock(mutex_);
  topics_.emplace(topic, Topic{std::string(name), order_ + 1});
  ++order_;
  append_subscription_locked(topic, name);
}

void UnixEvents::unsubscribe(uint64_t topic) noexcept {
  std::lock_guard lock(mutex_);
  if (topics_.erase(topic) == 0) return;
  ++order_;
  append_change_locked(make_frame(FrameKind::unsubscribe, 0, topic, 0, order_), nullptr);
}

void UnixEvents::resubscribe(uint64_t topic, uint64_t fresh) noexcept {
  std::lock_guard lock(mutex_);
  auto moved = topics_.extract(topic);
  if (moved.empty()) return;
  append_change_locked(make_frame(FrameKind::unsubscribe, 0, topic, 0, ++order_), nullptr);
  moved.key() = fresh;
  moved.mapped().order = ++order_;
  const Topic& placed = topics_.insert(std::move(moved)).position->second;
  append_subscription_locked(fresh, placed.name);
}

void UnixEvents::hold_changes() noexcept {
  std::lock_guard lock(mutex_);
  ++holders_;
}

void UnixEvents::send_changes() noexcept {
  std::lock_guard lock(mutex_);
  if (--holders_ == 0 && current_ != nullptr && !out_.empty()) flush_locked();
}

void UnixEvents::append_subscription_locked(uint64_t topic, std::string_view name) {
  append_change_locked(make_frame(FrameKind::subscribe, name.size(), topic, 0, order_), name.data());
}

// A change that cannot be queued, for want of memory or since the producer has stopped reading, costs the
// connection and not the change: the next connection brings everything.
void UnixEvents::append_change_locked(const FrameHeader& header, const void* payload) {
  if (current_ == nullptr) return Dispatcher::instance().wake();
  try {
    out_.append(header, payload);
    if (holders_ == 0) flush_locked();
    if (out_.bytes() > kMaxUnsent) lose_locked();
  } catch (const std::bad_alloc&) {
    lose_locked();
  }
}

UnixEvents::Standing UnixEvents::settle(const Deadline& deadline) {
  std::unique_lock lock(mutex_);
  if (topics_.empty()) return {};
  if (current_ == nullptr || hung_up(current_->get())) connect_locked();
  if (holders_ != 0 && current_ != nullptr) flush_locked();
  while (!out_.empty() && deadline.left_ms() > 0) {
    const Connection connection = current_;
    lock.unlock();
    wait_for(connection->get(), POLLOUT, deadline);
    lock.lock();
    if (current_ == connection) flush_locked();
  }
  return {order_, connections_};
}

bool UnixEvents::answered(const Standing& standing) {
  std::lock_guard lock(mutex_);
  if (standing.connection != connections_ && standing.order > renewed_order_) return false;
  answered_order_ = std::max(answered_order_, standing.order);
  return true;
}

uint64_t UnixEvents::generation(const Deadline& deadline) {
  settle(deadline);
  std::lock_guard lock(mutex_);
  return current_ != nullptr && !hung_up(current_->get()) ? connections_ : 0;
}

uint32_t UnixEvents::silence_ms() const noexcept {
  const uint64_t in_step_ns = in_step_ns_.load(std::memory_order_acquire);
  if (in_step_ns == 0) return UINT32_MAX;
  return static_cast<uint32_t>(std::min<uint64_t>((clock_now_ns() - in_step_ns) / kMillisecond, UINT32_MAX));
}

void UnixEvents::call_at(uint64_t at_ns) noexcept {
  std::lock_guard lock(mutex_);
  call_at_ns_ = at_ns;
  Dispatcher::instance().wake();
}

// --- The connection ---

// Replaces whatever connection there was. A failure is no more than that: the delivery thread tries again.
bool UnixEvents::connect_locked() {
  Fd fd;
  if (connect_to(address_, nullptr, &fd) != 0) return false;
  try {
    Connection fresh = std::make_shared<Fd>(std::move(fd));
    out_.clear();
    append_all_locked();
    current_ = std::move(fresh);
    ++connections_;
    renewed_order_ = answered_order_;
  } catch (const std::bad_alloc&) {
    lose_locked();
    return false;
  }
  flush_locked();
  Dispatcher::instance().wake();
  return true;
}

void UnixEvents::append_all_locked() {
  const Hello hello = {process_token(), Role::events, 0};
  out_.append(make_frame(FrameKind::hello, sizeof hello), &hello);
  for (const auto& [number, topic] : topics_) {
    const uint32_t renewed = topic.order <= answered_order_ ? 1 : 0;
    out_.append(make_frame(FrameKind::subscribe, topic.name.size(), number, renewed), topic.name.data());
  }
  out_.append(make_frame(FrameKind::mark, 0, 0, 0, order_), nullptr);
}

void UnixEvents::flush_locked() {
  size_t written = 0;
  if (out_.flush(current_->get(), &written) != 0) return lose_locked();
  if (!out_.empty()) Dispatcher::instance().wake();
}

// Forgets the current connection. Its reader finds the end of the stream.
void UnixEvents::lose_locked() {
  if (current_ != nullptr) shutdown(current_->get(), SHUT_WR);
  current_ = nullptr;
  out_.clear();
  Dispatcher::instance().wake();
}

// Doubles from 10 ms to 500 ms, each time between a half and the whole of it: consumers of a producer that
// comes back do not come all at once.
uint64_t UnixEvents::next_delay_ns() {
  backoff_ns_ = std::clamp(backoff_ns_ * 2, kFirstBackoff, kLongestBackoff);
  return backoff_ns_ / 2 + random_() % (backoff_ns_ / 2);
}

// --- Delivery thread ---

pollfd UnixEvents::prepare(uint64_t now_ns, uint64_t* until_ns) {
  std::lock_guard lock(mutex_);
  if (reader_ == nullptr) {
    if (current_ == nullptr && !topics_.empty() && now_ns >= retry_at_ns_ && !connect_locked()) {
      retry_at_ns_ = now_ns + next_delay_ns();
    }
    reader_ = current_;
    reader_number_ = connections_;
    opened_at_ns_ = now_ns;
    silent_ns_ = 0;
    if (reader_ == nullptr && !topics_.empty()) *until_ns = std::min(*until_ns, retry_at_ns_);
  }
  if (reader_ == nullptr) return {-1, 0, 0};
  due_ns_ = heard_ && call_at_ns_ != 0 ? call_at_ns_ : UINT64_MAX;
  if (heard_) *until_ns = std::min({*until_ns, due_ns_, now_ns + silence_limit_ns() - silent_ns_});
  const bool writes = reader_ == current_ && !out_.empty();
  return {reader_->get(), static_cast<short>(writes ? POLLIN | POLLOUT : POLLIN), 0};
}

void UnixEvents::serve(short revents, uint64_t began_ns, uint64_t now_ns) {
  if ((revents & POLLOUT) != 0) {
    std::lock_guard lock(mutex_);
    if (reader_ == current_) flush_locked();
  }
  if ((revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
    read_some(now_ns);
  } else if (heard_ && (silent_ns_ += now_ns - began_ns) >= silence_limit_ns()) {
    log_line("%s: nothing heard from the producer for %u ms; event connection closed",
             address_.socket.c_str(), static_cast<unsigned>(silent_ns_ / kMillisecond));
    close_reader();
  }
  if (heard_ && now_ns >= due_ns_) receiver_.time_come(reader_number_);
}

// A message that cannot be delivered, for want of memory or since a handler throws, is missed: the connection ends.
void UnixEvents::read_some(uint64_t now_ns) {
  try {
    if (!receive_and_deliver(now_ns)) close_reader();
  } catch (const std::bad_alloc&) {
    log_line("%s: out of memory; event connection closed", address_.socket.c_str());
    close_reader();
  } catch (const HandlerFailure&) {
    log_line("%s: a handler has thrown an exception; event connection closed", address_.socket.c_str());
    close_reader();
  }
}

bool UnixEvents::receive_and_deliver(uint64_t now_ns) {
  const std::span<char> room = in_.room();
  const ssize_t bytes = recv(reader_->get(), room.data(), room.size(), MSG_DONTWAIT);
  if (bytes < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
  if (bytes <= 0) return false;
  in_.received(static_cast<size_t>(bytes));
  silent_ns_ = 0;
  if (!std::exchange(heard_, true)) receiver_.link_up(reader_number_);
  return handle_frames(now_ns);
}

bool UnixEvents::handle_frames(uint64_t now_ns) {
  FrameHeader header;
  char* payload = nullptr;
  const char* why = nullptr;
  for (;;) {
    switch (in_.next(kKinds, &header, &payload, &why)) {
      case InBuffer::Step::frame:
        if (header.kind == FrameKind::beat) {
          send_back(make_frame(FrameKind::beat, 0), nullptr);
        } else {
          deliver(header, payload);
        }
        in_step_ns_.store(now_ns, std::memory_order_release);
        break;
      case InBuffer::Step::more:
        return true;
      case InBuffer::Step::fault:
        log_line("%s: malformed frame from the producer: %s; connection closed", address_.socket.c_str(),
                 why);
        return false;
    }
  }
}

// Payloads are handed out where they were received. Under AddressSanitizer each one gets a block of its own
// size, so that a handler that reads past its message is caught.
void UnixEvents::deliver(const FrameHeader& header, char* payload) {
  void* message = header.length != 0 ? payload : nullptr;
#if ES_PLATFORM_ASAN
  const std::unique_ptr<void, decltype(&std::free)> exact(std::malloc(header.length), &std::free);
  if (message != nullptr && exact != nullptr) message = std::memcpy(exact.get(), payload, header.length);
#endif
  const uint32_t mtype = header.kind == FrameKind::sync ? kSyncRequestType : header.word;
  const Response response = header.kind == FrameKind::inquiry
                                ? receiver_.inquire(header.tag, message, header.length)
                                : receiver_.deliver(header.tag, mtype, message, header.length);
  if (header.kind != FrameKind::push) respond(header.order, response);
  std::free(response.data);
}

void UnixEvents::respond(uint64_t number, const Response& response) {
  const uint32_t length = response.data != nullptr && response.length <= kMaxMessage ? response.length : 0;
  send_back(make_frame(FrameKind::response, length, 0, 0, number), response.data);
}

// An answer belongs to the connection that asked; when that one is lost nobody waits for it any more.
void UnixEvents::send_back(const FrameHeader& header, const void* payload) {
  std::lock_guard lock(mutex_);
  if (reader_ == current_) append_change_locked(header, payload);
}

void UnixEvents::close_reader() {
  {
    std::lock_guard lock(mutex_);
    if (reader_ == current_) lose_locked();
    reader_ = nullptr;
    in_ = InBuffer(kReadBuffer);
    const uint64_t now = clock_now_ns();
    if (now - opened_at_ns_ > kLongestBackoff) backoff_ns_ = 0;
    retry_at_ns_ = now + next_delay_ns();
  }
  in_step_ns_.store(0, std::memory_order_release);
  if (std::exchange(heard_, false)) receiver_.link_down(reader_number_);
}

}  // namespace es_platform::bus
