// Handles, lookups, requests and their answers; producers that come, go and are refused.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "bus_fixture.h"

namespace bus_test {
namespace {

// Whatever is wrong with an argument, the answer is 22 and nothing happens.
TEST(BusHandles, BadArguments) {
  const std::string name = fresh_class();
  const uint32_t cls = class_handle(name);
  void* handle = nullptr;
  uint32_t word = 0, length = 0;
  char byte = 0;
  const std::vector<std::string> bad_names = {"", ".", "..", ".hidden", "a/b", "a b", std::string(65, 'a')};
  for (const std::string& bad : bad_names) {
    EXPECT_EQ(dsv_create_class(bad.c_str(), 0, 1, &word), 22U) << bad;
  }
  EXPECT_EQ(dsv_create_class(nullptr, 0, 1, &word), 22U);
  EXPECT_EQ(dsv_create_class(name.c_str(), 0, 1, nullptr), 22U);
  EXPECT_EQ(dsv_register(0, "n", &handle), 22U);
  EXPECT_EQ(dsv_register(cls + 1000, "n", &handle), 22U);
  EXPECT_EQ(dsv_register(cls, nullptr, &handle), 22U);
  EXPECT_EQ(dsv_register(cls, "", &handle), 22U);
  EXPECT_EQ(dsv_register(cls, std::string(256, 'n').c_str(), &handle), 22U);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(dsv_lookup_data(0, "n", &handle), 22U);
  EXPECT_EQ(dsv_lookup_data(cls, nullptr, &handle), 22U);
  EXPECT_EQ(pcx_get_optimum_msg_size(0), 0U);
  EXPECT_EQ(pcx_get_num_bulk_handles(0), 0U);

  Recorder recorder;
  int on_stack = 0;
  ASSERT_EQ(dsv_register(cls, "n", &handle), 0U);
  EXPECT_EQ(pcx_register(handle, 1, 0, Recorder::handle), 22U);
  EXPECT_EQ(pcx_register(handle, 0, 0, nullptr), 22U);
  EXPECT_EQ(pcx_register(handle, 0, recorder.context(), Recorder::handle), 0U);
  EXPECT_EQ(pcx_register(handle, 0, recorder.context(), Recorder::handle), 17U);
  EXPECT_EQ(pcx_read(handle, nullptr, 1, &byte, &length), 22U);
  EXPECT_EQ(pcx_read(handle, "r", 1, &byte, nullptr), 22U);
  length = 1;
  EXPECT_EQ(pcx_read(handle, "r", 1, nullptr, &length), 22U);
  EXPECT_EQ(pcx_unregister(handle), 0U);
  for (void* stale :
       {handle, static_cast<void*>(nullptr), static_cast<void*>(&on_stack), reinterpret_cast<void*>(1)}) {
    EXPECT_EQ(pcx_register(stale, 0, 0, Recorder::handle), 22U);
    EXPECT_EQ(pcx_unregister(stale), 22U);
    EXPECT_EQ(pcx_query_producer(stale), 22U);
    EXPECT_EQ(pcx_read(stale, "r", 1, &byte, &length), 22U);
  }
}

TEST(BusHandles, StartAndContext) {
  const std::string name = fresh_class();
  int ctx = 0;
  EXPECT_EQ(dsv_init(&ctx, 1), 0U);
  EXPECT_EQ(pcx_lr_init(&ctx), 0U);
  EXPECT_EQ(pcx_lr_init(&ctx), 17U);
  pcx_context_record record = {0, &ctx, class_handle(name), 0, 1, 0};
  EXPECT_EQ(pcx_set_context(&record), 0U);
  record.one = 2;
  EXPECT_EQ(pcx_set_context(&record), 22U);
  record = {0, &ctx, 0, 0, 1, 0};
  EXPECT_EQ(pcx_set_context(&record), 22U);
  EXPECT_EQ(class_handle(name), class_handle(name));
}

TEST(BusRequests, NoProducer) {
  const std::string name = fresh_class();
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  void* data = nullptr;
  EXPECT_EQ(pcx_query_producer(registration.handle), 2U);
  EXPECT_EQ(dsv_lookup_data(class_handle(name), "n", &data), DSV_NO_DATA);
  const Read refused = read(registration.handle, "echo x", 77);
  EXPECT_EQ(refused.status, 3U);
  EXPECT_EQ(refused.length, 77U);
}

TEST(BusRequests, Lookup) {
  const std::string name = fresh_class();
  Producer producer(name);
  ASSERT_EQ(producer.status(), 0U) << pcx_producer_error();
  EXPECT_EQ(pcx_producer_publish(producer.get(), "n"), 0U);
  EXPECT_EQ(pcx_producer_publish(producer.get(), "n"), 0U);
  void* const first = address(name, "n");
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(address(name, "m"), nullptr);
  EXPECT_EQ(address(name, ""), nullptr);
  EXPECT_EQ(read(first, "echo hello").answer, "hello");
  EXPECT_EQ(pcx_producer_unpublish(producer.get(), "n"), 0U);
  EXPECT_EQ(pcx_producer_unpublish(producer.get(), "n"), 2U);
  EXPECT_EQ(address(name, "n"), nullptr);
}

TEST(BusRequests, Answers) {
  const std::string name = fresh_class();
  Producer producer(name);
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  void* const handle = registration.handle;
  EXPECT_EQ(pcx_query_producer(handle), 0U);
  struct {
    const char* request;
    uint32_t capacity, status;
    std::string answer;
  } const cases[] = {
      {"echo ", 0, 0, ""},
      {"", 10, 0, ""},
      {"echo abc", 3, 0, "abc"},
      {"echo abcd", 3, 90, ""},
      {"echo abcd", 0, 90, ""},
      {"fail 11", 100, 11, ""},
      {"fail 2728210432", 100, 2728210432, ""},
      {"fill 4000000 q", 4000000, 0, std::string(4000000, 'q')},
      {"fill 8000000 r", 20000000, 0, std::string(8000000, 'r')},
      {"fill 4000001 q", 4000000, 90, ""},
      {"echo still here", 100, 0, "still here"},
  };
  for (const auto& one : cases) {
    const Read got = read(handle, one.request, one.capacity);
    EXPECT_EQ(got.status, one.status) << one.request;
    EXPECT_TRUE(got.answer == one.answer) << one.request;
    EXPECT_EQ(got.length, got.status == 0 ? one.answer.size() : one.capacity) << one.request;
  }
  const std::string large = "echo " + std::string(3000001, 'L');
  EXPECT_TRUE(read(handle, large, 3000001).answer == large.substr(5));
}

TEST(BusRequests, ManyThreadsAtOnce) {
  const std::string name = fresh_class();
  Producer producer(name);
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  std::vector<std::thread> threads;
  for (char letter = 'a'; letter < 'i'; ++letter) {
    threads.emplace_back([&, letter] {
      for (uint32_t i = 0; i < 200; ++i) {
        const uint32_t size = (i * 7919) % 300000;
        const Read got = read(registration.handle, "fill " + std::to_string(size) + " " + letter, 300000);
        ASSERT_EQ(got.status, 0U);
        ASSERT_TRUE(got.answer == std::string(size, letter));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(pcx_producer_consumers(producer.get(), nullptr), 1U);
}

TEST(BusProducer, OneForAClass) {
  const std::string name = fresh_class();
  Producer first(name);
  ASSERT_EQ(first.status(), 0U) << pcx_producer_error();
  Producer second(name);
  EXPECT_EQ(second.status(), 98U);
  EXPECT_EQ(second.get(), nullptr);
  EXPECT_NE(std::string(pcx_producer_error()).find(name + ".lock"), std::string::npos)
      << pcx_producer_error();
  EXPECT_EQ(address(name, "n"), nullptr);

  struct stat info;
  ASSERT_EQ(stat(bus_directory().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0750U);
  ASSERT_EQ(stat((bus_directory() + "/" + name + ".sock").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0660U);
}

TEST(BusProducer, OpeningFails) {
  static constexpr pcx_producer_ops none = {};
  const pcx_producer_ops ops = {Producer::read, nullptr};
  pcx_producer* producer = nullptr;
  EXPECT_EQ(pcx_producer_open("a/b", &ops, nullptr, nullptr, &producer), 22U);
  EXPECT_EQ(pcx_producer_open("A", &none, nullptr, nullptr, &producer), 22U);
  EXPECT_EQ(pcx_producer_open("A", &ops, nullptr, nullptr, nullptr), 22U);
  const std::string usual = bus_directory(), file = usual + ".file";
  fclose(fopen(file.c_str(), "w"));
  for (const auto& [directory, status] :
       {std::pair(file, 20U), std::pair(usual + std::string(100, 'd'), 36U)}) {
    setenv("ES_PCX_DIR", directory.c_str(), 1);
    EXPECT_EQ(pcx_producer_open("A", &ops, nullptr, nullptr, &producer), status);
    EXPECT_EQ(producer, nullptr);
    EXPECT_NE(std::string(pcx_producer_error()).find(directory), std::string::npos) << pcx_producer_error();
  }
  setenv("ES_PCX_DIR", usual.c_str(), 1);
}

// Also shows that the address of a lookup outlives the producer, and that nothing is left behind.
TEST(BusProducer, KilledAndRestarted) {
  const std::string name = fresh_class();
  void* data = nullptr;
  {
    Child child("producer", name, "n");
    ASSERT_TRUE(eventually([&] { return (data = address(name, "n")) != nullptr; }));
    EXPECT_EQ(read(data, "echo one").answer, "one");
  }
  EXPECT_EQ(read(data, "echo nobody").status, 3U);
  EXPECT_TRUE(std::filesystem::exists(bus_directory() + "/" + name + ".sock"));
  Producer successor(name);
  ASSERT_EQ(successor.status(), 0U) << pcx_producer_error();
  EXPECT_EQ(read(data, "echo two").answer, "two");
}

TEST(BusProducer, PeerIsGoneOnceWithAllItsConnections) {
  const std::string name = fresh_class();
  Producer producer(name);
  {
    Child child("consumer", name);
    ASSERT_TRUE(producer.has_consumers("n", 1));
    EXPECT_EQ(pcx_producer_consumers(producer.get(), nullptr), 1U);
    EXPECT_EQ(producer.gone, 0);
  }
  ASSERT_TRUE(producer.has_consumers("n", 0));
  EXPECT_TRUE(eventually([&] { return producer.gone == 1; }));
  EXPECT_EQ(pcx_producer_consumers(producer.get(), nullptr), 0U);
}

// Connections from the pool that died with their producer are replaced without the caller seeing it.
TEST(BusProducer, ThousandsComeAndGo) {
  const std::string name = fresh_class();
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  size_t before = 0;
  for (int i = 0; i < 2000; ++i) {
    Producer producer(name);
    ASSERT_EQ(producer.status(), 0U) << pcx_producer_error();
    ASSERT_EQ(read(registration.handle, "echo x").answer, "x") << i;
    if (i == 10) before = open_descriptors();
  }
  EXPECT_LE(open_descriptors(), before + 4);
}

}  // namespace
}  // namespace bus_test
