// A world of its own for each test: a directory with the bus, the diagnostics and the configurations, and the
// processes that meet there.
#ifndef ES_ACL_TESTS_E2E_WORLD_H_
#define ES_ACL_TESTS_E2E_WORLD_H_

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "process.h"

namespace es_acl::e2e {

class World {
 public:
  World();
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Of every process started here from now on.
  Environment environment;

  std::string path(const std::string& leaf) const { return directory_ + "/" + leaf; }
  // Makes a file in the directory and returns its path.
  std::string write(const std::string& leaf, const std::string& content) const;

  // Starts a producer with that configuration and waits until it serves.
  std::unique_ptr<Background> produce(const std::string& configuration) const;
  // The same with a configuration that is one ACL list.
  std::unique_ptr<Background> produce(const nlohmann::json& acls) const;
  // Starts a producer of one ACL "victim" that keeps a fault until it has served so many requests for
  // entries.
  std::unique_ptr<Background> produce_faulty(int entries, int good_reads, const std::string& fault) const;

  // Runs the command es-acl.
  Ended client(const Arguments& arguments, Stdout kind = Stdout::kPipe) const;
  // Runs it with --json and returns the document; the exit code must be `code`.
  nlohmann::json document(const Arguments& arguments, int code = 0) const;
  // Runs a shell command in which $CLIENT is es-acl.
  Ended shell(const std::string& command) const;

 private:
  std::unique_ptr<Background> start(Arguments arguments) const;

  std::string directory_;
};

}  // namespace es_acl::e2e

#endif  // ES_ACL_TESTS_E2E_WORLD_H_
