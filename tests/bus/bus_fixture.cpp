#include "bus_fixture.h"

#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <utility>

namespace bus_test {

namespace {

std::mutex log_mutex;
std::vector<std::string> log_lines;

void keep_log_line(const char* line) {
  std::lock_guard lock(log_mutex);
  log_lines.emplace_back(line);
}

[[noreturn]] void serve(const std::string& class_name) {
  Producer producer(class_name);
  pcx_producer_publish(producer.get(), "n");
  for (;;) pause();
}

[[noreturn]] void consume(const std::string& class_name, bool dies) {
  Recorder recorder;
  recorder.during = [&] {
    if (dies) raise(SIGKILL);
    for (;;) pause();
  };
  const Registration registration(class_name, "n", recorder);
  for (;;) pause();
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
  const uint64_t limit = now_ms() + 10000;
  while (!condition()) {
    if (now_ms() > limit) return false;
    usleep(500);
  }
  return true;
}

uint64_t now_ms() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

std::string fresh_class() {
  static std::atomic<int> number{0};
  return "CLASS_" + std::to_string(++number);
}

std::string bus_directory() { return getenv("ES_PCX_DIR"); }

uint32_t class_handle(const std::string& class_name) {
  uint32_t handle = 0;
  EXPECT_EQ(dsv_create_class(class_name.c_str(), 0, 1, &handle), 0U);
  return handle;
}

void* address(const std::string& class_name, const std::string& name) {
  void* data = nullptr;
  dsv_lookup_data(class_handle(class_name), name.c_str(), &data);
  return data;
}

void Recorder::handle(uint64_t context, uint32_t mtype, void* payload, uint32_t length, void** response,
                      uint32_t* response_length) {
  auto* self = reinterpret_cast<Recorder*>(context);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(payload) % 8, 0U);
  EXPECT_EQ(payload == nullptr, length == 0);
  const std::string message(static_cast<const char*>(payload), length);
  if (length != 0) memset(payload, 'x', length);  // the handler may write to it
  if (self->during) self->during();
  if (mtype == kSync && !self->response.empty()) {
    *response = malloc(self->response.size());
    memcpy(*response, self->response.data(), self->response.size());
    *response_length = static_cast<uint32_t>(self->response.size());
  }
  std::lock_guard lock(self->mutex_);
  self->messages_.push_back(message);
}

std::vector<std::string> Recorder::messages() {
  std::lock_guard lock(mutex_);
  return messages_;
}

bool Recorder::has(size_t count) {
  return eventually([&] { return messages().size() >= count; }) && messages().size() == count;
}

Producer::Producer(const std::string& class_name, uint64_t queue_limit, OnRegistered told)
    : on_registered(std::move(told)) {
  static constexpr pcx_producer_ops ops = {
      read, [](void* user, const pcx_peer*) { ++static_cast<Producer*>(user)->gone; },
      [](void* user, const pcx_peer* peer, const char* name, uint32_t renewed) {
        const auto& tell = static_cast<Producer*>(user)->on_registered;
        return tell ? tell(*peer, name, renewed) : 0;
      },
      [](void* user, const pcx_peer* peer, uint64_t number, const void* response, uint32_t length) {
        const auto& tell = static_cast<Producer*>(user)->on_answer;
        if (tell) tell(peer->pid, number, {static_cast<const char*>(response), length});
      }};
  const pcx_producer_options options = {queue_limit, keep_log_line};
  take_log();
  status_ = pcx_producer_open(class_name.c_str(), &ops, this, &options, &handle_);
}

uint32_t Producer::push(const std::string& name, const std::string& message) {
  uint32_t reached = 0;
  const auto length = static_cast<uint32_t>(message.size());
  EXPECT_EQ(pcx_producer_push(handle_, kWrite, name.c_str(), message.data(), length, &reached), 0U);
  return reached;
}

bool Producer::has_consumers(const std::string& name, uint32_t count) {
  return eventually([&] { return pcx_producer_consumers(handle_, name.c_str()) == count; });
}

std::vector<std::string> Producer::take_log() {
  std::lock_guard lock(log_mutex);
  return std::exchange(log_lines, {});
}

uint32_t Producer::read(void* user, const pcx_peer* peer, void* request, uint32_t request_length,
                        void* answer, uint32_t capacity, uint32_t* answer_length) {
  auto* self = static_cast<Producer*>(user);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(request) % 8, 0U);
  const std::string text(static_cast<const char*>(request), request_length);
  if (self->on_read) self->on_read(*peer, text);
  std::string out = text.starts_with("echo ") ? text.substr(5) : "";
  uint32_t number = 0;
  char fill = 0;
  if (sscanf(text.c_str(), "fail %u", &number) == 1) return number;
  if (sscanf(text.c_str(), "fill %u %c", &number, &fill) == 2) out.assign(number, fill);
  *answer_length = static_cast<uint32_t>(out.size());
  if (out.size() <= capacity && !out.empty()) memcpy(answer, out.data(), out.size());
  return 0;
}

Registration::Registration(const std::string& class_name, const std::string& name, Recorder& recorder) {
  EXPECT_EQ(dsv_register(class_handle(class_name), name.c_str(), &handle), 0U);
  EXPECT_EQ(pcx_register(handle, 0, recorder.context(), Recorder::handle), 0U);
}

// It starts from this program's image anew: a bus in use does not survive a fork.
Child::Child(const std::string& what, const std::string& class_name) {
  const char* const arguments[] = {"bus_test", "child", what.c_str(), class_name.c_str(), nullptr};
  EXPECT_EQ(posix_spawn(&pid_, "/proc/self/exe", nullptr, nullptr, const_cast<char**>(arguments), environ),
            0);
}

void Child::kill_now() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

Read read(void* handle, const std::string& request, uint32_t capacity) {
  // Exactly as large as is said, so that AddressSanitizer sees a byte too many.
  std::vector<char> buffer(capacity);
  Read result{0, capacity, ""};
  result.status =
      pcx_read(handle, request.data(), static_cast<uint32_t>(request.size()), buffer.data(), &result.length);
  if (result.status == 0) result.answer.assign(buffer.data(), result.length);
  return result;
}

}  // namespace bus_test

int main(int argc, char** argv) {
  if (argc == 4 && strcmp(argv[1], "child") == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (strcmp(argv[2], "serve") == 0) bus_test::serve(argv[3]);
    bus_test::consume(argv[3], strcmp(argv[2], "die") == 0);
  }
  testing::InitGoogleTest(&argc, argv);
  char directory[] = "/tmp/bus-test-XXXXXX";
  if (mkdtemp(directory) == nullptr) return 1;
  setenv("ES_PCX_DIR", (std::string(directory) + "/bus").c_str(), 1);
  setenv("ES_PCX_DEADLINE_MS", std::to_string(bus_test::kDeadlineMs).c_str(), 1);
  setenv("ES_PCX_BEAT_MS", "60000", 1);  // no test waits for one unknowingly
  const int result = RUN_ALL_TESTS();
  std::filesystem::remove_all(directory);
  return result;
}
