#include "report.h"

#include <cstdio>

#include "fields.h"

namespace es_acl::tool {

void complain(const std::string& name, const Problem& problem) {
  const std::string subject = name.empty() ? "" : printable(name) + ": ";
  std::fprintf(stderr, "es-acl: %s%s\n", subject.c_str(), problem.text.c_str());
}

}  // namespace es_acl::tool
