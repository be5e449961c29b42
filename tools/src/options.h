// The command line.
#ifndef ES_ACL_TOOLS_OPTIONS_H_
#define ES_ACL_TOOLS_OPTIONS_H_

#include <optional>
#include <string>
#include <vector>

#include "es_acl/es_acl_types.h"

namespace es_acl::tool {

enum ExitCode {
  kExitOk = 0,
  kExitAclMissing = 1,  // at least one of the ACLs could not be had
  kExitUsage = 2,
  kExitNotInitialised = 3,
  kExitNoProducer = 4,
  kExitOutput = 5,    // standard output could not be written
  kExitTimedOut = 6,  // the time was over before the events that were asked for
  kExitDiffers = 7,   // a client that says that it is in step differs, or one did not answer
};

enum class Command { kShow, kCount, kMatch, kWatch, kVerify };

struct WatchOptions {
  uint64_t count = 0;             // events to tell; 0: without end
  std::optional<double> timeout;  // seconds
  std::optional<uint32_t> refuse_above;
  bool in_use = true;  // the answer to usage questions
  uint32_t modify_mode = ES_ACL_MODIFY_DELETE_AND_ADD;
};

struct Options {
  Command command = Command::kShow;
  std::vector<std::string> names;
  std::optional<std::string> list;  // file with further names; "-" is standard input
  bool json = false;
  std::string store;            // empty: the default plug-in
  es_acl_match_key frame = {};  // of kMatch
  WatchOptions watch;           // of kWatch
  double wait = 3;              // of kVerify: seconds
};

const char* command_name(Command command);

// Fills the options and returns nothing; or, when there is nothing more to do (--help, a wrong command line),
// has said what there is to say and returns the exit code.
std::optional<int> parse_command_line(int argc, char** argv, Options* options);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_OPTIONS_H_
