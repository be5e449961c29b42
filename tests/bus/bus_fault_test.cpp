// What a broken or hostile other end does: scripted peers on raw sockets, on either side. Each fault ends one
// connection with one log line, in time, and costs nobody else anything.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <thread>

#include "bus_fixture.h"

namespace bus_test {
namespace {

// The frame's header as docs/bus.md has it, written down again: the tests must notice when it changes.
struct Header {
  uint16_t magic = 0x4553;
  uint8_t version = 1, kind = 0;
  uint32_t length = 0, word = 0, reserved = 0;
  uint64_t tag = 0, order = 0;
};
enum : uint8_t {
  kHello = 1,
  kReadKind,
  kLookup,
  kPing,
  kAnswer,
  kSubscribe,
  kUnsubscribe,
  kMark,
  kPush,
  kSyncKind
};

std::string frame(const Header& header, const std::string& payload = "") {
  return std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
}

std::string hello(uint32_t role) {
  const uint64_t token = 4711;
  const uint32_t words[] = {role, 0};
  return frame({.kind = kHello, .length = 16}, std::string(reinterpret_cast<const char*>(&token), 8) +
                                                   std::string(reinterpret_cast<const char*>(words), 8));
}

sockaddr_un address_of(const std::string& class_name) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  strcpy(name.sun_path, (bus_directory() + "/" + class_name + ".sock").c_str());
  return name;
}

bool send_all(int fd, const std::string& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// Receives at least one whole frame's header; false at the end of the stream.
bool receive_header(int fd, Header* header) {
  return recv(fd, header, sizeof *header, MSG_WAITALL) == static_cast<ssize_t>(sizeof *header);
}

// A raw consumer.
class RawConsumer {
 public:
  explicit RawConsumer(const std::string& class_name) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un name = address_of(class_name);
    EXPECT_EQ(connect(fd_, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0) << strerror(errno);
  }
  ~RawConsumer() { close(fd_); }
  int fd() const { return fd_; }
  bool ended() const {
    pollfd wait = {fd_, POLLIN, 0};
    char byte;
    return poll(&wait, 1, 5000) == 1 && recv(fd_, &byte, 1, MSG_DONTWAIT) <= 0;
  }

 private:
  int fd_;
};

// A raw producer: accepts, and does with each connection, on a thread of its own, what the script says; the
// connection ends with the script.
class RawProducer {
 public:
  RawProducer(const std::string& class_name, std::function<void(int fd)> script)
      : script_(std::move(script)), listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_un name = address_of(class_name);
    mkdir(bus_directory().c_str(), 0750);
    unlink(name.sun_path);
    EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0) << strerror(errno);
    EXPECT_EQ(listen(listener_, 16), 0);
    thread_ = std::thread([this] { accept_all(); });
  }
  ~RawProducer() {
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
  }
  std::atomic<int> accepted{0};

 private:
  void accept_all() {
    std::vector<std::thread> connections;
    for (int fd; (fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      ++accepted;
      connections.emplace_back([this, fd] {
        script_(fd);
        close(fd);
      });
    }
    for (std::thread& connection : connections) connection.join();
  }
  const std::function<void(int)> script_;
  const int listener_;
  std::thread thread_;
};

// Skips a request connection's hello and reads the request's header and its payload.
bool receive_request(int fd, Header* header) {
  Header first;
  char payload[64];
  if (!receive_header(fd, &first) || recv(fd, payload, 16, MSG_WAITALL) != 16) return false;
  if (payload[8] != 1 || !receive_header(fd, header)) return false;
  const size_t padded = (header->length + 7) & ~7U;
  return padded == 0 || recv(fd, payload, padded, MSG_WAITALL) == static_cast<ssize_t>(padded);
}

// Everything that log_line() says while the object lives.
class ErrorOutput {
 public:
  ErrorOutput() : kept_(dup(STDERR_FILENO)), file_(tmpfile()) { dup2(fileno(file_), STDERR_FILENO); }
  ~ErrorOutput() {
    dup2(kept_, STDERR_FILENO);
    close(kept_);
    fclose(file_);
  }
  std::string text() const {
    std::string all(4096, '\0');
    all.resize(static_cast<size_t>(pread(fileno(file_), all.data(), all.size(), 0)));
    return all;
  }

 private:
  int kept_;
  FILE* file_;
};

struct Fault {
  const char* what;
  Header header;
  const char* logged;  // part of the log line; null: none
};

TEST(BusFaults, ProducerGetsMalformedFrames) {
  const std::string name = fresh_class();
  Producer producer(name);
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(producer.has_consumers("n", 1));
  const Fault requests[] = {
      {"magic", {.magic = 0x4544, .kind = kPing}, "no frame"},
      {"version", {.version = 2, .kind = kPing}, "version"},
      {"unknown kind", {.kind = 31}, "kind"},
      {"kind past the set", {.kind = 200}, "kind"},
      {"second hello", {.kind = kHello, .length = 16}, "kind"},
      {"event on a request connection", {.kind = kSubscribe, .length = 1}, "kind"},
      {"answer", {.kind = kAnswer}, "kind"},
      {"reserved", {.kind = kPing, .reserved = 1}, "reserved"},
      {"ping with bytes", {.kind = kPing, .length = 1}, "longer"},
      {"long name", {.kind = kLookup, .length = 256}, "longer"},
      {"huge request", {.kind = kReadKind, .length = 0xffffffff, .word = 1}, "longer"},
  };
  const Fault events[] = {
      {"request on an event connection", {.kind = kReadKind}, "kind"},
      {"nameless", {.kind = kSubscribe}, "without a name"},
      {"mark with bytes", {.kind = kMark, .length = 8}, "longer"},
  };
  const auto try_all = [&](const Fault* faults, size_t count, uint32_t role) {
    for (size_t i = 0; i < count; ++i) {
      Producer::clear_log();
      const RawConsumer peer(name);
      ASSERT_TRUE(send_all(peer.fd(), hello(role) + frame(faults[i].header)));
      EXPECT_TRUE(peer.ended()) << faults[i].what;
      ASSERT_EQ(Producer::log_lines().size(), 1U) << faults[i].what;
      EXPECT_NE(Producer::log_lines()[0].find(faults[i].logged), std::string::npos)
          << Producer::log_lines()[0];
    }
  };
  try_all(requests, std::size(requests), 1);
  try_all(events, std::size(events), 2);
  Producer::clear_log();
  for (const std::string& start : {hello(3), hello(0), frame({.kind = kPing}), std::string(64, 'G')}) {
    const RawConsumer peer(name);
    ASSERT_TRUE(send_all(peer.fd(), start));
    EXPECT_TRUE(peer.ended());
  }
  EXPECT_EQ(Producer::log_lines().size(), 4U);
  EXPECT_EQ(read(registration.handle, "echo alive").answer, "alive");
  EXPECT_EQ(producer.push("n", "x"), 1U);
}

// A consumer that goes away at any byte of what it sends leaves nothing behind, and no log line either.
TEST(BusFaults, ConsumerDiesAtEveryByte) {
  Producer::clear_log();
  const std::string name = fresh_class();
  Producer producer(name);
  const std::string request =
      hello(1) + frame({.kind = kReadKind, .length = 8, .word = 100, .tag = 1}, "echo xyz");
  const std::string events =
      hello(2) + frame({.kind = kSubscribe, .length = 8, .tag = 9, .order = 1}, "nnnnnnnn");
  for (const std::string& all : {request, events}) {
    for (size_t cut = 0; cut <= all.size(); ++cut) {
      const RawConsumer peer(name);
      ASSERT_TRUE(send_all(peer.fd(), all.substr(0, cut)));
    }
  }
  EXPECT_TRUE(eventually([&] { return pcx_producer_consumers(producer.get(), nullptr) == 0; }));
  EXPECT_TRUE(producer.has_consumers("nnnnnnnn", 0));
  EXPECT_TRUE(Producer::log_lines().empty());
  // Byte by byte it is the same conversation.
  const RawConsumer peer(name);
  for (const char byte : request) ASSERT_TRUE(send_all(peer.fd(), std::string(1, byte)));
  Header answer;
  ASSERT_TRUE(receive_header(peer.fd(), &answer));
  EXPECT_EQ(answer.kind, kAnswer);
  EXPECT_EQ(answer.length, 3U);
}

// A consumer that asks without ever reading holds up nobody, nor does one whose read waits for a registration
// that never comes.
TEST(BusFaults, ConsumersThatDoNotListen) {
  const std::string name = fresh_class();
  Producer producer(name);
  const RawConsumer deaf(name), waiting(name);
  const std::string ask = frame({.kind = kReadKind, .length = 16, .word = 9000000}, "fill 9000000 q\0\0");
  ASSERT_TRUE(send_all(deaf.fd(), hello(1) + ask + ask));
  ASSERT_TRUE(send_all(
      waiting.fd(), hello(1) + frame({.kind = kReadKind, .length = 8, .word = 9, .order = 5}, "echo xyz")));
  Recorder recorder;
  const Registration registration(name, "n", recorder);
  EXPECT_EQ(read(registration.handle, "echo alive").answer, "alive");
  pollfd nothing = {waiting.fd(), POLLIN, 0};
  EXPECT_EQ(poll(&nothing, 1, 0), 0);
  // The change that it waits for, on the same process's event connection.
  const RawConsumer events(name);
  ASSERT_TRUE(send_all(events.fd(), hello(2) + frame({.kind = kMark, .order = 5})));
  Header answer;
  ASSERT_TRUE(receive_header(waiting.fd(), &answer));
  EXPECT_EQ(answer.length, 3U);
}

TEST(BusFaults, ConsumerGetsMalformedAnswers) {
  const Fault faults[] = {
      {"magic", {.magic = 0, .kind = kAnswer}, "no frame"},
      {"version", {.version = 9, .kind = kAnswer}, "version"},
      {"a push", {.kind = kPush}, "kind"},
      {"too long for the caller", {.kind = kAnswer, .length = 1001}, "longer"},
      {"too long for anybody", {.kind = kAnswer, .length = 0xffffffff}, "longer"},
      {"refusal with bytes", {.kind = kAnswer, .length = 4, .word = 5}, "refusal"},
      {"another's answer", {.kind = kAnswer, .tag = 77777}, "another"},
  };
  for (const Fault& fault : faults) {
    const std::string name = fresh_class();
    void* handle = nullptr;
    ASSERT_EQ(dsv_register(class_handle(name), "n", &handle), 0U);
    const ErrorOutput output;
    RawProducer producer(name, [&](int fd) {
      Header request;
      if (!receive_request(fd, &request)) return;
      Header answer = fault.header;
      if (answer.tag == 0) answer.tag = request.tag;
      send_all(fd, frame(answer, "more bytes than that"));
    });
    const Read got = read(handle, "r");
    EXPECT_EQ(got.status, 3U) << fault.what;
    EXPECT_EQ(got.length, 1000U) << fault.what;
    const std::string text = output.text();
    EXPECT_NE(text.find(fault.logged), std::string::npos) << fault.what << ": " << text;
    EXPECT_EQ(text.find('\n'), text.size() - 1) << text;
    pcx_unregister(handle);
  }
}

TEST(BusFaults, AnswerCutAtEveryByte) {
  const std::string name = fresh_class();
  void* handle = nullptr;
  ASSERT_EQ(dsv_register(class_handle(name), "n", &handle), 0U);
  std::atomic<size_t> cut{0};
  RawProducer producer(name, [&](int fd) {
    Header request;
    if (!receive_request(fd, &request)) return;
    const std::string answer =
        frame({.kind = kAnswer, .length = 40, .tag = request.tag}, std::string(40, 'a'));
    send_all(fd, answer.substr(0, cut));
  });
  for (cut = 0; cut < 72; ++cut) {
    const Read got = read(handle, "r");
    ASSERT_EQ(got.status, 3U) << cut;
    ASSERT_EQ(got.length, 1000U) << cut;
  }
  EXPECT_EQ(producer.accepted, 72);  // a request that may have been served is not sent twice
  EXPECT_EQ(read(handle, "r").answer, std::string(40, 'a'));
  pcx_unregister(handle);
}

// Never answers, answers drop by drop, answers too late: 62 at the deadline, and the late bytes reach no
// later request.
TEST(BusFaults, DeadlineIsKept) {
  const std::string name = fresh_class();
  Recorder recorder;
  void* handle = nullptr;
  ASSERT_EQ(dsv_register(class_handle(name), "n", &handle), 0U);
  std::atomic<int> mode{0};
  std::atomic<bool> over{false};
  RawProducer producer(name, [&](int fd) {
    Header request;
    if (!receive_request(fd, &request)) return;
    const std::string answer =
        frame({.kind = kAnswer, .length = 900, .tag = request.tag}, std::string(900, 'a'));
    for (size_t i = 0; mode == 1 && i < answer.size() && send_all(fd, answer.substr(i, 1)); ++i)
      usleep(10000);
    while (mode == 0 && !over) usleep(1000);
    if (mode == 2) send_all(fd, answer);
  });
  for (mode = 0; mode < 2; ++mode) {
    const uint64_t start = now_ms();
    EXPECT_EQ(read(handle, "r").status, 62U);
    const uint64_t took = now_ms() - start;
    EXPECT_GE(took, kDeadlineMs - 1);
    EXPECT_LT(took, kDeadlineMs + 300);
    void* data = nullptr;
    if (mode == 0) {
      EXPECT_EQ(pcx_query_producer(handle), 62U);
      EXPECT_EQ(dsv_lookup_data(class_handle(name), "n", &data), 62U);
    }
  }
  EXPECT_EQ(read(handle, "r").answer, std::string(900, 'a'));
  over = true;
  pcx_unregister(handle);
}

// Malformed events end the event connection with one line; the consumer comes back and registers again.
TEST(BusFaults, ConsumerGetsMalformedEvents) {
  const std::string name = fresh_class();
  const std::string bad[] = {std::string(40, 'G'), frame({.kind = kAnswer}),
                             frame({.kind = kPush, .length = 0x10000000, .word = 6}),
                             frame({.kind = kPush, .reserved = 7})};
  const ErrorOutput output;
  Recorder recorder;
  std::atomic<size_t> next{0};
  {
    RawProducer producer(name, [&](int fd) {
      Header header, subscription;
      char payload[16];
      if (!receive_header(fd, &header) || recv(fd, payload, 16, MSG_WAITALL) != 16) return;
      if (!receive_header(fd, &subscription) || recv(fd, payload, 8, MSG_WAITALL) != 8) return;
      const std::string good = frame({.kind = kPush, .length = 1, .word = 6, .tag = subscription.tag},
                                     std::string("m\0\0\0\0\0\0\0", 8));
      const std::string stray = frame({.kind = kPush, .word = 6, .tag = 12345678});
      const size_t mine = next++;
      send_all(fd, good + stray + (mine < std::size(bad) ? bad[mine] : good));
      if (mine >= std::size(bad)) recv(fd, payload, 1, 0);
    });
    const Registration registration(name, "n", recorder);
    EXPECT_TRUE(eventually([&] { return recorder.count() == std::size(bad) + 2; })) << recorder.count();
    // The scripts end when the consumer's connection does; it does with the producer's end of it.
    next = 1000;
  }
  const std::string text = output.text();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<ptrdiff_t>(std::size(bad))) << text;
}

TEST(BusFaults, StaleSocketIsReplaced) {
  const std::string name = fresh_class();
  {
    RawProducer dead(name, [](int) {});
  }
  Producer producer(name);
  ASSERT_EQ(producer.status(), 0U) << pcx_producer_error();
  EXPECT_EQ(pcx_producer_publish(producer.get(), "n"), 0U);
  EXPECT_NE(address(name, "n"), nullptr);
}

// The producer is there and accepts nobody: what fits into its queue gets no answer, the next one is told
// that it is busy.
TEST(BusFaults, FullListenerIsBusy) {
  const std::string name = fresh_class();
  mkdir(bus_directory().c_str(), 0750);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = address_of(name);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 0), 0);
  void* data = nullptr;
  EXPECT_EQ(dsv_lookup_data(class_handle(name), "n", &data), 62U);
  const uint64_t start = now_ms();
  EXPECT_EQ(dsv_lookup_data(class_handle(name), "n", &data), 11U);
  EXPECT_LT(now_ms() - start, kDeadlineMs + 300);
  close(listener);
}

// Runs as another user in a process of its own.
template <typename Body>
pid_t as_nobody(Body body) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
  body();
  _exit(0);
}

TEST(BusFaults, OtherUsersAreRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to be root, to be somebody else too";
  const std::string served = fresh_class(), planted = fresh_class();
  Producer producer(served);
  chmod(std::filesystem::path(bus_directory()).parent_path().c_str(), 0755);
  chmod(bus_directory().c_str(), 0777);
  chmod(address_of(served).sun_path, 0666);
  Producer::clear_log();
  const sockaddr_un to_served = address_of(served), to_planted = address_of(planted);
  const pid_t consumer = as_nobody([&] {
    for (int i = 0; i < 3; ++i) {
      const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
      if (connect(fd, reinterpret_cast<const sockaddr*>(&to_served), sizeof to_served) != 0) _exit(3);
      char byte;
      if (recv(fd, &byte, 1, 0) > 0) _exit(4);
    }
  });
  int how = -1;
  waitpid(consumer, &how, 0);
  EXPECT_EQ(how, 0);
  ASSERT_EQ(Producer::log_lines().size(), 1U);
  EXPECT_NE(Producer::log_lines()[0].find("user 65534 refused"), std::string::npos)
      << Producer::log_lines()[0];

  const pid_t impostor = as_nobody([&] {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&to_planted), sizeof to_planted) == 0 &&
        listen(fd, 9) == 0)
      pause();
  });
  const auto connects = [&] {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int result = connect(fd, reinterpret_cast<const sockaddr*>(&to_planted), sizeof to_planted);
    close(fd);
    return result == 0;
  };
  ASSERT_TRUE(eventually(connects));
  const ErrorOutput output;
  EXPECT_EQ(address(planted, "n"), nullptr);
  EXPECT_EQ(address(planted, "n"), nullptr);
  const std::string text = output.text();
  EXPECT_NE(text.find("Operation not permitted"), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  kill(impostor, SIGKILL);
  waitpid(impostor, nullptr, 0);
  chmod(bus_directory().c_str(), 0750);
}

// In a process of its own, since the environment is read once.
TEST(BusSettings, MalformedValuesAreNamedAndNotUsed) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto read_settings = [] {
    setenv("ES_PCX_OPTIMUM_SIZE", "159", 1);
    setenv("ES_PCX_DEADLINE_MS", "soon", 1);
    const uint32_t size = pcx_get_optimum_msg_size(class_handle(fresh_class()));
    std::filesystem::remove_all(std::filesystem::path(bus_directory()).parent_path());
    exit(size >= 65536 ? 0 : 1);
  };
  EXPECT_EXIT(
      read_settings(), testing::ExitedWithCode(0),
      "ES_PCX_DEADLINE_MS: \"soon\" .* 1 to 3600000.*\n.*ES_PCX_OPTIMUM_SIZE: \"159\" .* 160 to 16777216");
}

}  // namespace
}  // namespace bus_test
