// The producer's life on the bus: load the configuration, open the class, publish the names, report that it is ready,
// serve and follow the configuration until a signal ends it, and leave nothing behind.
#ifndef ES_ACL_PRODUCER_DAEMON_H_
#define ES_ACL_PRODUCER_DAEMON_H_

#include <string>

#include "database.h"
#include "options.h"

namespace es_acl::producer {

// Reads and checks the configuration. ConfigError, std::bad_alloc.
DatabasePtr load_configuration(const Options& options);
// "2 ACLs, 11 entries, 3 of them remarks"
std::string describe(const Database& database);

// Blocks SIGTERM, SIGINT and SIGHUP for this thread and those it starts, and serves until one of the first two comes.
// To be called once, before the process has other threads. An ExitCode; what went wrong has been logged. ConfigError
// when it cannot even begin.
int serve(const Options& options);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_DAEMON_H_
