// es-acl-producer: reads a configuration of ACLs and serves it to the consumers of this host.
#include <cstdio>
#include <exception>

#include "config_file.h"
#include "daemon.h"
#include "log.h"
#include "options.h"

namespace es_acl::producer {
namespace {

int run(const Options& options) {
  if (options.print_yang) return std::fputs(kYangModuleText, stdout) < 0 ? kExitSystem : kExitOk;
  if (!options.check) return serve(options);
  std::printf("%s: ok: %s\n", options.config.c_str(), describe(*load_configuration(options)).c_str());
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
