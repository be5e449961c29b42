#include "relay.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

namespace es_acl::history {
namespace {

using std::chrono::milliseconds;

constexpr size_t kMostHeld = 64 << 10;

sockaddr_un address_of(const std::string& path) {
  sockaddr_un name = {};
  name.sun_family = AF_UNIX;
  path.copy(name.sun_path, sizeof name.sun_path - 1);
  return name;
}

int open_socket() { return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }
bool may_go_on() { return errno == EAGAIN || errno == EINTR; }

template <typename Way>
bool read_some(Way& way) {
  char bytes[16384];
  const ssize_t count = recv(way.from, bytes, sizeof bytes, 0);
  if (count > 0 && way.held.empty())
    way.not_before = std::max(way.not_before, std::chrono::steady_clock::now() + way.latency);
  if (count > 0) way.held.append(bytes, static_cast<size_t>(count));
  way.ended = count == 0;
  return count >= 0 || may_go_on();
}

template <typename Way>
bool write_some(Way& way) {
  const size_t most = std::min({way.held.size(), way.piece, way.until_cut});
  const ssize_t count = send(way.to, way.held.data(), most, MSG_NOSIGNAL);
  if (count < 0) return may_go_on();
  way.held.erase(0, static_cast<size_t>(count));
  if (way.until_cut != std::string::npos) way.until_cut -= static_cast<size_t>(count);
  // Small pieces come quicker and get larger: none of them is silence, and all together are not long under way.
  if (way.piece != std::string::npos) way.not_before = std::chrono::steady_clock::now() + milliseconds(1);
  if (way.piece != std::string::npos && ++way.piece > 300) way.piece = std::string::npos;
  return way.until_cut != 0;
}

// A consumer may close its half and read on. What the producer closes is over, when all that it wrote has arrived.
template <typename Link>
bool pump(Link& link, short client, short producer) {
  constexpr short kReadable = POLLIN | POLLHUP | POLLERR;
  if ((client | producer) != 0) link.busy = std::chrono::steady_clock::now();
  if ((client & kReadable) != 0 && !link.up.ended && !read_some(link.up)) return false;
  if ((producer & kReadable) != 0 && !link.down.ended && !read_some(link.down)) return false;
  if ((producer & POLLOUT) != 0 && !write_some(link.up)) return false;
  if ((client & POLLOUT) != 0 && !write_some(link.down)) return false;
  if (link.up.is_over() && !std::exchange(link.up.closed, true)) shutdown(link.up.to, SHUT_WR);
  return !link.down.is_over();
}

template <typename Link>
void cut(Link& link) {
  for (auto* way : {&link.up, &link.down}) {
    shutdown(way->from, SHUT_RDWR);
    way->not_before = {};
  }
}

}  // namespace

Relay::Relay(std::string front, std::string back, unsigned seed)
    : front_(std::move(front)),
      back_(std::move(back)),
      random_(seed),
      thread_([this](const std::stop_token& stop) { run(stop); }) {}

Relay::~Relay() {
  thread_.request_stop();
  thread_.join();
  close(listener_);
  for (Link& link : links_) close(link.up.from), close(link.down.from);
}

void Relay::listen() {
  const sockaddr_un name = address_of(front_);
  listener_ = open_socket();
  if (bind(listener_, reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0 ||
      ::listen(listener_, 512) != 0)
    std::abort();
}

// Without a producer the connection ends at once.
void Relay::accept_one() {
  const int client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (client < 0) return;
  const sockaddr_un name = address_of(back_);
  const int producer = open_socket();
  if (connect(producer, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) {
    const milliseconds latency(random_() % 2 == 0 ? 0 : random_() % 25);
    links_.push_back({{client, producer, latency}, {producer, client, latency}, Clock::now()});
    return;
  }
  close(client);
  close(producer);
}

// What to wait for, and until when.
Relay::Clock::time_point Relay::prepare(std::vector<pollfd>* waits) {
  const Clock::time_point now = Clock::now();
  Clock::time_point due = now + milliseconds(20);
  const bool listens = now >= absent_until_;
  if (listens && listener_ < 0) listen();
  if (!listens && listener_ >= 0) {
    unlink(front_.c_str());
    close(std::exchange(listener_, -1));
  }
  waits->assign(1, {listener_, POLLIN, 0});
  const auto add = [&](const Way& in, const Way& out) {
    const bool writes = !out.held.empty() && out.not_before <= now;
    if (out.not_before > now) due = std::min(due, out.not_before);
    const bool reads = !in.ended && in.held.size() < kMostHeld;
    const auto events = static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0));
    waits->push_back({events != 0 ? in.from : -1, events, 0});
  };
  for (const Link& link : links_) add(link.up, link.down), add(link.down, link.up);
  return due;
}

void Relay::run(const std::stop_token& stop) {
  std::vector<pollfd> waits;
  std::unique_lock lock(mutex_);
  while (!stop.stop_requested()) {
    const auto wait = std::chrono::ceil<milliseconds>(prepare(&waits) - Clock::now());
    lock.unlock();
    poll(waits.data(), waits.size(), static_cast<int>(wait.count()));
    lock.lock();
    auto wait_of = waits.begin() + 1;
    links_.remove_if([&](Link& link) {
      const short client = wait_of++->revents, producer = wait_of++->revents;
      if (pump(link, client, producer)) return false;
      close(link.up.from);
      close(link.down.from);
      return true;
    });
    if (waits[0].revents != 0) accept_one();
  }
}

// One that carries something: at least the connection that brings the pushes and beats.
Relay::Link* Relay::busy_link() {
  std::vector<Link*> busy;
  for (Link& link : links_)
    if (Clock::now() - link.busy < milliseconds(200)) busy.push_back(&link);
  return busy.empty() ? nullptr : busy[random_() % busy.size()];
}

std::string Relay::inflict() {
  const std::lock_guard lock(mutex_);
  Link* const link = busy_link();
  if (link == nullptr) return "";
  Way& way = random_() % 3 == 0 ? link->up : link->down;
  const Clock::time_point later = Clock::now() + milliseconds(50 + random_() % 800);
  switch (random_() % 8) {
    case 0:
      return cut(*link), "cut";
    case 1:
    case 2:
      return way.until_cut = 1 + random_() % 600, "cut half-way";
    case 3:
      return way.not_before = later, "stall one way";
    case 4:
      return link->up.not_before = link->down.not_before = later, "stall both ways";
    case 5:
      return way.piece = 1 + random_() % 40, "delay in pieces";
    case 6:
      stall_all_locked(later);
      return "stall all";
    default:
      for (Link& any : links_) cut(any);
      absent_until_ = later;
      return "cut all";
  }
}

void Relay::stall_all_locked(Clock::time_point until) {
  for (Link& link : links_) link.up.not_before = link.down.not_before = until;
}

void Relay::silence(milliseconds duration) {
  const std::lock_guard lock(mutex_);
  stall_all_locked(Clock::now() + duration);
}

void Relay::heal() {
  const std::lock_guard lock(mutex_);
  absent_until_ = {};
  for (Link& link : links_)
    for (Way* way : {&link.up, &link.down}) way->not_before = {}, way->piece = way->until_cut = kNoLimit;
}

}  // namespace es_acl::history
