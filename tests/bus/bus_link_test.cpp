// What tells a consumer that pushes may have been missed: the link handler, generations, the heartbeat.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>

#include "bus_fixture.h"

namespace bus_test {
namespace {

using Lines = std::vector<std::string>;

struct BusLink : Bus {
  BusLink() { self = this, pcx_set_link_handler(of, handle); }
  ~BusLink() override { pcx_set_link_handler(of, nullptr); }
  // Has it been told this, and nothing else, since it was last asked?
  bool told(const Lines& expected) {
    eventually([&] { return std::lock_guard(mutex), lines.size() >= expected.size(); });
    const std::lock_guard lock(mutex);
    EXPECT_EQ(lines, expected);
    return std::exchange(lines, {}) == expected;
  }
  void add(const std::string& line) {
    const std::lock_guard lock(mutex);
    lines.push_back(line);
  }
  static void handle(void* registration, const char* acl, uint32_t event, uint64_t generation) {
    if (self->during) self->during(registration, acl, event);
    self->add((event == PCX_LINK_LOST ? "lost " : "renewed ") + std::to_string(generation) + " " + acl);
  }
  const uint32_t of = class_handle(name);
  std::function<void(void* registration, const std::string& acl, uint32_t event)> during;
  std::mutex mutex;
  Lines lines;
  static inline BusLink* self;
};

// Messages of the old connection come before its end, those of the new one behind its beginning.
TEST_F(BusLink, RestartIsToldInOrder) {
  recorder.during = [&] { add("message"); };
  const Registration first(name, "a", recorder);
  EXPECT_EQ(pcx_generation(of), 0U);
  for (uint64_t g = 1; g <= 3; ++g) {
    auto producer = std::make_unique<Producer>(name);
    EXPECT_EQ(pcx_generation(of), g);
    EXPECT_EQ(read(first.handle, "echo x").status, 0U);
    EXPECT_EQ(producer->push("a", "p"), 1U);
    EXPECT_TRUE(told({"renewed " + std::to_string(g) + " a", "message"}));
    EXPECT_TRUE(eventually([&] { return pcx_silence_ms(of) < 10000; }));
    producer = nullptr;
    EXPECT_TRUE(told({"lost " + std::to_string(g) + " a"}));
    EXPECT_EQ(pcx_generation(of), 0U);
  }
}

// Inside the handler that was too slow for its connection there is the next one already; it is told when what the old
// one still held has been delivered.
TEST_F(BusLink, OverflowIsALoss) {
  Producer producer(name, 1 << 20);
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(told({"renewed 1 n"}));
  std::atomic<bool> inside{false};
  recorder.during = [&] {
    if (inside.exchange(true)) return;
    EXPECT_TRUE(eventually([&] { return pcx_generation(of) == 2; }));
    add("message");
  };
  ASSERT_TRUE(producer.has_consumers("n", 1));
  EXPECT_EQ(producer.push("n", "first"), 1U);
  ASSERT_TRUE(eventually([&] { return inside.load(); }));
  for (int sent = 0; producer.push("n", std::string(60000, 'b')) == 1;) ASSERT_LT(++sent, 1000);
  EXPECT_TRUE(told({"message", "lost 1 n", "renewed 2 n"}));
}

// A message for one consumer that no queue can hold, and a registration that the producer could not take note of.
TEST_F(BusLink, WhatCannotReachAConsumerIsALoss) {
  std::atomic<uint32_t> refusals{1};
  std::atomic<uint64_t> peer{0};
  Producer producer(name, 1 << 20, [&](const pcx_peer& who, const std::string&, uint32_t) {
    peer = who.id;
    return refusals > 0 ? refusals--, 12U : 0U;
  });
  const Registration registration(name, "n", recorder);
  EXPECT_EQ(read(registration.handle, "echo x").answer, "x");
  EXPECT_TRUE(told({"renewed 1 n", "lost 1 n", "renewed 2 n"}));
  ASSERT_TRUE(producer.has_consumers("n", 1));
  const auto push = [&](size_t size) {
    const std::string message(size, 'b');
    return pcx_producer_push_to(producer.get(), peer, 6, "n", message.data(), static_cast<uint32_t>(size));
  };
  EXPECT_EQ(push((1 << 20) - PCX_FRAME_ROOM), 0U);
  EXPECT_TRUE(recorder.has(1));
  EXPECT_EQ(push(1 << 20), 2U);
  EXPECT_TRUE(told({"lost 2 n", "renewed 3 n"}));
}

// The walk stands what the handler does to the registrations, and ends although each call makes a new one.
TEST_F(BusLink, HandlerRegistersAnew) {
  std::map<std::string, std::unique_ptr<Registration>> held;
  for (const char* acl : {"a", "b", "c"}) held[acl] = std::make_unique<Registration>(name, acl, recorder);
  during = [&](void* registration, const std::string& acl, uint32_t event) {
    EXPECT_EQ(registration, held.at(acl)->handle);
    if (event != PCX_LINK_LOST) return;
    held[acl] = std::make_unique<Registration>(name, acl, recorder);
    EXPECT_EQ(pcx_unregister(registration), 22U);
    if (acl == "a") held.erase("b");
  };
  auto producer = std::make_unique<Producer>(name);
  ASSERT_TRUE(told({"renewed 1 a", "renewed 1 b", "renewed 1 c"}));
  producer = nullptr;
  ASSERT_TRUE(told({"lost 1 a", "lost 1 c"}));
  producer = std::make_unique<Producer>(name);
  ASSERT_TRUE(told({"renewed 2 a", "renewed 2 c"}));
  std::atomic<int> step{0};
  during = [&](void*, const std::string&, uint32_t) { step = 1, usleep(20000), step = 2; };
  EXPECT_EQ(pcx_renew_later(held["c"]->handle, 0), 0U);
  EXPECT_TRUE(eventually([&] { return step == 1; }));
  held.clear();  // waits for it
  EXPECT_EQ(step, 2);
}

TEST_F(BusLink, NothingOfBeforeComesBehindARegistrationMadeAnew) {
  Producer producer(name);
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(told({"renewed 1 n"}));
  bool first = true;
  recorder.during = [&] {
    add("message");
    if (!std::exchange(first, false)) return;
    EXPECT_EQ(producer.push("n", "dropped"), 1U);
    EXPECT_EQ(pcx_register_anew(registration.handle), 0U);
    EXPECT_EQ(read(registration.handle, "echo x").status, 0U);
    EXPECT_EQ(producer.push("n", "kept"), 1U);
  };
  ASSERT_TRUE(producer.has_consumers("n", 1));
  EXPECT_EQ(producer.push("n", "first"), 1U);
  EXPECT_TRUE(told({"message", "message"}));
  EXPECT_TRUE(recorder.messages().back().ends_with("kept"));
  EXPECT_EQ(pcx_register_anew(nullptr), 22U);
}

// What a handler that throws was to do counts as missed. Nothing hangs, and the delivery thread goes on.
TEST_F(BusLink, HandlersThatThrow) {
  Producer producer(name);
  std::atomic<int> throws{1};
  recorder.during = [&] { throw 1; };
  during = [&](void*, const std::string&, uint32_t) {
    if (throws-- > 0) throw 2;
  };
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(told({"renewed 1 n"})) << "told again, later";
  ASSERT_TRUE(producer.has_consumers("n", 1));
  EXPECT_EQ(producer.push("n", "p"), 1U);
  EXPECT_TRUE(told({"lost 1 n", "renewed 2 n"}));
}

TEST_F(BusLink, RenewLater) {
  const Registration one(name, "one", recorder), two(name, "two", recorder);
  auto gone = std::make_unique<Registration>(name, "gone", recorder);
  EXPECT_EQ(pcx_renew_later(one.handle, 0), 0U);  // there is no connection yet: with the first one, and once
  Producer producer(name);
  ASSERT_TRUE(told({"renewed 1 one", "renewed 1 two", "renewed 1 gone"}));
  const uint64_t start = now_ms();
  for (const uint32_t delay_ms : {3600000, 60}) EXPECT_EQ(pcx_renew_later(one.handle, delay_ms), 0U);
  for (const uint32_t delay_ms : {150, 400}) EXPECT_EQ(pcx_renew_later(two.handle, delay_ms), 0U);
  EXPECT_EQ(pcx_renew_later(gone->handle, 150), 0U);
  gone = nullptr;
  EXPECT_TRUE(told({"renewed 1 one", "renewed 1 two"}));
  EXPECT_GE(now_ms() - start, 399U);
}

// A producer that is stopped keeps its connections, and is taken for gone all the same; it is back when it is heard
// again. Of a consumer that is stopped the log tells. In a process of its own: the time of beats is read once.
TEST_F(BusLink, SilenceIsALoss) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto stop_and_go = [&] {
    setenv("ES_PCX_BEAT_MS", "300", 1);
    const std::string other = fresh_class();
    const Child producer("serve", name), consumer("hang", other);
    Producer here(other);
    const auto logs = [&](const std::string& line) {
      Lines log;
      eventually([&] { return !(log = Producer::take_log()).empty(); });
      return log == Lines{other + ": process " + std::to_string(consumer.pid()) + line};
    };
    const Registration registration(name, "n", recorder);
    bool good = told({"renewed 1 n"});
    usleep(2000000);  // would end it twice if no beats came
    good = good && told({}) && Producer::take_log().empty() && kill(producer.pid(), SIGSTOP) == 0;
    good = good && told({"lost 1 n"}) && pcx_silence_ms(of) == UINT32_MAX;
    usleep(1050000);  // the next one is neither told of nor given up
    good = good && told({}) && kill(producer.pid(), SIGCONT) == 0 && told({"renewed 2 n"});
    good = good && kill(consumer.pid(), SIGSTOP) == 0 && logs(" has not answered for 900 ms");
    good = good && kill(consumer.pid(), SIGCONT) == 0 && logs(" answers again");
    std::filesystem::remove_all(std::filesystem::path(bus_directory()).parent_path());
    exit(good ? 0 : 1);
  };
  EXPECT_EXIT(stop_and_go(), testing::ExitedWithCode(0), "nothing heard from the producer for [0-9]+ ms");
}

// An inquiry comes between the messages around it, once for a name, and to no message handler.
TEST_F(BusLink, AnInquiryHasItsPlaceAmongTheMessages) {
  // Both are there before the connection, whose beginning each is told then.
  const Registration first(name, "n", recorder), second(name, "n", recorder);
  Producer producer(name);
  std::map<uint64_t, std::string> answers;
  producer.on_answer = [&](int32_t pid, uint64_t number, std::string_view response) {
    const std::lock_guard lock(mutex);
    answers[pid == getpid() ? number : 0] += std::string(response) + ".";
  };
  const auto answered = [&](const std::map<uint64_t, std::string>& expected) {
    return eventually([&] { return std::lock_guard(mutex), answers == expected; });
  };
  const auto inquire = [&](const char* to, int expected_asked) {
    uint64_t number = 0;
    int asked = 0;
    const auto note = [](void* count, const pcx_peer*) { ++*static_cast<int*>(count); };
    EXPECT_EQ(pcx_producer_inquire(producer.get(), to, "what", 4, &number, note, &asked), 0U);
    EXPECT_EQ(asked, expected_asked);
  };
  ASSERT_TRUE(told({"renewed 1 n", "renewed 1 n"}));
  ASSERT_TRUE(producer.has_consumers("n", 1));
  inquire("n", 1);
  EXPECT_TRUE(answered({{1, "."}})) << "nobody to ask there";
  pcx_set_inquiry_handler(
      of, [](const char* acl, void* what, uint32_t length, void** response, uint32_t* size) {
        self->add(acl + std::string(" ") + std::string(static_cast<char*>(what), length));
        *size = static_cast<uint32_t>(asprintf(reinterpret_cast<char**>(response), "this"));
      });
  recorder.during = [&, once = false]() mutable {  // all is queued before any of it is handled
    if (!std::exchange(once, true)) inquire("n", 1), producer.push("n", "m");
    add("message");
  };
  producer.push("n", "m");
  EXPECT_TRUE(told({"message", "message", "n what", "message", "message"}));
  inquire("m", 0);
  EXPECT_TRUE(answered({{1, "."}, {2, "this."}}));
}

}  // namespace
}  // namespace bus_test
