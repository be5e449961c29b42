// The program as a process: its command line, its exit codes, and a consumer that reads from it over the bus and is
// told what changes in its configuration.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "es_platform/dsv.h"
#include "es_platform/evm.h"
#include "es_platform/pcx.h"
#include "support.h"

namespace es_acl::producer {

const std::string kExample = "--config " ES_ACL_EXAMPLES_DIR "/";
const std::string kGood = kExample + "q-in-q.xml ";

// Runs the program; what it writes to standard output and error is one text.
class Program {
 public:
  explicit Program(const std::string& arguments)
      : pipe_(::popen(("exec " ES_ACL_PRODUCER_PROGRAM " " + arguments + " 2>&1").c_str(), "r")) {}
  // Its next line of output, empty at the end of it.
  std::string line() {
    char text[1024];
    return std::fgets(text, sizeof text, pipe_) ? text : "";
  }
  // Waits for its end; expects this exit code, and these words in the output that no one has read yet.
  void expect_end(int exit_code, const std::string& words) {
    std::string output;
    for (std::string next = line(); !next.empty(); next = line()) output += next;
    const int status = ::pclose(pipe_);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), exit_code);
    EXPECT_NE(output.find(words), output.npos) << output;
  }

 private:
  std::FILE* const pipe_;
};

// The process's side of the bus, in a directory of its own.
class Daemon : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ::setenv("ES_PCX_DIR", bus_.path("bus").c_str(), 1);
    ASSERT_EQ(evm_create(&events_), 0u);
    ASSERT_EQ(dsv_init(events_, 0), 0u);
    ASSERT_EQ(dsv_create_class(ES_ACL_DSV_CLASS_NAME, 0, 1, &dsv_class_), 0u);
    ASSERT_EQ(pcx_lr_init(events_), 0u);
  }

  static inline const test::TempDir bus_;
  static inline evm* events_ = nullptr;  // the process's, as the bus is: never destroyed
  static inline uint32_t dsv_class_ = 0;
  const test::TempDir files;
};

TEST_F(Daemon, ServesAConsumerUntilItIsEnded) {
  const std::string bad = files.write("bad.json", "{\"es-acl:acls\": {\"acl\": [\n{\"name\": \"trace\"}]}}");
  Program("").expect_end(2, "--config is required");
  Program(kGood + "--nonsense").expect_end(2, "--nonsense");
  Program(kGood + "--question-deadline-ms 0").expect_end(2, "--question-deadline-ms");
  Program(kGood + "--queue-limit-mib 65537").expect_end(2, "--queue-limit-mib");
  Program("--help").expect_end(0, "Exit codes");
  Program("--print-yang").expect_end(0, "module es-acl {");
  Program(kGood + "--check").expect_end(0, "ok: 2 ACLs, 11 entries, 3 of them remarks");
  Program(kExample + "campus-edge.json --check").expect_end(0, "ok: 3 ACLs, 22 entries, 6 of them remarks");
  Program(kExample + "datacenter.json --check").expect_end(0, "ok: 4 ACLs, 16 entries, 3 of them remarks");
  Program("--config " + bad).expect_end(1, "bad.json:2: ");
  Program(kGood + "--ready-file " + files.path("no/such/directory")).expect_end(4, "--ready-file");
  Program(kGood + "--ready-fd 77").expect_end(4, "--ready-fd 77");

  const std::string ready_file = files.path("ready");
  Program producer(kExample + "large.json --ready-fd 1 --ready-file " + ready_file);
  ASSERT_EQ(producer.line(), "ready\n");
  pid_t pid = 0;
  std::ifstream(ready_file) >> pid;
  ASSERT_GT(pid, 0);
  Program(kGood).expect_end(3, "es-acl-producer: bus: ");

  void* address = nullptr;
  EXPECT_EQ(dsv_lookup_data(dsv_class_, "nobody", &address), DSV_NO_DATA);
  ASSERT_EQ(dsv_lookup_data(dsv_class_, "large", &address), 0u);

  // An answer of one and a half megabytes, and a refusal.
  std::vector<es_acl_pcx_acl_ace> records(10'001);
  acl_pcx_read_req request = test::read_request("large", 0, 10'001);
  uint32_t length = records.size() * sizeof records[0];
  ASSERT_EQ(pcx_read(address, &request, sizeof request, records.data(), &length), 0u);
  EXPECT_EQ(length, 10'000 * sizeof records[0]);
  EXPECT_EQ(es_acl_wire_32(records[9'999].ver), ES_ACL_PCX_VERSION);
  request.ver = 0;
  EXPECT_EQ(pcx_read(address, &request, sizeof request, records.data(), &length), uint32_t{EINVAL});

  ::kill(pid, SIGTERM);
  producer.expect_end(0, "request refused with 22: version 0");
  EXPECT_FALSE(std::filesystem::exists(ready_file));
  for (const auto& entry : std::filesystem::directory_iterator(bus_.path("bus")))
    EXPECT_FALSE(entry.is_socket()) << entry << " could be taken for a live producer";
  EXPECT_EQ(pcx_read(address, &request, sizeof request, records.data(), &length), uint32_t{ESRCH});
}

// A consumer in this process: writes down what is pushed, and answers questions as it is set.
struct Told {
  static void handle(uint64_t context, uint32_t mtype, void* payload, uint32_t length, void** response,
                     uint32_t* response_length) {
    auto& self = *reinterpret_cast<Told*>(context);
    const uint32_t command = es_acl_wire_32(*static_cast<uint32_t*>(payload));
    ++self.begun;
    const std::lock_guard lock(self.silence);
    const std::lock_guard writing(self.mutex);
    if (mtype == PCX_CMD_PROD_SYNC_REQ) {
      const bool about_use = command == ACL_PCX_QUERY_CONS;
      acl_pcx_cons_resp answer{
          ACL_PCX_CONS_RESP_VERSION, about_use ? 0 : self.rc.load(), 1, self.in_use, "me", "here"};
      es_acl_wire_cons_resp_order(&answer);
      *response = std::malloc(sizeof answer);
      std::memcpy(*response, &answer, sizeof answer);
      *response_length = sizeof answer;
    }
    self.text += "|" + std::to_string(mtype) + "," + std::to_string(command) + "," + std::to_string(length);
  }
  // Waits for that to be told, and forgets it.
  void expect(const std::string& expected) {
    for (int i = 0; i < 10'000 && take(false) != expected; ++i) ::usleep(1000);
    EXPECT_EQ(take(true), expected);
  }
  std::string take(bool forget) {
    const std::lock_guard lock(mutex);
    return forget ? std::exchange(text, {}) : text;
  }

  std::mutex silence, mutex;
  std::atomic<int> begun{0};
  std::string text;  // "|message type,sub-command,length|..."
  std::atomic<uint32_t> rc{0};
  std::atomic<int32_t> in_use{0};
};

// {{"a", {10, 20}}, ...}
std::string configuration(const std::map<std::string, std::vector<uint32_t>>& acls) {
  std::string text;
  for (const auto& [name, numbers] : acls) {
    std::string entries;
    for (size_t i = 0; i != numbers.size(); ++i) {
      entries += (entries.empty() ? "" : ",") + ("{\"sequence\": " + std::to_string(numbers[i])) +
                 R"(, "matches": {"eth": {"ethertype": "0x)" + std::to_string(1000 + i) +
                 R"("}}, "actions": {"forwarding": "accept"}})";
    }
    text +=
        (text.empty() ? "" : ",") + ("{\"name\": \"" + name + R"(", "aces": {"ace": [)" + entries + "]}}");
  }
  return "{\"es-acl:acls\": {\"acl\": [" + text + "]}}";
}

TEST_F(Daemon, FollowsItsConfiguration) {
  const std::string file = files.write("c.json", configuration({{"a", {10, 20, 30}}, {"b", {10}}}));
  const std::string linked = files.path("link.json");
  std::filesystem::create_symlink(file, linked);
  Program producer("--config " + linked +
                   " --check-resources --question-deadline-ms 500 --ready-fd 1 --ready-file " +
                   files.path("ready"));
  ASSERT_EQ(producer.line(), "ready\n");
  pid_t pid = 0;
  std::ifstream(files.path("ready")) >> pid;
  const std::string says = "es-acl-producer: " + linked + ": ", me = std::to_string(::getpid());

  Told told;
  std::vector<void*> registrations;
  for (const char* name : {"a", "b"}) {
    void*& registration = registrations.emplace_back();
    std::vector<es_acl_pcx_acl_ace> records(9);
    acl_pcx_read_req request = test::read_request(name, 0, 9);
    uint32_t length = records.size() * sizeof records[0];
    ASSERT_EQ(dsv_register(dsv_class_, name, &registration), 0u);
    ASSERT_EQ(pcx_register(registration, 0, reinterpret_cast<uint64_t>(&told), Told::handle), 0u);
    ASSERT_EQ(pcx_read(registration, &request, sizeof request, records.data(), &length), 0u);
  }
  const std::string held = "|6,14,248|18,14,88", settled = "|18,15,88";

  // Written in place behind the link; the link replaced by a file; written in place.
  files.write("c.json", configuration({{"a", {10, 20, 30, 40}}, {"b", {10}}}));
  EXPECT_EQ(producer.line(), says + "acl 'a' (1 added); 1 message to 1 consumer\n");
  told.expect(held + "|6,0,160" + settled);
  std::filesystem::rename(files.write("new.json", configuration({{"a", {1, 2, 4, 5}}, {"b", {10}}})), linked);
  EXPECT_EQ(producer.line(), says + "acl 'a' (renumbered); 1 message to 1 consumer\n");
  told.expect("|6,10,92");
  files.write("link.json", configuration({{"a", {2, 3, 9}}, {"b", {}}, {"c", {7}}}));
  EXPECT_EQ(producer.line(),
            says +
                "acl 'a' (3 removed, 1 changed, 2 added), acl 'b' (1 removed), acl 'c' (new, 1 "
                "added); 3 messages to 1 consumer\n");
  told.expect("|6,14,568|18,14,88|6,1,480|6,0,480|6,1,160|18,15,88");

  // Bad, and refused: nothing is told to anyone but the questions, and nothing is different.
  files.write("link.json", "{\"es-acl:acls\": {\"acl\": [\n{\"name\": \"trace\"}]}}");
  EXPECT_TRUE(producer.line().starts_with("es-acl-producer: " + linked + ":2: "));
  told.in_use = 1;
  files.write("link.json", configuration({{"a", {1}}}));
  EXPECT_EQ(
      producer.line(),
      says + "change refused: acl 'b' cannot be dropped: it is in use by me (process " + me + " on here)\n");
  told.expect("|18,13,76");
  told.rc = ENOSPC;
  files.write("link.json", configuration({{"a", {2, 3, 9, 10}}, {"b", {}}, {"c", {7}}}));
  EXPECT_EQ(producer.line(), says +
                                 "change refused: acl 'a' is refused for want of resources by me (process " +
                                 me + " on here): No space left on device\n");
  told.expect(held + "|18,15,88");
  told.rc = told.in_use = 0;
  ::kill(pid, SIGHUP);
  EXPECT_EQ(producer.line(), says + "acl 'a' (1 added); 1 message to 1 consumer\n");
  told.expect(held + "|6,0,160" + settled);

  // Silent while two ACLs are to be dropped, and the program is ended: it does not ask for the second.
  {
    const std::lock_guard silent(told.silence);
    const int before = told.begun;
    files.write("link.json", configuration({}));
    while (told.begun == before) ::usleep(1000);
    ::kill(pid, SIGTERM);
    producer.expect_end(0, "taken as not in use\n" + says + "change refused: the producer is ending\n");
  }
  for (void* registration : registrations) pcx_unregister(registration);
}

}  // namespace es_acl::producer
