// Registrations and what is pushed to them: order, handlers, back-pressure, producers that are late or come
// back.
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "bus_fixture.h"

namespace bus_test {
namespace {

TEST(BusPush, ReachesWhoRegisteredInOrder) {
  const std::string name = fresh_class();
  Producer producer(name);
  Recorder one, two, other;
  const Registration first(name, "n", one), second(name, "n", two), third(name, "m", other);
  ASSERT_TRUE(producer.has_consumers("n", 1));  // one process, however many registrations
  ASSERT_TRUE(producer.has_consumers("m", 1));
  EXPECT_EQ(producer.push("nobody", "x"), 0U);
  std::vector<std::string> sent;
  for (size_t i = 0; i < 3000; ++i) {
    sent.push_back(std::string(i % 700, static_cast<char>('a' + i % 26)));
    ASSERT_EQ(producer.push("n", sent.back()), 1U);
  }
  sent.push_back(std::string(5000000, 'L'));  // much larger than the receive buffer
  sent.push_back("last");
  EXPECT_EQ(producer.push("n", sent[3000]), 1U);
  EXPECT_EQ(producer.push("n", sent[3001]), 1U);
  ASSERT_TRUE(eventually([&] { return two.count() == sent.size(); }));
  EXPECT_TRUE(one.messages() == sent);
  EXPECT_TRUE(two.messages() == sent);
  EXPECT_EQ(other.count(), 0U);
}

TEST(BusPush, ToOnePeer) {
  const std::string name = fresh_class();
  Producer producer(name);
  uint64_t peer = 0;
  producer.on_read = [&](const pcx_peer& who, const std::string&) {
    peer = who.id;
    EXPECT_EQ(who.pid, getpid());
    // Pushed from inside an operation, to the one who asks.
    EXPECT_EQ(pcx_producer_push_to(producer.get(), who.id, kWrite, "n", "p", 1), 0U);
    EXPECT_EQ(pcx_producer_push_to(producer.get(), who.id, kWrite, "m", "p", 1), 2U);
    EXPECT_EQ(pcx_producer_push_to(producer.get(), who.id + 1, kWrite, "n", "p", 1), 2U);
  };
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  EXPECT_EQ(read(registration.handle, "echo x").answer, "x");
  EXPECT_TRUE(eventually([&] { return recorder.count() == 1; }));
}

TEST(BusPush, BadArguments) {
  const std::string name = fresh_class();
  Producer producer(name, 1000);
  EXPECT_EQ(pcx_producer_push(producer.get(), 5, "n", "p", 1, nullptr), 22U);
  EXPECT_EQ(pcx_producer_push(producer.get(), kSync, "n", "p", 1, nullptr), 22U);
  EXPECT_EQ(pcx_producer_push(producer.get(), kWrite, nullptr, "p", 1, nullptr), 22U);
  EXPECT_EQ(pcx_producer_push(producer.get(), kWrite, "n", nullptr, 1, nullptr), 22U);
  EXPECT_EQ(pcx_producer_push(producer.get(), kWrite, "n", std::string(1000, 'p').data(), 1000, nullptr),
            22U);
}

// A read stands behind the registration made just before it, whichever connection is the faster: what the
// producer pushes while it answers must arrive. Also when the handler itself registers and reads.
TEST(BusPush, NoReadOvertakesItsRegistration) {
  const std::string name = fresh_class();
  Producer producer(name);
  producer.on_read = [&](const pcx_peer& who, const std::string& request) {
    EXPECT_EQ(pcx_producer_push_to(producer.get(), who.id, kWrite, request.substr(5).c_str(), "p", 1), 0U)
        << request;
  };
  for (int i = 0; i < 300; ++i) {
    const std::string acl = "n" + std::to_string(i);
    Recorder outer, inner;
    void* registered_inside = nullptr;
    outer.during = [&](uint32_t, const std::string&) {
      EXPECT_EQ(dsv_register(class_handle(name), (acl + "i").c_str(), &registered_inside), 0U);
      EXPECT_EQ(pcx_register(registered_inside, 0, inner.context(), Recorder::handle), 0U);
      EXPECT_EQ(read(registered_inside, "echo " + acl + "i").status, 0U);
    };
    const Registration registration(name, acl, outer);
    ASSERT_EQ(read(registration.handle, "echo " + acl).status, 0U) << i;
    ASSERT_TRUE(eventually([&] { return inner.count() == 1; })) << i;
    EXPECT_EQ(pcx_unregister(registered_inside), 0U);
  }
}

TEST(BusPush, ProducerComesLateAndAgain) {
  const std::string name = fresh_class();
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  for (const char* message : {"first", "second", "third"}) {
    Producer producer(name);
    ASSERT_TRUE(producer.has_consumers("n", 1));
    EXPECT_EQ(producer.push("n", message), 1U);
    ASSERT_TRUE(
        eventually([&] { return !recorder.messages().empty() && recorder.messages().back() == message; }));
  }
  EXPECT_EQ(recorder.count(), 3U);
}

// A read from inside a handler, with a producer that has come back meanwhile: neither lost nor stuck.
TEST(BusPush, HandlerReadsFromASuccessor) {
  const std::string name = fresh_class();
  auto producer = std::make_unique<Producer>(name);
  Recorder recorder;
  Read got{};
  const Registration registration(name, "n", recorder);
  std::atomic<bool> pushed{false};
  recorder.during = [&](uint32_t, const std::string&) {
    while (!pushed) usleep(100);
    producer = nullptr;
    producer = std::make_unique<Producer>(name);
    got = read(registration.handle, "echo x");
  };
  ASSERT_TRUE(producer->has_consumers("n", 1));
  producer->push("n", "p");
  pushed = true;
  ASSERT_TRUE(eventually([&] { return recorder.count() == 1; }));
  EXPECT_EQ(got.status, 0U);
  EXPECT_EQ(got.answer, "x");
}

TEST(BusPush, UnregisterWaitsForItsHandler) {
  const std::string name = fresh_class();
  Producer producer(name);
  for (int i = 0; i < 50; ++i) {
    Recorder recorder;
    std::atomic<bool> inside{false}, leave{false}, withdrawn{false};
    recorder.during = [&](uint32_t, const std::string&) {
      inside = true;
      while (!leave) usleep(100);
      EXPECT_FALSE(withdrawn);
    };
    auto registration = std::make_unique<Registration>(name, "n", recorder);
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
    EXPECT_LE(recorder.count(), 2U);
    ASSERT_TRUE(producer.has_consumers("n", 0));
  }
}

// From inside the handler nothing waits: its own registration, another one on the same name, and registering
// it anew.
TEST(BusPush, HandlerWithdraws) {
  const std::string name = fresh_class();
  Producer producer(name);
  Recorder one, two, three;
  Registration first(name, "n", one), second(name, "n", two);
  std::unique_ptr<Registration> third;
  one.during = [&](uint32_t, const std::string&) {
    EXPECT_EQ(pcx_unregister(first.handle), 0U);
    EXPECT_EQ(pcx_unregister(second.handle), 0U);
    third = std::make_unique<Registration>(name, "n", three);
  };
  ASSERT_TRUE(producer.has_consumers("n", 1));
  producer.push("n", "old");
  ASSERT_TRUE(eventually([&] { return one.count() == 1; }));
  ASSERT_EQ(read(third->handle, "echo x").status, 0U);
  producer.push("n", "new");
  ASSERT_TRUE(eventually([&] { return three.count() == 1; }));
  EXPECT_EQ(three.messages().back(), "new");
  EXPECT_EQ(two.count(), 0U);
}

TEST(BusPush, BulkRegistration) {
  const std::string name = fresh_class();
  Producer producer(name);
  Recorder recorder;
  const char* const names[] = {"a", "", "b"};
  void** handles = nullptr;
  uint32_t* codes = nullptr;
  EXPECT_EQ(dsv_register_bulk(0, names, 3, &handles, &codes), 22U);
  ASSERT_EQ(dsv_register_bulk(class_handle(name), names, 3, &handles, &codes), 0U);
  EXPECT_EQ(codes[0], 0U);
  EXPECT_EQ(codes[1], 22U);
  EXPECT_EQ(handles[1], nullptr);
  // Nothing can tell one registration's context from another's here, so the handler counts for all.
  static std::atomic<int> heard;
  const pcx_handler count = [](uint64_t, uint32_t, void*, uint32_t, void**, uint32_t*) { ++heard; };
  const uint32_t most = pcx_get_num_bulk_handles(class_handle(name));
  EXPECT_GE(most, 3U);
  EXPECT_EQ(pcx_bulk_register(handles, codes, most + 1, 0, 0, 0, count), 22U);
  EXPECT_EQ(pcx_bulk_register(handles, codes, 3, 0, 0, 0, count), 0U);
  EXPECT_EQ(codes[1], 22U);
  EXPECT_EQ(pcx_bulk_register(handles, codes, 1, 0, 0, 0, count), 0U);
  EXPECT_EQ(codes[0], 17U);
  ASSERT_TRUE(producer.has_consumers("a", 1) && producer.has_consumers("b", 1));
  producer.push("a", "x");
  producer.push("b", "x");
  EXPECT_TRUE(eventually([&] { return heard == 2; }));
  EXPECT_EQ(pcx_unregister(handles[0]), 0U);
  EXPECT_EQ(pcx_unregister(handles[2]), 0U);
  free(handles);
  free(codes);
}

// One consumer's handler hangs; its queue overflows and its connection ends. The other one does not notice.
TEST(BusPush, SlowConsumerCostsOnlyItself) {
  const std::string name = fresh_class();
  Producer::clear_log();
  Producer producer(name, 3 << 20);
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(producer.has_consumers("n", 1));
  Child slow("consumer", name, "hang");
  ASSERT_TRUE(producer.has_consumers("n", 2));
  const std::string block(60000, 'b');
  size_t sent = 0;
  while (pcx_producer_consumers(producer.get(), "n") == 2 && sent < 1000) {
    producer.push("n", block);
    ++sent;
    ASSERT_TRUE(eventually([&] { return recorder.count() + 8 > sent; }));
  }
  EXPECT_LT(sent, 1000U);
  EXPECT_EQ(producer.push("n", "end"), 1U);
  ASSERT_TRUE(eventually([&] { return recorder.count() == sent + 1; }));
  EXPECT_EQ(Producer::log_lines().size(), 1U);
  EXPECT_NE(Producer::log_lines().at(0).find(std::to_string(slow.pid())), std::string::npos);
}

}  // namespace
}  // namespace bus_test
