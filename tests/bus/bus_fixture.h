// What the bus's tests share: a class of their own, producers here and in child processes, consumers that write
// down what reaches them. Everything goes through the public headers.
#ifndef TESTS_BUS_BUS_FIXTURE_H_
#define TESTS_BUS_BUS_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "es_platform/dsv.h"
#include "es_platform/pcx.h"
#include "es_platform/pcx_producer.h"

namespace bus_test {

constexpr uint32_t kWrite = 6, kSync = 18;
constexpr uint32_t kDeadlineMs = 1000;  // of the tests' process; short, since one test waits for it to pass

// Waits for a condition, for at most ten seconds.
bool eventually(const std::function<bool()>& condition);
uint64_t now_ms();

// A class name no other test uses.
std::string fresh_class();
std::string bus_directory();
uint32_t class_handle(const std::string& class_name);
// The bus address of a published name; null when it has none.
void* address(const std::string& class_name, const std::string& name);

// What a consumer's handler was given. Handlers get the recorder as their context.
class Recorder {
 public:
  static void handle(uint64_t context, uint32_t mtype, void* payload, uint32_t length, void** response,
                     uint32_t* response_length);
  uint64_t context() { return reinterpret_cast<uint64_t>(this); }
  std::vector<std::string> messages();
  bool has(size_t count);
  std::function<void()> during;  // runs in the handler, before the message is written down; may be empty
  std::string response;          // to synchronous requests; empty: none

 private:
  std::mutex mutex_;
  std::vector<std::string> messages_;
};

// A producer in this process. Request "echo X" is answered with X, "fill N C" with N times C, "fail N"
// refused with N. The log begins anew with each producer.
class Producer {
 public:
  using OnRegistered = std::function<uint32_t(const pcx_peer&, const std::string&, uint32_t)>;
  explicit Producer(const std::string& class_name, uint64_t queue_limit = 0, OnRegistered told = {});
  ~Producer() { pcx_producer_close(handle_); }
  pcx_producer* get() { return handle_; }
  uint32_t status() const { return status_; }
  uint32_t push(const std::string& name, const std::string& message);
  bool has_consumers(const std::string& name, uint32_t count);
  static std::vector<std::string> take_log();

  const OnRegistered on_registered;  // runs on the service thread
  std::atomic<int> gone{0};
  std::function<void(const pcx_peer&, const std::string&)> on_read;
  std::function<void(int32_t pid, uint64_t number, std::string_view response)> on_answer;  // to inquiries

 private:
  static uint32_t read(void* user, const pcx_peer* peer, void* request, uint32_t request_length, void* answer,
                       uint32_t capacity, uint32_t* answer_length);
  pcx_producer* handle_ = nullptr;
  uint32_t status_;
};

// A registration, started with the recorder.
struct Registration {
  Registration(const std::string& class_name, const std::string& name, Recorder& recorder);
  ~Registration() { pcx_unregister(handle); }
  void* handle = nullptr;
};

// A child process, killed with the object: "serve" publishes the name "n"; a consumer of that name does "hang"
// or "die" when a message comes.
class Child {
 public:
  Child(const std::string& what, const std::string& class_name);
  ~Child() { kill_now(); }
  void kill_now();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// pcx_read() with strings; capacity is what the caller allows for.
struct Read {
  uint32_t status;
  uint32_t length;  // as pcx_read() left it
  std::string answer;
};
Read read(void* handle, const std::string& request, uint32_t capacity = 1000);

struct Bus : testing::Test {
  const std::string name = fresh_class();
  Recorder recorder;
};

}  // namespace bus_test

#endif  // TESTS_BUS_BUS_FIXTURE_H_
