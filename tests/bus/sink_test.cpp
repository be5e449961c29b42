// When the service thread is told of a consumer that something is queued for: not twice for the same, and always once.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bus/unix_sink.h"
#include "es_platform/clock.h"

namespace {

std::function<void()> meanwhile = [] {};  // what another thread does while the next bytes are written

}  // namespace

// The linker routes the calls here.
extern "C" ssize_t __real_sendmsg(int fd, const msghdr* message, int flags);
extern "C" [[gnu::visibility("default")]] ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
  std::exchange(meanwhile, [] {})();
  return __real_sendmsg(fd, message, flags);
}

namespace {

using es_platform::bus::Pace;
using es_platform::bus::UnixSink;
using es_platform::bus::WakeList;

constexpr uint32_t kLimit = 1 << 20;

class Sink : public testing::Test {
 protected:
  Sink() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0);
    wake_list_.reserve(1);
    sink_ = std::make_unique<UnixSink>(7, ends_[0], kLimit, wake_list_, pace_);
  }
  ~Sink() override {
    close(ends_[0]);
    close(ends_[1]);
  }

  uint32_t push() { return sink_->push(1, 1, message_.data(), static_cast<uint32_t>(message_.size())); }
  // A burst is queued, but for its first messages.
  void push_burst() {
    for (int i = 0; i < 40; ++i) EXPECT_EQ(push(), 0U);
  }
  // How often the service thread has been told since it was asked last.
  size_t announced() {
    std::vector<uint64_t> connections;
    wake_list_.take(&connections);
    return connections.size();
  }
  // What the service thread then does. Whether something is left that waits for the socket.
  bool serve(int error = 0) {
    bool rest = false;
    sink_->woken();
    EXPECT_EQ(sink_->flush(&rest), error);
    return rest;
  }
  void fill_socket() {
    while (announced() == 0 || !serve()) push_burst();
  }
  void take_some(size_t bytes) {
    std::string taken(bytes, '\0');
    EXPECT_EQ(recv(ends_[1], taken.data(), bytes, MSG_WAITALL), static_cast<ssize_t>(bytes));
  }

  int ends_[2];
  const std::string message_ = std::string(100, 'm');
  WakeList wake_list_;
  Pace pace_;
  std::unique_ptr<UnixSink> sink_;
};

TEST_F(Sink, ABurstIsAnnouncedOnce) {
  push_burst();
  EXPECT_EQ(announced(), 1U);
  EXPECT_FALSE(serve());
  EXPECT_EQ(announced(), 0U);
}

TEST_F(Sink, WhatComesWhileItIsWrittenIsAnnounced) {
  push_burst();
  announced();
  meanwhile = [this] { push(); };
  EXPECT_FALSE(serve());
  EXPECT_EQ(announced(), 1U);
}

TEST_F(Sink, WhoWaitsForTheSocketIsToldOfAnOverflowAndOfNothingElse) {
  fill_socket();
  push_burst();
  EXPECT_EQ(announced(), 0U);
  while (push() == 0) {
  }
  EXPECT_EQ(announced(), 1U);
  serve(ENOBUFS);
}

TEST_F(Sink, WhileTheSocketTakesLargePiecesTheServiceThreadComesBackByItself) {
  fill_socket();
  for (int i = 0; i < 100; ++i) push_burst();
  take_some(100000);
  const uint64_t before = clock_now_ns();
  EXPECT_TRUE(serve());
  EXPECT_GT(sink_->due_ns(), before);
  while (clock_now_ns() < sink_->due_ns() + 2'000'000) {
  }
  take_some(1000);
  EXPECT_TRUE(serve());
  EXPECT_LT(sink_->due_ns(), clock_now_ns());
}

TEST_F(Sink, WhatTheSocketTakesInTheEndIsAll) {
  fill_socket();
  push_burst();
  bool rest = true;
  char bytes[65536];
  for (int i = 0; i < 100 && rest; ++i) {
    while (recv(ends_[1], bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
    EXPECT_EQ(sink_->flush(&rest), 0);
  }
  EXPECT_FALSE(rest);
  EXPECT_EQ(announced(), 0U);
  push_burst();
  EXPECT_EQ(announced(), 1U);
}

}  // namespace
