#include "bus/unix_requests.h"

#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "log.h"

namespace es_platform::bus {

namespace {

constexpr size_t kMaxIdle =
    16;  // connections kept for the next requests; more come and go with their request

// A pooled connection is fit for a request when nothing has happened on it: no end, no stray bytes.
bool is_quiet(int fd) {
  char byte;
  const ssize_t bytes = recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return bytes < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

}  // namespace

uint64_t process_token() {
  static const uint64_t token = [] {
    uint64_t bits = 0;
    if (getrandom(&bits, sizeof bits, 0) != sizeof bits) bits = clock_now_ns();
    return bits;
  }();
  return token;
}

uint32_t status_of_errno(int error) {
  switch (error) {
    case ETIME:
      return ETIME;
    case EAGAIN:
    case EMFILE:
    case ENFILE:
      return EAGAIN;
    case ENOMEM:
    case ENOBUFS:
      return ENOMEM;
    default:
      return ESRCH;
  }
}

// The room for idle connections is there from the start: giving one back cannot fail.
UnixRequests::UnixRequests(const UnixAddress& address) : address_(address) { idle_.reserve(kMaxIdle); }

uint32_t UnixRequests::exchange(FrameHeader header, const void* payload, void* answer,
                                uint32_t* answer_length, const Deadline& deadline) {
  header.tag = next_tag_.fetch_add(1, std::memory_order_relaxed);
  for (;;) {
    Fd fd;
    const bool pooled = take_idle(&fd);
    if (!pooled) {
      if (const int error = connect_new(deadline, &fd)) return status_of_errno(error);
    }
    const Result result =
        send_and_receive(fd.get(), !pooled, header, payload, answer, answer_length, deadline);
    if (result.error == 0) {
      give_back(std::move(fd));
      return result.status;
    }
    // Only a request of which nothing has left on a connection from the pool may go out again: the producer
    // that was behind it is gone, another may be there.
    if (!(pooled && result.unsent)) return status_of_errno(result.error);
  }
}

bool UnixRequests::take_idle(Fd* out) {
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (idle_.empty()) return false;
      *out = std::move(idle_.back());
      idle_.pop_back();
    }
    if (is_quiet(out->get())) return true;
    out->reset();
  }
}

void UnixRequests::give_back(Fd fd) {
  std::lock_guard lock(mutex_);
  if (idle_.size() < kMaxIdle) idle_.push_back(std::move(fd));
}

int UnixRequests::connect_new(const Deadline& deadline, Fd* out) {
  const int error = connect_to(address_, &deadline, out);
  const bool expected = error == 0 || error == ENOENT || error == ECONNREFUSED || error == EAGAIN;
  if (expected) {
    complained_.store(false, std::memory_order_relaxed);
  } else if (!complained_.exchange(true, std::memory_order_relaxed)) {
    log_line("cannot connect to %s: %s", address_.socket.c_str(), std::strerror(error));
  }
  return error;
}

UnixRequests::Result UnixRequests::send_and_receive(int fd, bool fresh, const FrameHeader& header,
                                                    const void* payload, void* answer,
                                                    uint32_t* answer_length, const Deadline& deadline) {
  struct {
    FrameHeader header = make_frame(FrameKind::hello, sizeof(Hello));
    Hello hello = {process_token(), Role::requests, 0};
  } opening;
  FrameHeader request = header;
  char padding[8] = {};
  iovec parts[] = {{&opening, fresh ? sizeof opening : 0},
                   {&request, sizeof request},
                   {const_cast<void*>(payload), header.length},
                   {padding, padded(header.length) - header.length}};
  Result result;
  size_t sent = 0;
  result.error = send_all(fd, parts, 4, deadline, &sent);
  result.unsent = result.error != 0 && result.error != ETIME && sent == 0;
  if (result.error != 0) return result;
  return receive_answer(fd, header.tag, answer, answer_length, deadline);
}

// Header and payload are received with one call where they come together: the payload's part of it is the
// caller's buffer already. Nothing can follow an answer, so nothing of another frame can get there.
UnixRequests::Result UnixRequests::receive_answer(int fd, uint64_t tag, void* answer, uint32_t* answer_length,
                                                  const Deadline& deadline) {
  const uint32_t capacity = *answer_length;
  FrameHeader header;
  size_t have = 0, whole = sizeof header;
  while (have < whole) {
    const size_t in_header = std::min(have, sizeof header), in_answer = have - in_header;
    const size_t room = have < sizeof header ? capacity : whole - have;
    iovec parts[] = {{reinterpret_cast<char*>(&header) + in_header, sizeof header - in_header},
                     {static_cast<char*>(answer) + in_answer, room}};
    const bool past_header = in_header == sizeof header;
    size_t bytes = 0;
    if (const int error = receive_some(fd, parts + past_header, 2 - past_header, deadline, &bytes))
      return {error};
    have += bytes;
    if (past_header || have < sizeof header) continue;
    const char* fault = frame_fault(header, frame_kinds(FrameKind::answer));
    if (fault == nullptr && header.tag != tag) fault = "answer to another request";
    if (fault == nullptr && header.length > capacity) fault = "answer longer than was asked for";
    if (fault == nullptr && header.word != 0 && header.length != 0) fault = "refusal with a payload";
    whole = sizeof header + header.length;
    if (fault == nullptr && have > whole) fault = "bytes behind an answer";
    if (fault != nullptr) {
      log_line("%s: malformed frame from the producer: %s; connection closed", address_.socket.c_str(),
               fault);
      return {EPROTO};
    }
  }
  if (header.word == 0) *answer_length = header.length;
  return {0, false, header.word};
}

}  // namespace es_platform::bus
