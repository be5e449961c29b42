// How answers are told: as text for people or as one JSON document.
#ifndef ES_ACL_TOOLS_REPORT_H_
#define ES_ACL_TOOLS_REPORT_H_

#include <memory>
#include <string>

#include "client.h"
#include "options.h"
#include "output.h"

namespace es_acl::tool {

// What an ACL says about a frame.
struct Verdict {
  uint32_t result;  // ES_ACL_MATCH_*
  es_acl_match_hit hit;
};

class Report {
 public:
  virtual ~Report() = default;

  virtual void show(const std::string& name, const Acl& acl) = 0;
  virtual void count(const std::string& name, const Counts& counts) = 0;
  virtual void verify(const std::string& name, const Client::Lists& lists) = 0;
  virtual void match(const std::string& name, const Verdict& verdict) = 0;
  // An ACL that could not be had.
  virtual void problem(const std::string& name, const Problem& problem) = 0;
  // Nothing could be had: the library did not start.
  virtual void fatal(const Problem& problem) = 0;
  virtual void finish() = 0;
};

std::unique_ptr<Report> text_report(Output& out, const Options& options);
std::unique_ptr<Report> json_report(Output& out, const Options& options);

// What stands for a list's state, and its digest as it is written.
const char* list_state_name(const es_acl_list_info& list);
std::string digest_text(const es_acl_list_info& list);
// The state tells of a copy that can be compared.
bool is_compared(const es_acl_list_info& list);

// Both tell what went wrong on standard error, as "es-acl: NAME: why".
void complain(const std::string& name, const Problem& problem);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_REPORT_H_
