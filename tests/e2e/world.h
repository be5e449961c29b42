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

  // The whole environment of every process started here from now on.
  std::map<std::string, std::string> environment;

  std::string path(const std::string& leaf) const { return directory_ + "/" + leaf; }
  // Makes a file in the directory and returns its path.
  std::string write(const std::string& leaf, const std::string& content) const;

  // Starts a producer of these ACLs and waits until it serves. It is killed at the end.
  void produce(const std::vector<nlohmann::json>& acls);
  // The same with any other program that takes --ready-file.
  void start_producer(const std::string& command);
  // Stops the producer or lets it go on, and returns when it has.
  void signal_producer(int number) const;

  Ended shell(const std::string& command) const;
  // Runs the command es-acl.
  Ended client(const std::string& arguments) const { return shell("exec es-acl " + arguments); }

 private:
  pid_t start(const std::string& command, const std::string& output) const;

  std::string directory_;
  pid_t producer_ = 0;
};

}  // namespace es_acl::e2e

#endif  // ES_ACL_TESTS_E2E_WORLD_H_
