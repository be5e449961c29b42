// Log lines of the producer: one line, one write to standard error, prefixed with the program's name. Any
// thread.
#ifndef ES_ACL_PRODUCER_LOG_H_
#define ES_ACL_PRODUCER_LOG_H_

#include <string>
#include <string_view>

namespace es_acl::producer {

void log_line(std::string_view text);

// The text with everything unprintable shown as "\xNN", for what came from outside.
std::string printable(std::string_view text);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_LOG_H_
