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
#include <utility>

namespace es_acl::e2e {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{20};

std::string content(const std::string& file) {
  std::ostringstream text;
  text << std::ifstream(file, std::ios::binary).rdbuf();
  return text.str();
}

std::string configuration(const std::vector<nlohmann::json>& acls) {
  return nlohmann::json{{"es-acl:acls", {{"acl", acls}}}}.dump();
}

// Waits until the text is in the file behind `from`. Where it is there.
size_t await(const std::string& file, const std::string& text, size_t from) {
  const auto end = steady_clock::now() + kPatience;
  for (;;) {
    const std::string all = content(file);
    const size_t place = all.find(text, from);
    if (place != std::string::npos && all.find('\n', place) != std::string::npos) return place;
    if (steady_clock::now() > end) throw std::runtime_error("no '" + text + "' but: " + all.substr(from));
    std::this_thread::sleep_for(milliseconds(5));
  }
}

int exit_code(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

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
  if (!keep) std::filesystem::remove_all(directory_, ignored);
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
  alarm(most_seconds);
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

void World::produce(const std::vector<nlohmann::json>& acls, const std::string& options) {
  start_producer("es-acl-producer --config " + write("configuration.json", configuration(acls)) + " " +
                 options);
}

void World::restart(int signal, const std::vector<nlohmann::json>& acls) {
  kill(producer_, signal);
  waitpid(producer_, nullptr, 0);
  std::filesystem::remove(path("ready"));
  produce(acls);
}

void World::reconfigure(const std::vector<nlohmann::json>& acls) const {
  std::filesystem::rename(write("next.json", configuration(acls)), path("configuration.json"));
}

std::string World::producer_says(const std::string& text) const {
  const size_t place = await(path("producer.err"), text, 0);
  const std::string log = content(path("producer.err"));
  return log.substr(place + text.size(), log.find('\n', place) - place - text.size());
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
  return {exit_code(status), content(path("command.out")), content(path("command.err")), took};
}

Running::Running(const World& world, const std::string& command) {
  static int number;
  const std::string name = "running" + std::to_string(++number);
  output_ = world.path(name);
  pid_ = world.start("exec " + command, name);
}

Running::~Running() {
  if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
}

std::string Running::until(const std::string& text) {
  const size_t from = seen_;
  const size_t place = await(output_ + ".out", text, from);
  const std::string all = content(output_ + ".out");
  seen_ = all.find('\n', place) + 1;
  return all.substr(from, seen_ - from);
}

Ended Running::end() {
  const auto begin = steady_clock::now();
  int status = 0;
  waitpid(std::exchange(pid_, 0), &status, 0);  // its alarm sees to it that it ends
  const auto took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
  return {exit_code(status), content(output_ + ".out").substr(seen_), content(output_ + ".err"), took};
}

Ended Running::end_by(int signal_number) {
  signal(signal_number);
  return end();
}

void Running::signal(int number) const { kill(pid_, number); }

}  // namespace es_acl::e2e
