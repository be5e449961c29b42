// Handles, lookups, requests and their answers; producers that come, go and are refused.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "bus_fixture.h"

namespace bus_test {
namespace {

using BusRequests = Bus;
using BusProducer = Bus;

// Names make paths and frames, handles make pointers: what is wrong with either is found before it is used.
TEST_F(BusRequests, BadNamesAndHandlesAreRefused) {
  const uint32_t cls = class_handle(name);
  void* handle = nullptr;
  uint32_t word = 0, length = 0;
  char byte = 0;
  const std::string longest(65, 'a');
  for (const char* bad :
       {static_cast<const char*>(nullptr), "", ".", "..", ".hidden", "a/b", "a b", longest.c_str()})
    EXPECT_EQ(dsv_create_class(bad, 0, 1, &word), 22U) << (bad ? bad : "null");
  EXPECT_EQ(dsv_register(cls + 1000, "n", &handle), 22U);
  EXPECT_EQ(dsv_register(cls, nullptr, &handle), 22U);
  EXPECT_EQ(dsv_register(cls, std::string(256, 'n').c_str(), &handle), 22U);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(dsv_lookup_data(cls, nullptr, &handle), 22U);
  EXPECT_EQ(pcx_get_optimum_msg_size(0), 0U);

  ASSERT_EQ(dsv_register(cls, "n", &handle), 0U);
  for (const uint32_t status : {0U, 17U})
    EXPECT_EQ(pcx_register(handle, 0, recorder.context(), Recorder::handle), status);
  EXPECT_EQ(pcx_read(handle, nullptr, 1, &byte, &length), 22U);
  length = 1;
  EXPECT_EQ(pcx_read(handle, "r", 1, nullptr, &length), 22U);
  EXPECT_EQ(pcx_unregister(handle), 0U);
  for (void* stale : {handle, static_cast<void*>(nullptr), static_cast<void*>(&byte)}) {
    EXPECT_EQ(pcx_register(stale, 0, 0, Recorder::handle), 22U);
    EXPECT_EQ(pcx_unregister(stale), 22U);
    EXPECT_EQ(pcx_query_producer(stale), 22U);
    EXPECT_EQ(pcx_read(stale, "r", 1, &byte, &length), 22U);
  }
}

TEST_F(BusRequests, Answers) {
  Producer producer(name);
  const Registration registration(name, "n", recorder);
  EXPECT_EQ(pcx_query_producer(registration.handle), 0U);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(pcx_producer_publish(producer.get(), "n"), 0U);
  EXPECT_EQ(address(name, "m"), nullptr);
  for (const uint32_t status : {0U, 2U}) EXPECT_EQ(pcx_producer_unpublish(producer.get(), "n"), status);
  EXPECT_EQ(address(name, "n"), nullptr);
  const struct {
    std::string request;
    uint32_t capacity, status;
    std::string answer;
  } cases[] = {
      {"echo ", 0, 0, ""},
      {"", 10, 0, ""},
      {"echo abc", 3, 0, "abc"},
      {"echo abcd", 3, 90, ""},
      {"echo abcd", 0, 90, ""},
      {"fail 11", 100, 11, ""},
      {"fail 2728210432", 100, 2728210432, ""},
      {"fill 8000000 r", 20000000, 0, std::string(8000000, 'r')},
      {"fill 4000001 q", 4000000, 90, ""},
      {"echo " + std::string(3000001, 'L'), 3000001, 0, std::string(3000001, 'L')},
  };
  for (const auto& one : cases) {
    const Read got = read(registration.handle, one.request, one.capacity);
    const std::string what = one.request.substr(0, 20);
    EXPECT_EQ(got.status, one.status) << what;
    EXPECT_TRUE(got.answer == one.answer) << what;
    EXPECT_EQ(got.length, got.status == 0 ? one.answer.size() : one.capacity) << what;
  }
}

TEST_F(BusRequests, ManyThreadsAtOnce) {
  Producer producer(name);
  const Registration registration(name, "n", recorder);
  std::vector<std::thread> threads;
  for (char letter = 'a'; letter < 'i'; ++letter) {
    threads.emplace_back([&, letter] {
      for (uint32_t i = 0; i < 200; ++i) {
        const uint32_t size = (i * 7919) % 300000;
        const Read got = read(registration.handle, "fill " + std::to_string(size) + " " + letter, 300000);
        ASSERT_TRUE(got.answer == std::string(size, letter)) << got.status;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(pcx_producer_consumers(producer.get(), nullptr), 1U);
}

TEST_F(BusProducer, OneForAClass) {
  Producer first(name), second(name);
  EXPECT_EQ(first.status(), 0U);
  EXPECT_EQ(second.status(), 98U);
  EXPECT_NE(std::string(pcx_producer_error()).find(name + ".lock"), std::string::npos);
  struct stat info;
  ASSERT_EQ(stat(bus_directory().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0750U);
  ASSERT_EQ(stat((bus_directory() + "/" + name + ".sock").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0660U);
}

TEST_F(BusProducer, OpeningFailsWithTheReason) {
  const std::string usual = bus_directory(), directory = usual + std::string(100, 'd');
  setenv("ES_PCX_DIR", directory.c_str(), 1);
  EXPECT_EQ(Producer(name).status(), 36U);
  EXPECT_NE(std::string(pcx_producer_error()).find(directory), std::string::npos) << pcx_producer_error();
  setenv("ES_PCX_DIR", usual.c_str(), 1);
}

// An address outlives its producer, and what a killed one leaves behind does not stand in its successor's way.
TEST_F(BusProducer, MissingKilledAndRestarted) {
  const Registration registration(name, "n", recorder);
  void* data = nullptr;
  EXPECT_EQ(pcx_query_producer(registration.handle), 2U);
  EXPECT_EQ(dsv_lookup_data(class_handle(name), "n", &data), DSV_NO_DATA);
  const Read refused = read(registration.handle, "echo x", 77);
  EXPECT_EQ(refused.status, 3U);
  EXPECT_EQ(refused.length, 77U);
  {
    const Child child("serve", name);
    ASSERT_TRUE(eventually([&] { return (data = address(name, "n")) != nullptr; }));
    EXPECT_EQ(read(data, "echo one").answer, "one");
  }
  EXPECT_EQ(read(data, "echo nobody").status, 3U);
  EXPECT_TRUE(std::filesystem::exists(bus_directory() + "/" + name + ".sock"));
  Producer successor(name);
  EXPECT_EQ(read(data, "echo two").answer, "two");
}

// Lookups in short order, which are answered from a list of all names when that is not too long.
TEST_F(BusProducer, ManyLookups) {
  for (const size_t length : {10, 250}) {
    Producer producer(name);
    const auto numbered = [&](int i) {
      return std::string(length, 'n').replace(0, 4, std::to_string(1000 + i));
    };
    for (int i = 0; i < 5000; ++i) ASSERT_EQ(pcx_producer_publish(producer.get(), numbered(i).c_str()), 0U);
    for (int i = 0; i < 200; ++i) ASSERT_NE(address(name, numbered(i)), nullptr);
    EXPECT_EQ(address(name, "n"), nullptr);
    ASSERT_EQ(pcx_producer_publish(producer.get(), "n"), 0U);
    EXPECT_NE(address(name, "n"), nullptr) << "nothing is known of a name that was not there";
    ASSERT_EQ(pcx_producer_unpublish(producer.get(), numbered(7).c_str()), 0U);
    EXPECT_TRUE(eventually([&] { return address(name, numbered(7)) == nullptr; }));
    EXPECT_NE(address(name, numbered(4999)), nullptr);
  }
}

// Connections from the pool that died with their producer are replaced without the caller seeing it.
TEST_F(BusProducer, HundredsComeAndGo) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const Registration registration(name, "n", recorder);
  ptrdiff_t before = 0;
  for (int i = 0; i < 500; ++i) {
    Producer producer(name);
    ASSERT_EQ(read(registration.handle, "echo x").answer, "x") << i;
    if (i == 10) before = descriptors();
  }
  EXPECT_LE(descriptors(), before + 4);
}

}  // namespace
}  // namespace bus_test
