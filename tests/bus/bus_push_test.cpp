// Registrations and what is pushed to them: order, handlers, back-pressure, producers that are late or come
// back.
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <thread>
#include <utility>

#include "bus_fixture.h"

namespace bus_test {
namespace {

using BusPush = Bus;

TEST_F(BusPush, ReachesWhoRegisteredInOrder) {
  Producer producer(name);
  Recorder two, other;
  const Registration first(name, "n", recorder), second(name, "n", two), third(name, "m", other);
  ASSERT_TRUE(producer.has_consumers("n", 1));  // one process, however many registrations
  ASSERT_TRUE(producer.has_consumers("m", 1));
  EXPECT_EQ(producer.push("nobody", "x"), 0U);
  std::vector<std::string> sent;
  for (size_t i = 0; i < 3000; ++i) sent.push_back(std::string(i % 700, static_cast<char>('a' + i % 26)));
  sent.push_back(std::string(5000000, 'L'));  // much larger than the receive buffer
  sent.push_back("last");
  for (const std::string& message : sent) ASSERT_EQ(producer.push("n", message), 1U);
  ASSERT_TRUE(two.has(sent.size()));
  EXPECT_TRUE(recorder.messages() == sent);
  EXPECT_TRUE(two.messages() == sent);
  EXPECT_TRUE(other.has(0));
}

// A read stands behind the registration made just before it, whichever connection is the faster: what the
// producer pushes while it answers must arrive. Also when the handler itself registers and reads.
TEST_F(BusPush, NoReadOvertakesItsRegistration) {
  Producer producer(name);
  producer.on_read = [&](const pcx_peer& who, const std::string& request) {
    const auto push = [&](uint64_t peer, const std::string& to) {
      return pcx_producer_push_to(producer.get(), peer, kWrite, to.c_str(), "p", 1);
    };
    EXPECT_EQ(who.pid, getpid());
    EXPECT_EQ(push(who.id, request.substr(5)), 0U) << request;
    EXPECT_EQ(push(who.id, "unknown"), 2U);
    EXPECT_EQ(push(who.id + 1, request.substr(5)), 2U);
  };
  for (int i = 0; i < 200; ++i) {
    const std::string acl = "n" + std::to_string(i);
    Recorder outer, inner;
    std::unique_ptr<Registration> registered_inside;
    outer.during = [&] {
      registered_inside = std::make_unique<Registration>(name, acl + "i", inner);
      EXPECT_EQ(read(registered_inside->handle, "echo " + acl + "i").status, 0U);
    };
    const Registration registration(name, acl, outer);
    ASSERT_EQ(read(registration.handle, "echo " + acl).status, 0U) << i;
    ASSERT_TRUE(inner.has(1)) << i;
  }
}

TEST_F(BusPush, ProducerComesLateAndAgain) {
  const Registration registration(name, "n", recorder);
  for (size_t round = 1; round <= 3; ++round) {
    Producer producer(name);
    ASSERT_TRUE(producer.has_consumers("n", 1));
    EXPECT_EQ(producer.push("n", "m"), 1U);
    ASSERT_TRUE(recorder.has(round));
  }
}

// The producer is told of a new registration while nothing can be pushed to it yet, and of a renewed one when
// something can. Renewed is what the consumer has read behind, whichever producer it read from.
TEST_F(BusPush, ProducerIsToldWhetherARegistrationIsNew) {
  std::unique_ptr<Producer> producer;
  std::atomic<bool> open{false};
  std::mutex mutex;
  std::vector<std::string> told;
  const auto registered = [&](const pcx_peer& who, const std::string& acl, uint32_t renewed) {
    while (!open) usleep(100);
    const uint32_t status = pcx_producer_push_to(producer->get(), who.id, kWrite, acl.c_str(), "p", 1);
    const std::lock_guard lock(mutex);
    told.push_back(acl +
                   (renewed == 1   ? " again"
                    : renewed == 0 ? " new"
                                   : " ?") +
                   (status == 0 ? " reached" : " not reached"));
  };
  const auto expect_told = [&](std::vector<std::string> expected) {
    EXPECT_TRUE(eventually([&] {
      const std::lock_guard lock(mutex);
      return told.size() >= expected.size();
    }));
    const std::lock_guard lock(mutex);
    EXPECT_EQ(std::exchange(told, {}), expected);
  };
  const auto restart = [&] {
    open = false;
    producer = nullptr;
    producer = std::make_unique<Producer>(name, 0, registered);
    open = true;
  };
  const Registration before(name, "before", recorder);  // registered while there is no producer
  restart();
  expect_told({"before new not reached"});
  const Registration read_behind(name, "read", recorder);
  ASSERT_EQ(read(read_behind.handle, "echo x").status, 0U);
  auto gone = std::make_unique<Registration>(name, "gone", recorder);
  const Registration unread(name, "unread", recorder);
  gone = nullptr;
  expect_told({"read new not reached", "gone new not reached", "unread new not reached"});
  ASSERT_TRUE(producer->has_consumers("unread", 1));
  restart();
  expect_told({"before again reached", "read again reached", "unread new not reached"});
  producer = nullptr;
}

// A read from inside a handler, with a producer that has come back meanwhile: neither lost nor stuck.
TEST_F(BusPush, HandlerReadsFromASuccessor) {
  auto producer = std::make_unique<Producer>(name);
  Read got{};
  const Registration registration(name, "n", recorder);
  std::atomic<bool> pushed{false};
  recorder.during = [&] {
    while (!pushed) usleep(100);
    producer = nullptr;
    producer = std::make_unique<Producer>(name);
    got = read(registration.handle, "echo x");
  };
  ASSERT_TRUE(producer->has_consumers("n", 1));
  producer->push("n", "p");
  pushed = true;
  ASSERT_TRUE(recorder.has(1));
  EXPECT_EQ(got.answer, "x") << got.status;
}

TEST_F(BusPush, UnregisterWaitsForItsHandler) {
  Producer producer(name);
  for (int i = 0; i < 50; ++i) {
    std::atomic<bool> inside{false}, leave{false}, withdrawn{false};
    Recorder held;
    held.during = [&] {
      inside = true;
      while (!leave) usleep(100);
      EXPECT_FALSE(withdrawn);
    };
    auto registration = std::make_unique<Registration>(name, "n", held);
    ASSERT_TRUE(producer.has_consumers("n", 1));
    producer.push("n", "one");
    producer.push("n", "two");
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    std::thread withdrawer([&] {
      registration.reset();
      withdrawn = true;
    });
    usleep(1000);
    EXPECT_FALSE(withdrawn);
    leave = true;
    withdrawer.join();
    ASSERT_TRUE(producer.has_consumers("n", 0));
  }
}

// From inside the handler nothing waits: its own registration, another one on the same name, and registering
// it anew.
TEST_F(BusPush, HandlerWithdraws) {
  Producer producer(name);
  Recorder two, three;
  Registration first(name, "n", recorder), second(name, "n", two);
  std::unique_ptr<Registration> third;
  recorder.during = [&] {
    EXPECT_EQ(pcx_unregister(first.handle), 0U);
    EXPECT_EQ(pcx_unregister(second.handle), 0U);
    third = std::make_unique<Registration>(name, "n", three);
  };
  ASSERT_TRUE(producer.has_consumers("n", 1));
  producer.push("n", "old");
  ASSERT_TRUE(recorder.has(1));
  ASSERT_EQ(read(third->handle, "echo x").status, 0U);
  producer.push("n", "new");
  ASSERT_TRUE(three.has(1));
  EXPECT_EQ(three.messages().back(), "new");
  EXPECT_TRUE(two.has(0));
}

TEST_F(BusPush, BulkRegistrationGoesOnPastABadName) {
  Producer producer(name);
  const char* const names[] = {"a", "", "b"};
  void** handles = nullptr;
  uint32_t* codes = nullptr;
  ASSERT_EQ(dsv_register_bulk(class_handle(name), names, 3, &handles, &codes), 0U);
  EXPECT_EQ(handles[1], nullptr);
  // Nothing can tell one registration's context from another's here, so the handler counts for all.
  static std::atomic<int> heard;
  const pcx_handler count = [](uint64_t, uint32_t, void*, uint32_t, void**, uint32_t*) { ++heard; };
  const uint32_t most = pcx_get_num_bulk_handles(class_handle(name));
  EXPECT_EQ(pcx_bulk_register(handles, codes, most + 1, 0, 0, 0, count), 22U);
  EXPECT_EQ(pcx_bulk_register(handles, codes, 3, 0, 0, 0, count), 0U);
  EXPECT_EQ(codes[1], 22U);
  ASSERT_TRUE(producer.has_consumers("a", 1) && producer.has_consumers("b", 1));
  producer.push("a", "x");
  producer.push("b", "x");
  EXPECT_TRUE(eventually([&] { return heard == 2; }));
  for (const int good : {0, 2}) EXPECT_EQ(pcx_unregister(handles[good]), 0U);
  free(handles);
  free(codes);
}

// One consumer's handler hangs; its queue overflows and its connection ends. The other one does not notice.
TEST_F(BusPush, SlowConsumerCostsOnlyItself) {
  Producer producer(name, 3 << 20);
  const Registration registration(name, "n", recorder);
  const Child slow("hang", name);
  ASSERT_TRUE(producer.has_consumers("n", 2));
  const std::string block(60000, 'b');
  size_t sent = 0;
  while (pcx_producer_consumers(producer.get(), "n") == 2 && sent < 1000) {
    producer.push("n", block);
    ++sent;
    ASSERT_TRUE(eventually([&] { return recorder.messages().size() + 8 > sent; }));
  }
  EXPECT_LT(sent, 1000U);
  EXPECT_EQ(producer.push("n", "end"), 1U);
  EXPECT_TRUE(recorder.has(sent + 1));
  const auto log = Producer::take_log();
  ASSERT_EQ(log.size(), 1U);
  EXPECT_NE(log[0].find(std::to_string(slow.pid())), std::string::npos);
}

}  // namespace
}  // namespace bus_test
