// `es-acl watch`: holds ACLs, and tells what the producer does to them and what it asks.
#ifndef ES_ACL_TOOLS_WATCH_H_
#define ES_ACL_TOOLS_WATCH_H_

#include "client.h"
#include "options.h"
#include "output.h"

namespace es_acl::tool {

// Watches until it is to end, and gives everything back. The exit code, without regard to the output.
int watch(const Options& options, Client& client, Output& out);

// That there will be no watch, since the client has not started.
void tell_failed_watch(const Options& options, const Problem& problem, Output& out);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_WATCH_H_
