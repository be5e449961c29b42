// Reads a configuration file, JSON or XML, against the YANG module es-acl, which is built into the program.
//
// A file is taken as a whole or not at all: the result is a complete database, or a ConfigError that says
// what is wrong, where and why. Not for concurrent calls on one YangModel.
#ifndef ES_ACL_PRODUCER_CONFIG_FILE_H_
#define ES_ACL_PRODUCER_CONFIG_FILE_H_

#include <memory>
#include <string>

#include "config_error.h"
#include "database.h"

struct ly_ctx;

namespace es_acl::producer {

// The text of es-acl.yang.
extern const char* const kYangModuleText;

// The module, compiled and ready to check files with.
class YangModel {
 public:
  YangModel();
  // ConfigError, std::bad_alloc.
  DatabasePtr load(const std::string& file) const;

 private:
  struct ContextDeleter {
    void operator()(ly_ctx* context) const;
  };
  std::unique_ptr<ly_ctx, ContextDeleter> context_;
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_CONFIG_FILE_H_
