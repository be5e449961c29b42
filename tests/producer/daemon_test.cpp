// The program as a process: its command line, its exit codes, and a consumer that reads from it over the bus.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include "es_platform/dsv.h"
#include "es_platform/evm.h"
#include "es_platform/pcx.h"
#include "support.h"

namespace es_acl::producer {
namespace {

using test::TempDir;

const std::string kExamples = ES_ACL_EXAMPLES_DIR "/";

// Runs the program in a shell; what it writes to standard output and error is one text.
struct Ended {
  int exit_code;  // -1 when a signal ended it
  std::string output;
};

class Program {
 public:
  explicit Program(const std::string& arguments)
      : pipe_(::popen(("exec " ES_ACL_PRODUCER_PROGRAM " " + arguments + " 2>&1").c_str(), "r")) {}
  ~Program() {
    if (pipe_) end();
  }
  // Its next line of output, empty at the end of it.
  std::string line() {
    char text[256];
    return std::fgets(text, sizeof text, pipe_) ? text : "";
  }
  // From now on end() tells this process to end first.
  void serves_as(pid_t pid) { pid_ = pid; }
  Ended end() {
    if (pid_ > 0) ::kill(pid_, SIGTERM);
    Ended ended{};
    for (std::string next = line(); !next.empty(); next = line()) ended.output += next;
    const int status = ::pclose(pipe_);
    pipe_ = nullptr;
    ended.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return ended;
  }

 private:
  std::FILE* pipe_;
  pid_t pid_ = 0;
};

class DaemonTest : public ::testing::Test {
 protected:
  // The bus reads its directory once per process: one for all cases.
  static void SetUpTestSuite() {
    static const TempDir directory;
    bus_ = directory.path("bus");
    ::setenv("ES_PCX_DIR", bus_.c_str(), 1);
  }
  // What a stopped producer left in the bus's directory that another process could take for a live one.
  static size_t sockets() {
    size_t count = 0;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(bus_, none)) count += entry.is_socket();
    return count;
  }

  static inline std::string bus_;
  const TempDir files_;
};

TEST_F(DaemonTest, ExitCodesAndMessages) {
  const std::string bad = files_.write("bad.json", "{\"es-acl:acls\": {\"acl\": [\n{\"name\": \"trace\"}]}}");
  const std::string good = "--config " + kExamples + "q-in-q.xml ";
  struct {
    std::string arguments;
    int exit_code;
    const char* words;
  } const table[] = {
      {"", 1, "--config is required"},
      {good + "--nonsense", 1, "--nonsense"},
      {good + "--ready-fd -1", 1, "--ready-fd"},
      {"--help", 0, "Exit codes"},
      {"--print-yang", 0, "module es-acl {"},
      {good + "--check", 0, "ok: 2 ACLs, 11 entries, 3 of them remarks"},
      {"--check --config " + bad, 2, "bad.json:2: "},
      {"--ready-fd 1 --config " + bad, 2, "reserved word"},
      {"--config " + files_.path("none"), 2, "none: cannot be opened: No such file"},
      {good + "--ready-file " + files_.path("no/such/directory"), 4, "--ready-file"},
      {good + "--ready-fd 77", 4, "--ready-fd 77"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.arguments);
    const Ended ended = Program(row.arguments).end();
    EXPECT_EQ(ended.exit_code, row.exit_code);
    EXPECT_NE(ended.output.find(row.words), std::string::npos) << ended.output;
    EXPECT_EQ(ended.output.find("ready\n"), std::string::npos) << ended.output;
    EXPECT_EQ(sockets(), 0u);
  }
}

// Reads the ACL batch by batch; the sequence numbers received.
std::vector<uint32_t> read_all(void* handle, const std::string& name, uint32_t max_entries) {
  std::vector<uint32_t> sequences;
  std::vector<AceRecord> batch(max_entries);
  for (size_t got = max_entries; got == max_entries;) {
    const acl_pcx_read_req request =
        test::read_request(name, sequences.empty() ? 0 : sequences.back(), max_entries);
    uint32_t length = max_entries * sizeof(AceRecord);
    const uint32_t status = pcx_read(handle, &request, sizeof request, batch.data(), &length);
    EXPECT_EQ(status, 0u);
    if (status != 0) break;
    got = length / sizeof(AceRecord);
    for (size_t i = 0; i < got; ++i) sequences.push_back(es_acl_wire_32(batch[i].ace.seq));
  }
  return sequences;
}

TEST_F(DaemonTest, ServesAConsumerUntilItIsEnded) {
  const std::string ready_file = files_.path("ready");
  Program producer("--ready-fd 1 --config " + kExamples + "large.json --ready-file " + ready_file);
  ASSERT_EQ(producer.line(), "ready\n");
  pid_t pid = 0;
  std::ifstream(ready_file) >> pid;
  ASSERT_GT(pid, 0);
  producer.serves_as(pid);

  const Ended second = Program("--config " + kExamples + "q-in-q.xml").end();
  EXPECT_EQ(second.exit_code, 3);
  EXPECT_NE(second.output.find("es-acl-producer: bus: "), std::string::npos) << second.output;

  uint32_t dsv_class = 0;
  void* address = nullptr;
  static evm* events = nullptr;  // the process's, as the bus is: never destroyed
  ASSERT_EQ(evm_create(&events), 0u);
  ASSERT_EQ(dsv_init(events, 0), 0u);
  ASSERT_EQ(dsv_create_class(ES_ACL_DSV_CLASS_NAME, 0, 1, &dsv_class), 0u);
  ASSERT_EQ(pcx_lr_init(events), 0u);
  EXPECT_EQ(dsv_lookup_data(dsv_class, "nobody", &address), DSV_NO_DATA);
  ASSERT_EQ(dsv_lookup_data(dsv_class, "large", &address), 0u);

  const uint32_t optimum = pcx_get_optimum_msg_size(dsv_class) / sizeof(AceRecord);
  for (const uint32_t max_entries : {optimum, 5000u, 777u}) {
    const auto sequences = read_all(address, "large", max_entries);
    EXPECT_EQ(sequences.size(), 10000u);
    EXPECT_TRUE(std::is_sorted(sequences.begin(), sequences.end()));
  }

  acl_pcx_query_req request = test::count_request("large");
  acl_pcx_query_resp counts;
  uint32_t length = sizeof counts;
  ASSERT_EQ(pcx_read(address, &request, sizeof request, &counts, &length), 0u);
  EXPECT_EQ(es_acl_wire_32(counts.num_aces), 10000u);
  EXPECT_EQ(es_acl_wire_32(counts.num_remark_aces), 100u);
  request.ver = 0;
  EXPECT_EQ(pcx_read(address, &request, sizeof request, &counts, &length), uint32_t{EINVAL});

  const Ended ended = producer.end();
  EXPECT_EQ(ended.exit_code, 0);
  EXPECT_NE(ended.output.find("request refused with 22: version 0"), std::string::npos) << ended.output;
  EXPECT_EQ(sockets(), 0u);
  EXPECT_FALSE(std::filesystem::exists(ready_file));
  request = test::count_request("large");
  EXPECT_EQ(pcx_read(address, &request, sizeof request, &counts, &length), uint32_t{ESRCH});
}

}  // namespace
}  // namespace es_acl::producer
