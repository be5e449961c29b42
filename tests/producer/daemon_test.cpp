// The program as a process: its command line, its exit codes, and a consumer that reads from it over the bus.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
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
    char text[256];
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

TEST(Daemon, ServesAConsumerUntilItIsEnded) {
  const test::TempDir files;
  ::setenv("ES_PCX_DIR", files.path("bus").c_str(), 1);
  const std::string bad = files.write("bad.json", "{\"es-acl:acls\": {\"acl\": [\n{\"name\": \"trace\"}]}}");
  Program("").expect_end(2, "--config is required");
  Program(kGood + "--nonsense").expect_end(2, "--nonsense");
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

  uint32_t dsv_class = 0;
  void* address = nullptr;
  static evm* events = nullptr;  // the process's, as the bus is: never destroyed
  ASSERT_EQ(evm_create(&events), 0u);
  ASSERT_EQ(dsv_init(events, 0), 0u);
  ASSERT_EQ(dsv_create_class(ES_ACL_DSV_CLASS_NAME, 0, 1, &dsv_class), 0u);
  ASSERT_EQ(pcx_lr_init(events), 0u);
  EXPECT_EQ(dsv_lookup_data(dsv_class, "nobody", &address), DSV_NO_DATA);
  ASSERT_EQ(dsv_lookup_data(dsv_class, "large", &address), 0u);

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
  for (const auto& entry : std::filesystem::directory_iterator(files.path("bus")))
    EXPECT_FALSE(entry.is_socket()) << entry << " could be taken for a live producer";
  EXPECT_EQ(pcx_read(address, &request, sizeof request, records.data(), &length), uint32_t{ESRCH});
}

}  // namespace es_acl::producer
