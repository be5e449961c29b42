#include "bus_fixture.h"

#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

namespace bus_test {

namespace {

std::string directory;
std::mutex log_mutex;
std::vector<std::string> log_text;

void keep_log_line(const char* line) {
  std::lock_guard lock(log_mutex);
  log_text.emplace_back(line);
}

void serve_until_killed(const std::string& class_name, const std::string& name) {
  Producer producer(class_name);
  if (producer.status() != 0) _exit(1);
  pcx_producer_publish(producer.get(), name.c_str());
  for (;;) pause();
}

// A consumer of the name "n" that does what it is told when a message comes.
void consume_until_killed(const std::string& class_name, const std::string& what) {
  Recorder recorder;
  recorder.during = [&](uint32_t, const std::string&) {
    if (what == "die") raise(SIGKILL);
    if (what == "hang") {
      for (;;) pause();
    }
  };
  Registration registration(class_name, "n", recorder);
  for (;;) pause();
}

// The first thing that runs: a child process turns to its role here and never comes back.
class BusEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    if (const char* role = getenv("BUS_TEST_ROLE")) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      freopen("/dev/null", "w", stdout);
      directory = getenv("ES_PCX_DIR");
      const std::string class_name = getenv("BUS_TEST_CLASS"), argument = getenv("BUS_TEST_ARGUMENT");
      if (strcmp(role, "producer") == 0) serve_until_killed(class_name, argument);
      consume_until_killed(class_name, argument);
    }
    char name[] = "/tmp/bus-test-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    directory = std::string(name) + "/bus";
    setenv("ES_PCX_DIR", directory.c_str(), 1);
    setenv("ES_PCX_DEADLINE_MS", std::to_string(kDeadlineMs).c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(std::filesystem::path(directory).parent_path()); }
};

[[maybe_unused]] testing::Environment* const environment =
    testing::AddGlobalTestEnvironment(new BusEnvironment);

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
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

size_t open_descriptors() {
  size_t count = 0;
  DIR* entries = opendir("/proc/self/fd");
  while (readdir(entries) != nullptr) ++count;
  closedir(entries);
  return count;
}

std::string fresh_class() {
  static std::atomic<int> number{0};
  return "CLASS_" + std::to_string(++number);
}

std::string bus_directory() { return directory; }

uint32_t class_handle(const std::string& class_name) {
  uint32_t handle = 0;
  EXPECT_EQ(dsv_create_class(class_name.c_str(), 0, 1, &handle), 0U);
  return handle;
}

void Recorder::handle(uint64_t context, uint32_t mtype, void* payload, uint32_t length, void** response,
                      uint32_t* response_length) {
  auto* self = reinterpret_cast<Recorder*>(context);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(payload) % 8, 0U);
  EXPECT_EQ(payload == nullptr, length == 0);
  const std::string message(static_cast<const char*>(payload), length);
  if (length != 0) memset(payload, 'x', length);  // the handler may write to it
  if (self->during) self->during(mtype, message);
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

Producer::Producer(const std::string& class_name, uint64_t queue_limit) {
  static constexpr pcx_producer_ops ops = {
      read, [](void* user, const pcx_peer*) { ++static_cast<Producer*>(user)->gone; }};
  const pcx_producer_options options = {queue_limit, keep_log_line};
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

uint32_t Producer::read(void* user, const pcx_peer* peer, void* request, uint32_t request_length,
                        void* answer, uint32_t capacity, uint32_t* answer_length) {
  auto* self = static_cast<Producer*>(user);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(request) % 8, 0U);
  const std::string text(static_cast<const char*>(request), request_length);
  if (self->on_read) self->on_read(*peer, text);
  std::string out = text.substr(0, 5) == "echo " ? text.substr(5) : "";
  uint32_t number = 0;
  char fill = 0;
  if (sscanf(text.c_str(), "fail %u", &number) == 1) return number;
  if (sscanf(text.c_str(), "fill %u %c", &number, &fill) == 2) out.assign(number, fill);
  *answer_length = static_cast<uint32_t>(out.size());
  if (out.size() <= capacity && !out.empty()) memcpy(answer, out.data(), out.size());
  return 0;
}

std::vector<std::string> Producer::log_lines() {
  std::lock_guard lock(log_mutex);
  return log_text;
}

void Producer::clear_log() {
  std::lock_guard lock(log_mutex);
  log_text.clear();
}

Registration::Registration(const std::string& class_name, const std::string& name, Recorder& recorder) {
  EXPECT_EQ(dsv_register(class_handle(class_name), name.c_str(), &handle), 0U);
  EXPECT_EQ(pcx_register(handle, 0, recorder.context(), Recorder::handle), 0U);
}

Child::Child(const std::string& role, const std::string& class_name, const std::string& argument) {
  const std::string variables[] = {"BUS_TEST_ROLE=" + role, "BUS_TEST_CLASS=" + class_name,
                                   "BUS_TEST_ARGUMENT=" + argument, "ES_PCX_DIR=" + directory};
  std::vector<char*> environment_of_child;
  for (char** one = environ; *one != nullptr; ++one) {
    if (strncmp(*one, "ES_PCX_DIR=", 11) != 0) environment_of_child.push_back(*one);
  }
  for (const std::string& one : variables) environment_of_child.push_back(const_cast<char*>(one.c_str()));
  environment_of_child.push_back(nullptr);
  char program[] = "/proc/self/exe";
  char* const arguments[] = {program, nullptr};
  pid_ = fork();
  if (pid_ == 0) {
    execve(program, arguments, environment_of_child.data());
    _exit(127);
  }
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

void* address(const std::string& class_name, const std::string& name) {
  void* data = nullptr;
  dsv_lookup_data(class_handle(class_name), name.c_str(), &data);
  return data;
}

}  // namespace bus_test
