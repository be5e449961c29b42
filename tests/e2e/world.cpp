#include "world.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace es_acl::e2e {

World::World() {
  std::string pattern = (std::filesystem::temp_directory_path() / "es-acl-e2e.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no directory for the test");
  directory_ = pattern;
  environment["PATH"] = "/usr/bin:/bin";
  environment["ES_PCX_DIR"] = path("bus");
  environment["ES_DIAG_DIR"] = path("diag");
  for (const char* passed_on : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"})
    if (const char* value = std::getenv(passed_on)) environment[passed_on] = value;
}

World::~World() {
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::string World::write(const std::string& leaf, const std::string& content) const {
  std::ofstream(path(leaf), std::ios::binary) << content;
  return path(leaf);
}

std::unique_ptr<Background> World::start(Arguments arguments) const {
  const std::string ready = path("ready");
  arguments.insert(arguments.end(), {"--ready-file", ready});
  auto process = std::make_unique<Background>(arguments, environment, path("producer.log"));
  const bool serves = eventually([&] { return std::filesystem::exists(ready) || !process->running(); });
  std::filesystem::remove(ready);
  if (serves && process->running()) return process;
  std::ifstream log(path("producer.log"));
  ADD_FAILURE() << arguments[0] << " does not serve: " << log.rdbuf();
  throw std::runtime_error("no producer");
}

std::unique_ptr<Background> World::produce(const std::string& configuration) const {
  return start({E2E_PRODUCER, "--config", configuration});
}

std::unique_ptr<Background> World::produce(const nlohmann::json& acls) const {
  const nlohmann::json tree = {{"es-acl:acls", {{"acl", acls}}}};
  return produce(write("configuration.json", tree.dump()));
}

std::unique_ptr<Background> World::produce_faulty(int entries, int good_reads,
                                                  const std::string& fault) const {
  return start({E2E_FAULTY_PRODUCER, std::to_string(entries), std::to_string(good_reads), fault});
}

Ended World::client(const Arguments& arguments, Stdout kind) const {
  Arguments all = {E2E_CLIENT};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return run(all, environment, kind);
}

nlohmann::json World::document(const Arguments& arguments, int code) const {
  Arguments all = {"--json"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  const Ended ended = client(all);
  EXPECT_EQ(ended.code, code) << ended.err << ended.out.substr(0, 2000);
  auto parsed = nlohmann::json::parse(ended.out, nullptr, false);
  EXPECT_FALSE(parsed.is_discarded()) << ended.out.substr(0, 2000);
  return parsed;
}

Ended World::shell(const std::string& command) const {
  Environment with_client = environment;
  with_client["CLIENT"] = E2E_CLIENT;
  return run({"/bin/sh", "-c", command}, with_client);
}

}  // namespace es_acl::e2e
