// The commands: for each name have the ACL and tell it. A name that fails does not keep the others from being
// told.
#ifndef ES_ACL_TOOLS_COMMANDS_H_
#define ES_ACL_TOOLS_COMMANDS_H_

#include "client.h"
#include "report.h"

namespace es_acl::tool {

// The exit code, without regard to the output.
int run_command(const Options& options, Client& client, Report& report, const Output& out);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_COMMANDS_H_
