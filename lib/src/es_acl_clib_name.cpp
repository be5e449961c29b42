// Which names can be an ACL's. Reads constant data and the compiled pattern only; any thread.
#include <cerrno>
#include <cstring>

#include "es_acl/es_acl.h"
#include "es_acl_diag.h"
#include "es_acl_state.h"

namespace es_acl {
namespace {

const char* const kReservedWords[] = {"standby", "maximum", "summary", "trace", "usage", nullptr};

}  // namespace
}  // namespace es_acl

using namespace es_acl;

uint32_t es_acl_is_name_reserved(const char* name) {
  if (name == nullptr) return 0;
  for (const char* const* word = kReservedWords; *word != nullptr; ++word)
    if (std::strncmp(name, *word, ES_ACL_NAME_FIELD_SIZE) == 0) return 1;
  return 0;
}

es_acl_status es_acl_check_acl_name(const char* name) {
  DBG_INFO("Entering %s: acl_name: %s", __func__, shown(name));
  if (name == nullptr) {
    DBG_ERR("%s: acl name is NULL", __func__);
    return ES_ACL_E_NAME;
  }
  if (strnlen(name, ES_ACL_NAME_FIELD_SIZE) > ES_ACL_NAME_MAX) {
    DBG_ERR("%s: acl name too long", __func__);
    return ES_ACL_E_NAME;
  }
  if (es_acl_is_name_reserved(name) == 1) {
    DBG_ERR("%s: acl name is reserved", __func__);
    return ES_ACL_E_NAME;
  }
  const int rc = regexec(&es_acl_name_regex, name, 0, nullptr, 0);
  if (rc == REG_ESPACE) return ENOMEM;  // says nothing about the name
  if (rc != 0) {
    DBG_ERR("%s: acl name failed regexp match", __func__);
    return ES_ACL_E_NAME;
  }
  return 0;
}
