// Why a configuration is refused. what() is "FILE:LINE: WHERE: REASON", without the parts that are not known.
#ifndef ES_ACL_PRODUCER_CONFIG_ERROR_H_
#define ES_ACL_PRODUCER_CONFIG_ERROR_H_

#include <stdexcept>
#include <string>

namespace es_acl::producer {

class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_CONFIG_ERROR_H_
