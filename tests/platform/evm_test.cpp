#include "es_platform/evm.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

void call(int, void* context) { (*static_cast<std::function<void()>*>(context))(); }

class Evm : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(evm_create(&manager), 0u); }
  void TearDown() override { evm_destroy(manager); }

  evm_sigevent attach(std::function<void()>& handler) {
    evm_sigevent event{};
    const int code = evm_async_attach(manager, EVM_CODE_ANY, call, &handler);
    EXPECT_EQ(evm_init_sigevent(manager, code, 0, 0, &event), 0);
    return event;
  }
  bool polls_readable() {
    pollfd fd{evm_fd(manager), POLLIN, 0};
    return poll(&fd, 1, 0) == 1;
  }

  evm* manager = nullptr;
};

TEST_F(Evm, SignalsRunOnceInTheirOrder) {
  std::vector<int> ran;
  std::function<void()> first = [&] { ran.push_back(1); }, second = [&] { ran.push_back(2); };
  const evm_sigevent a = attach(first), b = attach(second);
  EXPECT_FALSE(polls_readable());
  EXPECT_EQ(evm_dispatch(manager, 0), 0);
  for (const evm_sigevent* event : {&b, &a, &b}) EXPECT_EQ(evm_signal(event), 0u);
  EXPECT_TRUE(polls_readable());
  EXPECT_EQ(evm_dispatch(manager, 0), 2);
  EXPECT_EQ(ran, (std::vector{2, 1}));
  EXPECT_FALSE(polls_readable());
}

TEST_F(Evm, ASignalFromAHandlerIsServedByTheNextDispatch) {
  int runs = 0;
  evm_sigevent event{};
  std::function<void()> again = [&] {
    if (++runs < 3) evm_signal(&event);
    EXPECT_EQ(evm_dispatch(manager, 0), -1);
    EXPECT_EQ(errno, EBUSY);
  };
  event = attach(again);
  evm_signal(&event);
  for (const int served : {1, 1, 1, 0}) EXPECT_EQ(evm_dispatch(manager, 0), served);
}

TEST_F(Evm, WhatIsDetachedRunsNoMore) {
  int runs = 0;
  evm_sigevent a{}, b{};
  std::function<void()> victim = [&] { ++runs; };
  std::function<void()> killer = [&] {
    EXPECT_EQ(evm_async_attach(manager, b.code, nullptr, nullptr), 0);
    EXPECT_EQ(evm_async_attach(manager, a.code, nullptr, nullptr), 0) << "itself";
  };
  a = attach(killer);
  b = attach(victim);
  evm_signal(&a);
  evm_signal(&b);
  EXPECT_EQ(evm_dispatch(manager, 0), 1);
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(evm_signal(&b), 22u);
  EXPECT_EQ(evm_async_attach(manager, b.code, nullptr, nullptr), -1) << "twice";
}

TEST_F(Evm, DetachWaitsForTheHandlerOnAnotherThread) {
  std::atomic<bool> inside{false}, detaching{false}, ended{false};
  std::function<void()> handler = [&] {
    inside = true;
    while (!detaching) std::this_thread::yield();
    std::this_thread::sleep_for(20ms);
    ended = true;
  };
  const evm_sigevent event = attach(handler);
  evm_signal(&event);
  std::thread dispatcher([&] { evm_dispatch(manager, -1); });
  while (!inside) std::this_thread::yield();
  detaching = true;
  EXPECT_EQ(evm_async_attach(manager, event.code, nullptr, nullptr), 0);
  EXPECT_TRUE(ended);
  dispatcher.join();
}

TEST_F(Evm, NoSignalIsLostBetweenThreads) {
  constexpr int kRounds = 2000;
  std::atomic<int> sent{0}, seen{0};
  std::function<void()> handler = [&] { seen = sent.load(); };
  const evm_sigevent event = attach(handler);
  std::thread dispatcher([&] { evm_run(manager); });
  for (int i = 1; i <= kRounds; ++i) {
    sent = i;
    ASSERT_EQ(evm_signal(&event), 0u);
    while (seen < i) std::this_thread::yield();
  }
  evm_stop(manager);
  dispatcher.join();
  evm_stop(manager);
  EXPECT_EQ(evm_run(manager), 0u) << "stopped before it began";
}

}  // namespace
