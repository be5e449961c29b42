// Telling whoever started the program that it serves now.
#ifndef ES_ACL_PRODUCER_READINESS_H_
#define ES_ACL_PRODUCER_READINESS_H_

#include "options.h"

namespace es_acl::producer {

// Makes the file and writes to the descriptor that the options name. False when it cannot; the reason has been logged.
bool report_ready(const Options& options);
// Removes the file.
void retract_ready(const Options& options);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_READINESS_H_
