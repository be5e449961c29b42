// The commands: for each name have the ACL and tell it. A name that fails does not keep the others from being
// told.
#ifndef ES_ACL_TOOLS_COMMANDS_H_
#define ES_ACL_TOOLS_COMMANDS_H_

#include "client.h"
#include "report.h"

namespace es_acl::tool {

// What the failures among several ACLs make of the exit code.
class Failures {
 public:
  void note(const Problem& problem) {
    missing_ = true;
    no_producer_ |= problem.state == State::kNoProducer || problem.state == State::kUnreachable;
  }
  void note(const Client::Lists& lists);
  int exit_code() const {
    if (differs_) return kExitDiffers;
    return no_producer_ ? kExitNoProducer : missing_ ? kExitAclMissing : kExitOk;
  }

 private:
  bool differs_ = false;
  bool missing_ = false;
  bool no_producer_ = false;
};

// The exit code, without regard to the output.
int run_command(const Options& options, Client& client, Report& report, const Output& out);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_COMMANDS_H_
