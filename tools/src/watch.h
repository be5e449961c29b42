// `es-acl watch`: holds ACLs, and tells what the producer does to them and what it asks.
#ifndef ES_ACL_TOOLS_WATCH_H_
#define ES_ACL_TOOLS_WATCH_H_

#include "client.h"
#include "options.h"
#include "output.h"

namespace es_acl::tool {

// Starts the client, watches until it is to end, and gives everything back. The exit code, without regard to
// the output.
int watch(const Options& options, Client& client, Output& out);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_WATCH_H_
