// The program as a process: its command line, its exit codes, and what it does when its configuration changes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

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

class Daemon : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ::setenv("ES_PCX_DIR", bus_.path("bus").c_str(), 1); }

  static inline const test::TempDir bus_;
  const test::TempDir files;
};

TEST_F(Daemon, TakesItsCommandLine) {
  const std::string bad = files.write("bad.json", "{\"es-acl:acls\": {\"acl\": [\n{\"name\": \"trace\"}]}}");
  const struct {
    std::string arguments;
    int exit_code;
    const char* words;
  } table[] = {
      {"", 2, "--config is required"},
      {kGood + "--nonsense", 2, "--nonsense"},
      {kGood + "--question-deadline-ms 0", 2, "--question-deadline-ms"},
      {kGood + "--queue-limit-mib 65537", 2, "--queue-limit-mib"},
      {"--help", 0, "Exit codes"},
      {"--print-yang", 0, "module es-acl {"},
      {kGood + "--check", 0, "ok: 2 ACLs, 11 entries, 3 of them remarks"},
      {kExample + "campus-edge.json --check", 0, "ok: 3 ACLs, 22 entries, 6 of them remarks"},
      {kExample + "datacenter.json --check", 0, "ok: 4 ACLs, 16 entries, 3 of them remarks"},
      {"--config " + bad, 1, "bad.json:2: "},
      {kGood + "--ready-file " + files.path("no/such/directory"), 4, "--ready-file"},
      {kGood + "--ready-fd 77", 4, "--ready-fd 77"},
  };
  for (const auto& [arguments, exit_code, words] : table) Program(arguments).expect_end(exit_code, words);
}

// A consumer in this process that says nothing, whatever it is asked, until it is let go.
std::atomic<bool> asked, let_go;
void be_silent(uint64_t, uint32_t, void*, uint32_t, void**, uint32_t*) {
  for (asked = true; !let_go;) ::usleep(1000);
}

void* register_silently(const char* name) {
  static evm* events = nullptr;  // the process's, as the bus is: never destroyed
  uint32_t dsv_class = 0, length = sizeof(acl_pcx_query_resp);
  void* handle = nullptr;
  if (events == nullptr) {
    EXPECT_EQ(evm_create(&events), 0u);
    EXPECT_EQ(dsv_init(events, 0), 0u);
    EXPECT_EQ(pcx_lr_init(events), 0u);
  }
  EXPECT_EQ(dsv_create_class(ES_ACL_DSV_CLASS_NAME, 0, 1, &dsv_class), 0u);
  EXPECT_EQ(dsv_register(dsv_class, name, &handle), 0u);
  EXPECT_EQ(pcx_register(handle, 0, 0, be_silent), 0u);
  acl_pcx_query_req request = test::count_request(name);  // which stands behind the registration
  acl_pcx_query_resp response;
  EXPECT_EQ(pcx_read(handle, &request, sizeof request, &response, &length), 0u);
  return handle;
}

// ACLs without entries.
std::string configuration(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names)
    text += (text.empty() ? "" : ",") + ("\n{\"name\": \"" + name + "\"}");
  return "{\"es-acl:acls\": {\"acl\": [" + text + "]}}";
}

TEST_F(Daemon, FollowsItsConfigurationUntilItIsEnded) {
  const std::string linked = files.path("link.json"), ready = files.path("ready");
  std::filesystem::create_symlink(files.write("c.json", configuration({"a", "b"})), linked);
  Program producer("--verbose --question-deadline-ms 500 --ready-fd 1 --ready-file " + ready + " --config " +
                   linked);
  const std::string says = "es-acl-producer: " + linked + ": ";
  const auto expect_line = [&](const std::string& begin) {
    std::string line;
    do {
      line = producer.line();
    } while (!line.starts_with(begin) &&
             (line.starts_with(says + "loaded in ") || line.starts_with(says + "nothing") ||
              line.starts_with("es-acl-producer: bus: ")));
    EXPECT_TRUE(line.starts_with(begin)) << line;
  };
  expect_line("ready\n");
  pid_t pid = 0;
  std::ifstream(ready) >> pid;
  ASSERT_GT(pid, 0);
  Program(kGood).expect_end(3, "es-acl-producer: bus: ");

  // In place, behind the link, in a directory that is never left alone.
  std::atomic<bool> told{false}, told_in_time{true};
  std::thread writer([&] {
    for (int left = 1000; !told && told_in_time; told_in_time = --left != 0) {
      files.write("other", "");
      ::usleep(10000);
    }
  });
  files.write("c.json", configuration({"a", "b", "c"}));
  expect_line(says + "acl 'c' (new)");
  told = true;
  writer.join();
  EXPECT_TRUE(told_in_time);
  std::filesystem::rename(files.write("new.json", configuration({"a", "b"})), linked);
  expect_line(says + "acl 'c' (dropped)");
  std::filesystem::remove(linked);
  std::filesystem::create_symlink(files.path("c.json"), linked);
  expect_line(says + "acl 'c' (new)");
  files.write("link.json", configuration({"a", "trace"}));
  expect_line("es-acl-producer: " + linked + ":3: ");
  files.write("link.json", configuration({"a", "b"}));
  expect_line(says + "acl 'c' (dropped)");
  ::kill(pid, SIGHUP);
  expect_line(says + "nothing has changed");

  // Ended while a silent consumer is asked about one of two ACLs that are to go, it does not ask about the other.
  void* const registrations[] = {register_silently("a"), register_silently("b")};
  files.write("link.json", configuration({}));
  while (!asked) ::usleep(1000);
  ::kill(pid, SIGTERM);
  producer.expect_end(0, "taken as not in use\n" + says + "change refused: the producer is ending\n");
  let_go = true;
  for (void* registration : registrations) pcx_unregister(registration);
  EXPECT_FALSE(std::filesystem::exists(ready));
  for (const auto& entry : std::filesystem::directory_iterator(bus_.path("bus")))
    EXPECT_FALSE(entry.is_socket()) << entry << " could be taken for a live producer";
}

}  // namespace es_acl::producer
