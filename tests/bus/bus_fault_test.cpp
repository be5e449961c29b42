// What a broken or hostile other end does: scripted peers on raw sockets, on either side. Each fault ends one
// connection with one log line, in time, and costs nobody else anything.
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
#include <future>
#include <thread>

#include "bus_fixture.h"

namespace bus_test {
namespace {

using BusFaults = Bus;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// The frame's header as docs/bus.md has it, written down again: the tests must notice when it changes.
struct Header {
  uint16_t magic = 0x4553;
  uint8_t version = 1, kind = 0;
  uint32_t length = 0, word = 0, reserved = 0;
  uint64_t tag = 0, order = 0;
};
enum : uint8_t { kHello = 1, kReadKind, kLookup, kPing, kAnswer, kSubscribe, kUnsubscribe, kMark, kPush };

std::string frame(const Header& header, const std::string& payload = "") {
  return std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
}

std::string hello(char role) {
  return frame({.kind = kHello, .length = 16}, std::string("4711....") + role + std::string(7, '\0'));
}
const std::string kRequests = hello(1), kEvents = hello(2);

sockaddr_un address_of(const std::string& class_name) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  strcpy(name.sun_path, (bus_directory() + "/" + class_name + ".sock").c_str());
  return name;
}

bool send_all(int fd, const std::string& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// Payloads are padded to 8 bytes, but for those of answers.
bool receive(int fd, Header* header, std::string* payload) {
  if (recv(fd, header, sizeof *header, MSG_WAITALL) != static_cast<ssize_t>(sizeof *header)) return false;
  payload->resize(header->kind == kAnswer ? header->length : (header->length + 7) & ~7U);
  const auto whole = static_cast<ssize_t>(payload->size());
  if (whole != 0 && recv(fd, payload->data(), payload->size(), MSG_WAITALL) != whole) return false;
  payload->resize(header->length);
  return true;
}

struct Socket {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ~Socket() { close(fd); }
  bool connects(const std::string& class_name) const {
    const sockaddr_un name = address_of(class_name);
    return connect(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
  }
  bool listens(const std::string& class_name, int backlog) const {
    const sockaddr_un name = address_of(class_name);
    mkdir(bus_directory().c_str(), 0750);
    return bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0 && listen(fd, backlog) == 0;
  }
};

struct RawConsumer : Socket {
  RawConsumer(const std::string& class_name, const std::string& bytes) {
    EXPECT_TRUE(connects(class_name));
    EXPECT_TRUE(send_all(fd, bytes));
  }
  bool ended() const {
    pollfd wait = {fd, POLLIN, 0};
    char beats[1000];
    while (poll(&wait, 1, 5000) == 1)
      if (recv(fd, beats, sizeof beats, MSG_DONTWAIT) <= 0) return true;
    return false;
  }
  uint32_t answer_length() const {
    Header answer;
    std::string payload;
    return receive(fd, &answer, &payload) && answer.kind == kAnswer ? answer.length : UINT32_MAX;
  }
};

// Does with each connection, on a thread of its own, what the script says to its first frame behind the hello;
// the connection ends with the script.
class RawProducer {
 public:
  using Script = std::function<void(int fd, const Header& first, const std::string& payload)>;
  RawProducer(const std::string& class_name, Script script) : script_(std::move(script)) {
    EXPECT_TRUE(listener_.listens(class_name, 16));
    thread_ = std::thread([this] { accept_all(); });
  }
  ~RawProducer() {
    shutdown(listener_.fd, SHUT_RDWR);
    thread_.join();
  }
  std::atomic<int> accepted{0};

 private:
  void accept_all() {
    std::vector<std::thread> connections;
    for (int fd; (fd = accept4(listener_.fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      ++accepted;
      connections.emplace_back([this, fd] { serve(fd); });
    }
    for (std::thread& connection : connections) connection.join();
  }
  void serve(int fd) {
    Header opening, first;
    std::string payload;
    if (receive(fd, &opening, &payload) && receive(fd, &first, &payload)) script_(fd, first, payload);
    close(fd);
  }
  const Script script_;
  const Socket listener_;
  std::thread thread_;
};

TEST_F(BusFaults, ProducerGetsMalformedFrames) {
  Producer producer(name);
  const Registration registration(name, "n", recorder);
  ASSERT_TRUE(producer.has_consumers("n", 1));
  const std::pair<std::string, const char*> faults[] = {
      {kRequests + frame({.magic = 0x4544, .kind = kPing}), "no frame"},
      {kRequests + frame({.version = 2, .kind = kPing}), "version"},
      {kRequests + frame({.kind = 31}), "kind"},
      {kRequests + frame({.kind = 200}), "kind"},
      {kRequests + kRequests, "kind"},
      {kRequests + frame({.kind = kSubscribe, .length = 1}), "kind"},
      {kRequests + frame({.kind = kPing, .reserved = 1}), "reserved"},
      {kRequests + frame({.kind = kPing, .length = 1}), "longer"},
      {kRequests + frame({.kind = kLookup, .length = 256}), "longer"},
      {kRequests + frame({.kind = kReadKind, .length = 0xffffffff, .word = 1}), "longer"},
      {kEvents + frame({.kind = kReadKind}), "kind"},
      {kEvents + frame({.kind = kSubscribe}), "without a name"},
      {kEvents + frame({.kind = kSubscribe, .length = 1, .word = 2}, "n.......").substr(0, 40), "renewed"},
      {kEvents + frame({.kind = kMark, .length = 8}), "longer"},
      {hello(0), ""},
      {hello(3), ""},
      {frame({.kind = kPing}), "kind"},
  };
  for (const auto& [bytes, logged] : faults) {
    SCOPED_TRACE(logged);
    EXPECT_TRUE(RawConsumer(name, bytes).ended());
    const auto log = Producer::take_log();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_NE(log[0].find(logged), std::string::npos) << log[0];
  }
  EXPECT_EQ(read(registration.handle, "echo alive").answer, "alive");
  EXPECT_EQ(producer.push("n", "x"), 1U);
}

// A consumer that goes away at any byte of what it sends leaves nothing behind, and no log line either.
TEST_F(BusFaults, ConsumerDiesAtEveryByte) {
  Producer producer(name);
  const std::string request =
      kRequests + frame({.kind = kReadKind, .length = 8, .word = 100, .tag = 1}, "echo xyz");
  const std::string events =
      kEvents + frame({.kind = kSubscribe, .length = 8, .tag = 9, .order = 1}, "nnnnnnnn");
  for (const std::string& all : {request, events}) {
    for (size_t cut = 0; cut <= all.size(); ++cut) RawConsumer(name, all.substr(0, cut));
  }
  EXPECT_TRUE(eventually([&] { return pcx_producer_consumers(producer.get(), nullptr) == 0; }));
  EXPECT_TRUE(producer.has_consumers("nnnnnnnn", 0));
  EXPECT_TRUE(Producer::take_log().empty());
  // Byte by byte it is the same conversation.
  const RawConsumer slow(name, "");
  for (const char byte : request) ASSERT_TRUE(send_all(slow.fd, std::string(1, byte)));
  EXPECT_EQ(slow.answer_length(), 3U);
}

// A consumer that asks without ever reading holds up nobody, nor does one whose read waits for a registration
// that has not come yet.
TEST_F(BusFaults, ConsumersThatDoNotListen) {
  Producer producer(name);
  const std::string ask = frame({.kind = kReadKind, .length = 16, .word = 9000000}, "fill 9000000 q..");
  const RawConsumer deaf(name, kRequests + ask + ask);
  const RawConsumer parked(
      name, kRequests + frame({.kind = kReadKind, .length = 8, .word = 9, .order = 5}, "echo xyz"));
  const Registration registration(name, "n", recorder);
  EXPECT_EQ(read(registration.handle, "echo alive").answer, "alive");
  pollfd nothing = {parked.fd, POLLIN, 0};
  EXPECT_EQ(poll(&nothing, 1, 0), 0);
  // The change that it waits for, on the same process's event connection.
  const RawConsumer events(name, kEvents + frame({.kind = kMark, .order = 5}));
  EXPECT_EQ(parked.answer_length(), 3U);
}

// Malformed, or cut at any byte: the caller's buffer is not said to hold anything, and a request that may have
// been served is not sent twice.
TEST_F(BusFaults, ConsumerGetsMalformedAnswers) {
  const std::pair<Header, const char*> faults[] = {
      {{.magic = 0, .kind = kAnswer}, "no frame"},
      {{.version = 9, .kind = kAnswer}, "version"},
      {{.kind = kPush}, "kind"},
      {{.kind = kAnswer, .length = 1001}, "longer"},
      {{.kind = kAnswer, .length = 0xffffffff}, "longer"},
      {{.kind = kAnswer, .length = 4, .word = 5}, "refusal"},
      {{.kind = kAnswer, .tag = 77777}, "another"},
  };
  const std::string payload(40, 'a');
  std::atomic<size_t> at{0};
  const RawProducer producer(name, [&](int fd, const Header& request, const std::string&) {
    const bool cut = at >= std::size(faults);
    Header answer = cut ? Header{.kind = kAnswer, .length = 40} : faults[at].first;
    if (answer.tag == 0) answer.tag = request.tag;
    send_all(fd, frame(answer, payload).substr(0, cut ? at - std::size(faults) : std::string::npos));
  });
  const size_t cuts = frame({}, payload).size();
  void* handle = nullptr;
  ASSERT_EQ(dsv_register(class_handle(name), "n", &handle), 0U);
  for (; at < std::size(faults) + cuts; ++at) {
    CaptureStderr();
    const Read got = read(handle, "r");
    const std::string text = GetCapturedStderr();
    EXPECT_EQ(got.status, 3U) << at;
    EXPECT_EQ(got.length, 1000U) << at;
    if (at >= std::size(faults)) continue;
    EXPECT_NE(text.find(faults[at].second), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  }
  EXPECT_EQ(producer.accepted, static_cast<int>(at));
  EXPECT_EQ(read(handle, "r").answer, payload);
  pcx_unregister(handle);
}

// No answer, one that comes drop by drop, nobody who accepts: 62 at the deadline, or 11 for what did not fit
// into the listener's queue. Bytes that come late reach no later request. All at once, for the time's sake.
TEST_F(BusFaults, DeadlineIsKept) {
  const std::string full = fresh_class();
  const Socket listener;
  ASSERT_TRUE(listener.listens(full, 0));
  const RawProducer producer(name, [&](int fd, const Header& request, const std::string& text) {
    const std::string answer =
        frame({.kind = kAnswer, .length = 900, .tag = request.tag}, std::string(900, 'a'));
    if (text == "whole") return void(send_all(fd, answer));
    for (size_t i = 0; text == "drops" && i < answer.size() && send_all(fd, answer.substr(i, 1)); ++i)
      usleep(10000);
    char byte;
    recv(fd, &byte, 1, 0);  // until the consumer gives up
  });
  void* handle = nullptr;
  ASSERT_EQ(dsv_register(class_handle(name), "n", &handle), 0U);
  const auto lookup = [](const std::string& class_name) {
    void* data = nullptr;
    return dsv_lookup_data(class_handle(class_name), "n", &data);
  };
  const auto timed = [](std::function<uint32_t()> call) {
    return std::async(std::launch::async, [call] {
      const uint64_t start = now_ms();
      const uint32_t status = call();
      EXPECT_GE(now_ms() - start, kDeadlineMs - 1);
      EXPECT_LT(now_ms() - start, 2 * kDeadlineMs);
      return status;
    });
  };
  std::future<uint32_t> calls[] = {timed([&] { return read(handle, "silence").status; }),
                                   timed([&] { return read(handle, "drops").status; }),
                                   timed([&] { return pcx_query_producer(handle); }),
                                   timed([&] { return lookup(name); }),
                                   timed([&] { return lookup(full); }),
                                   timed([&] { return lookup(full); })};
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(calls[i].get(), 62U);
  EXPECT_EQ(calls[4].get() + calls[5].get(), 62U + 11U);
  EXPECT_EQ(read(handle, "whole").answer, std::string(900, 'a'));
  pcx_unregister(handle);
}

// Malformed events end the event connection with one line; the consumer comes back and registers again.
TEST_F(BusFaults, ConsumerGetsMalformedEvents) {
  const std::string bad[] = {std::string(40, 'G'), frame({.kind = kAnswer}),
                             frame({.kind = kPush, .length = 0x10000000, .word = 6}),
                             frame({.kind = kPush, .reserved = 7})};
  std::atomic<size_t> next{0};
  std::atomic<bool> over{false};
  CaptureStderr();
  {
    const RawProducer producer(name, [&](int fd, const Header& subscription, const std::string&) {
      const std::string good = frame({.kind = kPush, .length = 1, .word = 6, .tag = subscription.tag},
                                     std::string("m\0\0\0\0\0\0\0", 8));
      const std::string stray = frame({.kind = kPush, .word = 6, .tag = 12345678});
      const size_t mine = next++;
      send_all(fd, good + stray + (mine < std::size(bad) ? bad[mine] : good));
      while (mine >= std::size(bad) && !over) usleep(1000);
    });
    const Registration registration(name, "n", recorder);
    EXPECT_TRUE(recorder.has(std::size(bad) + 2));
    over = true;
  }
  const std::string text = GetCapturedStderr();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<ptrdiff_t>(std::size(bad))) << text;
}

// The event connection is lost while a read is under way, and the registration is made again, as new, before the answer
// comes: what the answer shows is not what the producer takes to be known, so the read goes out again.
TEST_F(BusFaults, AnswerFromBeforeTheRegistration) {
  std::atomic<int> reads{0}, registrations{0};
  std::atomic<bool> over{false};
  const RawProducer producer(name, [&](int fd, const Header& first, const std::string&) {
    if (first.kind == kReadKind) {
      ++reads;
      EXPECT_TRUE(eventually([&] { return registrations == 2; }));
      send_all(fd, frame({.kind = kAnswer, .length = 4, .tag = first.tag}, "then"));
      pollfd wait = {fd, POLLIN, 0};
      Header again;
      std::string text;
      if (poll(&wait, 1, 5000) == 1 && receive(fd, &again, &text))
        send_all(fd, frame({.kind = kAnswer, .length = 4, .tag = again.tag}, "now."));
    } else if (first.kind == kSubscribe) {
      EXPECT_EQ(first.word, 0U);
      const bool lost = ++registrations == 1;
      EXPECT_TRUE(eventually([&] { return lost ? reads == 1 : over.load(); }));
    }
  });
  const Registration registration(name, "n", recorder);
  EXPECT_EQ(read(registration.handle, "r").answer, "now.");
  over = true;
}

// Runs as another user in a process of its own.
template <typename Body>
pid_t as_nobody(Body body) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
  _exit(body() ? 0 : 1);
}

TEST_F(BusFaults, OtherUsersAreRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs to be root, to be somebody else too";
  const std::string planted = fresh_class();
  Producer producer(name);
  chmod(std::filesystem::path(bus_directory()).parent_path().c_str(), 0755);
  chmod(bus_directory().c_str(), 0777);
  chmod(address_of(name).sun_path, 0666);
  const pid_t consumer = as_nobody([&] {
    const auto refused = [&](const Socket& socket) {
      char byte;
      return socket.connects(name) && recv(socket.fd, &byte, 1, 0) <= 0;
    };
    return refused(Socket()) && refused(Socket());
  });
  int how = -1;
  waitpid(consumer, &how, 0);
  EXPECT_EQ(how, 0);
  const auto log = Producer::take_log();
  ASSERT_EQ(log.size(), 1U);
  EXPECT_NE(log[0].find("user 65534 refused"), std::string::npos) << log[0];

  const pid_t impostor = as_nobody([&] {
    const Socket listener;
    return listener.listens(planted, 9) && pause() == 0;
  });
  ASSERT_TRUE(eventually([&] { return Socket().connects(planted); }));
  CaptureStderr();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(address(planted, "n"), nullptr);
  const std::string text = GetCapturedStderr();
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
