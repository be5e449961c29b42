// es-acl-producer: reads a configuration of ACLs and serves it to the consumers of this host.
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "config_file.h"
#include "daemon.h"
#include "log.h"
#include "options.h"

namespace es_acl::producer {
namespace {

std::string summary(const Database& database) {
  return std::to_string(database.acls().size()) + " ACLs, " + std::to_string(database.ace_count()) +
         " entries, " + std::to_string(database.remark_count()) + " of them remarks";
}

DatabasePtr load(const Options& options) {
  const auto begin = std::chrono::steady_clock::now();
  DatabasePtr database = YangModel().load(options.config);
  ::malloc_trim(0);  // the parsed tree was many times the size of what is kept
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
  if (options.verbose) {
    log_line(options.config + ": loaded in " + std::to_string(took.count()) + " ms: " + summary(*database));
  }
  return database;
}

int run(const Options& options) {
  if (options.print_yang) return std::fputs(kYangModuleText, stdout) < 0 ? kExitSystem : kExitOk;
  DatabasePtr database = load(options);
  if (!options.check) return serve(std::move(database), options);
  std::printf("%s: ok: %s\n", options.config.c_str(), summary(*database).c_str());
  return kExitOk;
}

}  // namespace
}  // namespace es_acl::producer

int main(int argc, char** argv) {
  using namespace es_acl::producer;
  try {
    int exit_code = kExitOk;
    const auto options = parse_options(argc, argv, &exit_code);
    return options ? run(*options) : exit_code;
  } catch (const ConfigError& error) {
    log_line(error.what());
    return kExitConfiguration;
  } catch (const std::exception& error) {
    log_line(error.what());
    return kExitSystem;
  }
}
