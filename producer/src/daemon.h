// The producer's life on the bus: open the class, publish the names, report that it is ready, serve until a
// signal ends it, and leave nothing behind.
#ifndef ES_ACL_PRODUCER_DAEMON_H_
#define ES_ACL_PRODUCER_DAEMON_H_

#include "database.h"
#include "options.h"

namespace es_acl::producer {

// Blocks SIGTERM and SIGINT for this thread and those it starts, and serves until one of them comes. To be
// called once, before the process has other threads. An ExitCode; what went wrong has been logged.
int serve(DatabasePtr database, const Options& options);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_DAEMON_H_
