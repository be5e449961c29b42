#include "report.h"

#include <cstdio>
#include <iterator>

#include "fields.h"

namespace es_acl::tool {

void complain(const std::string& name, const Problem& problem) {
  const std::string subject = name.empty() ? "" : printable(name) + ": ";
  std::fprintf(stderr, "es-acl: %s%s\n", subject.c_str(), problem.text.c_str());
}

const char* list_state_name(const es_acl_list_info& list) {
  constexpr const char* kNames[] = {"in-step", "catching-up", "out-of-touch", "reading", "no-answer"};
  return list.state < std::size(kNames) ? kNames[list.state] : "unknown";
}

std::string digest_text(const es_acl_list_info& list) {
  char text[24];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(list.digest));
  return text;
}

bool is_compared(const es_acl_list_info& list) { return list.state < ES_ACL_READING; }

}  // namespace es_acl::tool
