// A world of its own for each test: a directory with the bus, the diagnostics and the configurations, and the
// processes that meet there. What they are told is the shell's language, with the built programs in its path.
//
// One thread. Every process ends with the test program, and by an alarm when it hangs.
#ifndef ES_ACL_TESTS_E2E_WORLD_H_
#define ES_ACL_TESTS_E2E_WORLD_H_

#include <sys/types.h>

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace es_acl::e2e {

bool contains(const std::string& text, const std::string& part);

// What came of a command. `code` is its exit code or 128 + the signal that ended it.
struct Ended {
  int code;
  std::string out;
  std::string err;
  std::chrono::milliseconds took;

  // What the JSON document that the command wrote has of the ACLs.
  nlohmann::json acls() const { return nlohmann::json::parse(out)["acls"]; }
};

class World {
 public:
  World();
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Every process is ended after so long.
  unsigned most_seconds = 60;  // sanitizers on a busy machine take their time
  // The directory stays when the world ends.
  bool keep = false;
  // The whole environment of every process started here from now on.
  std::map<std::string, std::string> environment;

  std::string path(const std::string& leaf) const { return directory_ + "/" + leaf; }
  // Makes a file in the directory and returns its path.
  std::string write(const std::string& leaf, const std::string& content) const;

  // Starts a producer of these ACLs and waits until it serves. It is killed at the end.
  void produce(const std::vector<nlohmann::json>& acls, const std::string& options = "");
  // Replaces its configuration. It notices by itself.
  void reconfigure(const std::vector<nlohmann::json>& acls) const;
  // Ends it, with whatever signal, and starts another one.
  void restart(int signal, const std::vector<nlohmann::json>& acls);
  // Waits until its log has the text, and returns what the log has behind it in the same line.
  std::string producer_says(const std::string& text) const;
  // The same with any other program that takes --ready-file.
  void start_producer(const std::string& command);
  // Stops the producer or lets it go on, and returns when it has.
  void signal_producer(int number) const;

  Ended shell(const std::string& command) const;
  // Runs the command es-acl.
  Ended client(const std::string& arguments) const { return shell("exec es-acl " + arguments); }

 private:
  friend class Running;
  pid_t start(const std::string& command, const std::string& output) const;

  std::string directory_;
  pid_t producer_ = 0;
};

// A process beside the test, one of several. It is killed at the end.
class Running {
 public:
  Running(const World& world, const std::string& command);
  ~Running();
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  // Waits for a line with the text, and returns what was written since the last call up to that line's end.
  std::string until(const std::string& text);
  // Waits until it has ended. What was written since the last call of until() is `out`.
  Ended end();
  Ended end_by(int signal_number);
  void signal(int number) const;

 private:
  std::string output_;  // path of its output files, without the suffix
  pid_t pid_;
  size_t seen_ = 0;
};

}  // namespace es_acl::e2e

#endif  // ES_ACL_TESTS_E2E_WORLD_H_
