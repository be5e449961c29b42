// JSON piece by piece: a document tree of a million entries would take a gigabyte. What comes from outside and
// may need escaping, names and texts, goes through the JSON library. Pure functions.
#ifndef ES_ACL_TOOLS_ENTRY_JSON_H_
#define ES_ACL_TOOLS_ENTRY_JSON_H_

#include <string>

#include "client.h"
#include "fields.h"

namespace es_acl::tool {

// The members of one object; the first one is not preceded by a comma.
class Members {
 public:
  explicit Members(std::string& out) : out_(out) { out_ += '{'; }

  std::string& name(const char* name) {
    if (!first_) out_ += ',';
    first_ = false;
    out_ += '"';
    out_ += name;
    return out_ += "\":";
  }
  void number(const char* member, uint32_t value) { append_number(name(member), value); }
  void boolean(const char* member, bool value) { name(member) += value ? "true" : "false"; }
  void word(const char* member, const char* value) { ((name(member) += '"') += value) += '"'; }
  void mac(const char* member, const uint16_t words[3]) {
    append_mac(name(member) += '"', words);
    out_ += '"';
  }
  void end() { out_ += '}'; }

 private:
  std::string& out_;
  bool first_ = true;
};

std::string quoted(const std::string& text);
const char* state_name(State state);

// An entry in the shape and with the names that it has in the producer's configuration.
void put_ace(std::string& out, const es_acl_ace& ace);
void put_counts(Members& members, const Counts& counts);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_ENTRY_JSON_H_
