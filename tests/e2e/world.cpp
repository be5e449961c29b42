#include "world.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace es_acl::e2e {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr unsigned kAlarmSeconds = 60;  // sanitizers on a busy machine take their time

std::string content(const std::string& file) {
  std::ostringstream text;
  text << std::ifstream(file, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

World::World() {
  std::string pattern = (std::filesystem::temp_directory_path() / "es-acl-e2e.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no directory for the test");
  directory_ = pattern;
  environment["ES_PCX_DIR"] = path("bus");
  environment["ES_DIAG_DIR"] = path("diag");
  for (const char* passed_on : {"PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"})
    if (const char* value = std::getenv(passed_on)) environment[passed_on] = value;
  environment["PATH"].insert(0, E2E_PATH ":");
}

World::~World() {
  if (producer_ > 0 && kill(producer_, SIGKILL) == 0) waitpid(producer_, nullptr, 0);
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::string World::write(const std::string& leaf, const std::string& content) const {
  std::ofstream(path(leaf), std::ios::binary) << content;
  return path(leaf);
}

// Runs a command in the root directory with the files OUTPUT.out and OUTPUT.err as its outputs.
pid_t World::start(const std::string& command, const std::string& output) const {
  std::string script = "cd / && exec </dev/null >" + path(output + ".out") + " 2>" + path(output + ".err");
  for (const auto& [variable, value] : environment) script += "\nexport " + variable + "='" + value + "'";
  script += "\n" + command;
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("cannot fork");
  if (pid > 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  alarm(kAlarmSeconds);
  const char* const nothing[] = {nullptr};
  if (getppid() == parent) execle("/bin/sh", "sh", "-c", script.c_str(), nullptr, nothing);
  _exit(127);
}

void World::start_producer(const std::string& command) {
  const std::string ready = path("ready");
  producer_ = start("exec " + command + " --ready-file " + ready, "producer");
  while (!std::filesystem::exists(ready)) {
    if (waitpid(producer_, nullptr, WNOHANG) != 0) {
      producer_ = 0;
      throw std::runtime_error(command + ": " + content(path("producer.err")));
    }
    std::this_thread::sleep_for(milliseconds(5));
  }
}

void World::produce(const std::vector<nlohmann::json>& acls) {
  const nlohmann::json tree = {{"es-acl:acls", {{"acl", acls}}}};
  start_producer("es-acl-producer --config " + write("configuration.json", tree.dump()));
}

void World::signal_producer(int number) const {
  kill(producer_, number);
  waitpid(producer_, nullptr, WUNTRACED | WCONTINUED);
}

Ended World::shell(const std::string& command) const {
  const auto begin = steady_clock::now();
  int status = 0;
  waitpid(start(command, "command"), &status, 0);
  const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return {code, content(path("command.out")), content(path("command.err")), took};
}

}  // namespace es_acl::e2e
