// The command line.
#ifndef ES_ACL_PRODUCER_OPTIONS_H_
#define ES_ACL_PRODUCER_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>

namespace es_acl::producer {

enum ExitCode {
  kExitOk = 0,
  kExitConfiguration = 1,  // the configuration is refused
  kExitUsage = 2,          // the command line is wrong
  kExitBus = 3,            // the bus could not be opened, or a name not published
  kExitSystem = 4,         // memory, or the readiness report
};

struct Options {
  std::string config;
  std::string ready_file;
  int ready_fd = -1;
  uint32_t question_deadline_ms = 2000;
  uint32_t queue_limit_mib = 64;
  bool check = false;
  bool check_resources = false;
  bool print_yang = false;
  bool verbose = false;
};

// The options; or nothing when the program is to end with *exit_code (help has been printed, or an error).
std::optional<Options> parse_options(int argc, char** argv, int* exit_code);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_OPTIONS_H_
