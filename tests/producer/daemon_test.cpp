// The program as a process: its command line, its exit codes, and a consumer that reads from it over the bus.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "es_platform/dsv.h"
#include "es_platform/evm.h"
#include "es_platform/pcx.h"
#include "support.h"

namespace es_acl::producer {
namespace {

using test::TempDir;

const std::string kExamples = ES_ACL_EXAMPLES_DIR "/";

class Process {
 public:
  Process(std::vector<std::string> arguments, const std::string& output_file) : output_file_(output_file) {
    int ready[2];
    if (::pipe(ready) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) run(std::move(arguments), ready);
    ::close(ready[1]);
    char text[16];
    ready_ =
        std::string(text, static_cast<size_t>(std::max<ssize_t>(0, ::read(ready[0], text, sizeof text))));
    ::close(ready[0]);
  }
  ~Process() {
    if (pid_ > 0) end(SIGKILL);
  }

  bool ready() const { return ready_ == "ready\n"; }
  pid_t pid() const { return pid_; }
  std::string output() const {
    std::ifstream file(output_file_);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  // The exit code, after sending a signal unless it is 0; or -1 when a signal ended it.
  int end(int signal = 0) {
    if (signal != 0) ::kill(pid_, signal);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  static constexpr int kReadyFd = 9;

  [[noreturn]] void run(std::vector<std::string> arguments, const int (&ready)[2]) const {
    ::dup2(ready[1], kReadyFd);
    ::close(ready[0]);
    ::close(ready[1]);
    if (!std::freopen(output_file_.c_str(), "w", stdout) || ::dup2(STDOUT_FILENO, STDERR_FILENO) < 0)
      ::_exit(126);
    arguments.insert(arguments.begin(), ES_ACL_PRODUCER_PROGRAM);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }

  std::string output_file_;
  std::string ready_;
  pid_t pid_ = -1;
};

class DaemonTest : public ::testing::Test {
 protected:
  // The bus reads its directory once per process: one for all cases.
  static void SetUpTestSuite() {
    static const TempDir directory;
    bus_ = directory.path("bus");
    ::setenv("ES_PCX_DIR", bus_.c_str(), 1);
  }
  Process start(std::vector<std::string> arguments) {
    return {std::move(arguments), files_.path("output" + std::to_string(++started_))};
  }
  // What a stopped producer left in the bus's directory that another process could take for a live one.
  static size_t sockets() {
    size_t count = 0;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator(bus_, none)) count += entry.is_socket();
    return count;
  }

  static inline std::string bus_;
  TempDir files_;
  int started_ = 0;
};

TEST_F(DaemonTest, ExitCodesAndMessages) {
  const std::string bad = files_.write("bad.json", "{\"es-acl:acls\": {\"acl\": [\n{\"name\": \"trace\"}]}}");
  const std::string good = kExamples + "q-in-q.xml";
  struct {
    std::vector<std::string> arguments;
    int exit_code;
    const char* words;
  } const table[] = {
      {{}, 1, "--config is required"},
      {{"--config", good, "--nonsense"}, 1, "--nonsense"},
      {{"--config", good, "--ready-fd", "-1"}, 1, "--ready-fd"},
      {{"--help"}, 0, "Exit codes"},
      {{"--print-yang"}, 0, "module es-acl {"},
      {{"--config", good, "--check"}, 0, "ok: 2 ACLs, 11 entries, 3 of them remarks"},
      {{"--config", bad, "--check"}, 2, "bad.json:2: "},
      {{"--config", bad, "--ready-fd", "9"}, 2, "reserved word"},
      {{"--config", files_.path("none"), "--ready-fd", "9"}, 2, "none: cannot be opened: No such file"},
      {{"--config", good, "--ready-file", files_.path("no/such/directory")}, 4, "--ready-file"},
      {{"--config", good, "--ready-fd", "77"}, 4, "--ready-fd 77"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.words);
    Process process = start(row.arguments);
    EXPECT_FALSE(process.ready());
    EXPECT_EQ(process.end(), row.exit_code);
    EXPECT_NE(process.output().find(row.words), std::string::npos) << process.output();
    EXPECT_EQ(sockets(), 0u);
  }
}

TEST_F(DaemonTest, ABusThatCannotBeOpened) {
  ::setenv("ES_PCX_DIR", files_.write("in-the-way", "").c_str(), 1);
  Process process = start({"--config", kExamples + "q-in-q.xml", "--ready-fd", "9"});
  ::setenv("ES_PCX_DIR", bus_.c_str(), 1);
  EXPECT_FALSE(process.ready());
  EXPECT_EQ(process.end(), 3);
  EXPECT_NE(process.output().find("es-acl-producer: bus: "), std::string::npos) << process.output();
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
  Process producer =
      start({"--config", kExamples + "large.json", "--ready-fd", "9", "--ready-file", ready_file});
  ASSERT_TRUE(producer.ready()) << producer.output();
  EXPECT_TRUE(std::filesystem::exists(ready_file));

  Process second = start({"--config", kExamples + "q-in-q.xml", "--ready-fd", "9"});
  EXPECT_FALSE(second.ready());
  EXPECT_EQ(second.end(), 3) << second.output();

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
  EXPECT_NE(producer.output().find("request refused with 22: version 0"), std::string::npos)
      << producer.output();

  EXPECT_EQ(producer.end(SIGTERM), 0) << producer.output();
  EXPECT_EQ(sockets(), 0u);
  EXPECT_FALSE(std::filesystem::exists(ready_file));
  request = test::count_request("large");
  EXPECT_EQ(pcx_read(address, &request, sizeof request, &counts, &length), uint32_t{ESRCH});
}

}  // namespace
}  // namespace es_acl::producer
