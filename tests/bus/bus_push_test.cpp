// Registrations, what is pushed to them and what they are asked: order, handlers, back-pressure, deadlines,
// producers that are late or come back.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <thread>

#include "bus/unix_socket.h"
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
    told.push_back(acl + " " + std::to_string(renewed) + (status == 0 ? " reached" : ""));
    return 0U;
  };
  const auto expect_told = [&](std::vector<std::string> expected) {
    const auto all = [&] {
      const std::lock_guard lock(mutex);
      return told;
    };
    EXPECT_TRUE(eventually([&] { return all().size() >= expected.size(); }));
    EXPECT_EQ(all(), expected);
    told.clear();
  };
  const auto restart = [&] {
    open = false;
    producer = nullptr;
    producer = std::make_unique<Producer>(name, 0, registered);
    open = true;
  };
  const Registration before(name, "before", recorder);  // registered while there is no producer
  restart();
  expect_told({"before 0"});
  const Registration read_behind(name, "read", recorder);
  ASSERT_EQ(read(read_behind.handle, "echo x").status, 0U);
  auto gone = std::make_unique<Registration>(name, "gone", recorder);
  const Registration unread(name, "unread", recorder);
  gone = nullptr;
  expect_told({"read 0", "gone 0", "unread 0"});
  ASSERT_TRUE(producer->has_consumers("unread", 1));
  restart();
  expect_told({"before 1 reached", "read 1 reached", "unread 0"});
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
    std::atomic<bool> inside{false}, withdrawn{false};
    recorder.during = [&] {
      inside = true;
      usleep(1000);
      EXPECT_FALSE(withdrawn);
    };
    auto registration = std::make_unique<Registration>(name, "n", recorder);
    ASSERT_TRUE(producer.has_consumers("n", 1));
    for (const char* message : {"one", "two"}) producer.push("n", message);
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    registration.reset();
    withdrawn = true;
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
    for (void* handle : {first.handle, second.handle}) EXPECT_EQ(pcx_unregister(handle), 0U);
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
  const pcx_handler ignore = [](uint64_t, uint32_t, void*, uint32_t, void**, uint32_t*) {};
  const uint32_t most = pcx_get_num_bulk_handles(class_handle(name));
  EXPECT_EQ(pcx_bulk_register(handles, codes, most + 1, 0, 0, 0, ignore), 22U);
  EXPECT_EQ(pcx_bulk_register(handles, codes, 3, 0, 0, 0, ignore), 0U);
  EXPECT_EQ(codes[1], 22U);
  EXPECT_TRUE(producer.has_consumers("a", 1) && producer.has_consumers("b", 1));
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

// A lone message needs no service thread, which is held up here; the burst behind it comes in order.
TEST_F(BusPush, LoneMessagesDoNotWait) {
  Producer producer(name);
  std::atomic<bool> held{false}, released{false};
  producer.on_read = [&](const pcx_peer&, const std::string&) {
    held = true;
    while (!released) usleep(100);
  };
  const Registration registration(name, "n", recorder);
  Child dying("hang", name);
  ASSERT_TRUE(producer.has_consumers("n", 2));
  std::thread reader([&] { read(registration.handle, "echo x"); });
  EXPECT_TRUE(eventually([&] { return held.load(); }));
  dying.kill_now();
  std::vector<std::string> sent;
  for (int i = 0; i < 500; ++i) {
    EXPECT_EQ(producer.push("n", sent.emplace_back(std::to_string(i))), 1U);
    EXPECT_TRUE(i != 0 || recorder.has(1));
  }
  released = true;
  EXPECT_TRUE(recorder.has(sent.size()));
  EXPECT_EQ(recorder.messages(), sent);
  EXPECT_TRUE(producer.has_consumers("n", 1));
  reader.join();
}

// Messages that a socket like the bus's takes while nobody reads.
size_t socket_room(const std::string& message) {
  int fds[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &es_platform::bus::kSendBuffer,
             sizeof es_platform::bus::kSendBuffer);
  size_t count = 0;
  while (send(fds[0], message.data(), message.size(), MSG_DONTWAIT) > 0) ++count;
  for (const int fd : fds) close(fd);
  return count;
}

// The last message to a slow consumer is the first that its socket does not take, in one round or another.
TEST_F(BusPush, LoneMessagesFillTheSocket) {
  Producer producer(name);
  std::atomic<size_t> released{0}, handled{0};
  recorder.during = [&] {
    while (handled >= released) usleep(10);
    ++handled;
  };
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(producer.has_consumers("n", 1));
  std::vector<std::string> sent;
  const size_t room = socket_room(std::string(8032, 'b'));
  for (size_t count = room; count < room + 6; ++count) {
    for (size_t i = 0; i < count; ++i) {
      producer.push("n", sent.emplace_back(std::to_string(i) + std::string(7990, 'b')));
      usleep(10);
    }
    released = sent.size();
    ASSERT_TRUE(eventually([&] { return handled == sent.size(); })) << count;
  }
  EXPECT_TRUE(recorder.has(sent.size()) && recorder.messages() == sent);
}

// Who pushes and the service thread write in turn, to a consumer that keeps up now and then; each pusher's messages come
// in its order, to the last of a burst.
TEST_F(BusPush, SeveralPushInBursts) {
  constexpr size_t kMessages = 3000, kPushers = 2;
  Producer producer(name);
  std::atomic<size_t> handled{0};
  recorder.during = [&] {
    if (++handled / 512 % 2 == 1) usleep(20);
  };
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(producer.has_consumers("n", 1));
  const auto message = [](size_t pusher, size_t i) {
    return std::to_string(pusher) + " " + std::to_string(i) + std::string(i * i * 37 % 10000, 'b');
  };
  std::vector<std::thread> pushers;
  for (size_t pusher = 0; pusher < kPushers; ++pusher) {
    pushers.emplace_back([&, pusher] {
      for (size_t i = 0; i < kMessages; ++i) {
        EXPECT_EQ(producer.push("n", message(pusher, i)), 1U);
        EXPECT_TRUE(i % 512 != 0 || eventually([&] { return handled > i; }));
      }
    });
  }
  for (std::thread& thread : pushers) thread.join();
  ASSERT_TRUE(recorder.has(kPushers * kMessages));
  std::vector<size_t> next(kPushers);
  for (const std::string& got : recorder.messages()) {
    const size_t pusher = static_cast<size_t>(got[0] - '0');
    ASSERT_LT(pusher, kPushers);
    ASSERT_EQ(got, message(pusher, next[pusher]++));
  }
}

// Synchronous requests: every consumer's answer, or why there is none.
using Answers = std::map<int32_t, std::pair<uint32_t, std::string>>;  // status and response by process id

Answers ask(Producer& producer, const std::string& question, uint32_t deadline_ms) {
  Answers answers;
  const auto gather = [](void* user, const pcx_sync_answer* one) {
    EXPECT_EQ(one->response == nullptr, one->response_length == 0);
    const std::string response(static_cast<const char*>(one->response), one->response_length);
    auto& all = *static_cast<Answers*>(user);
    EXPECT_TRUE(all.try_emplace(one->peer.pid, one->status, response).second);
  };
  EXPECT_EQ(pcx_producer_sync(producer.get(), "n", question.data(), static_cast<uint32_t>(question.size()),
                              deadline_ms, gather, &answers),
            0U);
  return answers;
}

TEST_F(BusPush, AnswersComeBehindWhatWasPushed) {
  Producer producer(name);
  EXPECT_TRUE(ask(producer, "anybody?", 1000).empty());
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(producer.has_consumers("n", 1));
  for (const std::string& response : {std::string("yes"), std::string(), std::string(1000000, 'r')}) {
    recorder.response = response;
    producer.push("n", "before");
    const Answers answers = ask(producer, "well?", 10000);
    EXPECT_TRUE((answers == Answers{{getpid(), {0, response}}}));
    const auto messages = recorder.messages();
    EXPECT_EQ(messages.at(messages.size() - 2), "before");
    EXPECT_EQ(messages.back(), "well?");
  }
}

TEST_F(BusPush, OneDiesAndOneNeverAnswers) {
  Producer producer(name);
  recorder.response = "yes";
  const Registration registration(name, "n", recorder);
  Child dying("die", name), hanging("hang", name);
  ASSERT_TRUE(producer.has_consumers("n", 3));
  const uint64_t start = now_ms();
  const Answers answers = ask(producer, "well?", 500);
  EXPECT_GE(now_ms() - start, 500U);
  EXPECT_LT(now_ms() - start, 3000U);
  EXPECT_EQ(answers, (Answers{{getpid(), {0, "yes"}}, {dying.pid(), {3, ""}}, {hanging.pid(), {62, ""}}}));
  // What they had is gone with them, and an answer that is not awaited any more belongs to no later request.
  hanging.kill_now();
  ASSERT_TRUE(producer.has_consumers("n", 1));
  EXPECT_TRUE(eventually([&] { return producer.gone == 2; }));
  EXPECT_EQ(pcx_producer_consumers(producer.get(), nullptr), 1U);
  EXPECT_EQ(ask(producer, "again?", 10000).size(), 1U);
}

}  // namespace
}  // namespace bus_test
