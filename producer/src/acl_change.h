// The change of one ACL from one configuration to the next, as the messages that bring consumers along.
//
// Not every consumer holds the same of an ACL, and each is told in the form that fits what it holds.
#ifndef ES_ACL_PRODUCER_ACL_CHANGE_H_
#define ES_ACL_PRODUCER_ACL_CHANGE_H_

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "database.h"
#include "difference.h"

namespace es_acl::producer {

enum class Form {
  kWhole,  // holds all entries
  kRules,  // was given the rules in bulk, without the remarks
};
constexpr size_t kFormCount = 2;

using Message = std::span<const std::byte>;

class AclChange {
 public:
  // Null: not configured, which is the same as empty to those who read it. A message is at most `max_message`
  // bytes, or one record.
  AclChange(std::string name, AclPtr before, AclPtr after, size_t max_message);

  const std::string& name() const { return name_; }
  bool appears() const { return before_ == nullptr; }
  bool disappears() const { return after_ == nullptr; }
  // Nothing is different, neither the entries nor whether it is there.
  bool empty() const { return whole_.difference.empty() && appears() == disappears(); }

  // The same entries in the same order have only got other numbers.
  bool is_resequencing() const { return !whole_.resequencing.empty(); }

  // What to push, in order. Valid as long as the change.
  std::vector<Message> messages(Form form) const;
  // What a consumer of that form would have to find room for.
  std::span<const AceRecord> additions(Form form) const { return part(form).difference.additions; }
  // "new, 3 added" and the like, for a log line.
  std::string summary() const;

 private:
  struct Part {
    Difference difference;
    std::vector<std::byte> resequencing;  // the message; empty when there is none
  };
  const Part& part(Form form) const { return form == Form::kRules && has_remarks_ ? rules_ : whole_; }
  Part make_part(std::span<const AceRecord> before, std::span<const AceRecord> after) const;

  std::string name_;
  AclPtr before_, after_;
  size_t max_message_;
  bool has_remarks_;
  Part whole_;
  Part rules_;  // filled when there are remarks
};

// What differs between two databases, by name.
std::vector<AclChange> changes_between(const Database& before, const Database& after, size_t max_message);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_ACL_CHANGE_H_
