#include "acl_change.h"

#include <algorithm>
#include <utility>

#include "messages.h"

namespace es_acl::producer {
namespace {

std::span<const AceRecord> records_of(const AclPtr& acl) {
  return acl ? acl->records() : std::span<const AceRecord>();
}

std::vector<AceRecord> rules_of(const AclPtr& acl) {
  std::vector<AceRecord> rules(acl ? acl->rule_count() : 0);
  if (acl) acl->copy_rules(std::as_writable_bytes(std::span(rules)).data());
  return rules;
}

void append_batches(std::span<const AceRecord> records, size_t max_message, std::vector<Message>* messages) {
  const size_t most = std::max<size_t>(1, max_message / sizeof(AceRecord));
  for (; !records.empty(); records = records.subspan(std::min(most, records.size())))
    messages->push_back(std::as_bytes(records.first(std::min(most, records.size()))));
}

}  // namespace

AclChange::AclChange(std::string name, AclPtr before, AclPtr after, size_t max_message)
    : name_(std::move(name)),
      before_(std::move(before)),
      after_(std::move(after)),
      max_message_(max_message),
      has_remarks_((before_ && before_->remark_count() != 0) || (after_ && after_->remark_count() != 0)),
      whole_(make_part(records_of(before_), records_of(after_))) {
  if (has_remarks_) rules_ = make_part(rules_of(before_), rules_of(after_));
}

AclChange::Part AclChange::make_part(std::span<const AceRecord> before,
                                     std::span<const AceRecord> after) const {
  Part part{find_difference(before, after, max_message_), {}};
  if (part.difference.resequencing) part.resequencing = reseq_message(name_, *part.difference.resequencing);
  return part;
}

std::vector<Message> AclChange::messages(Form form) const {
  const Part& told = part(form);
  if (!told.resequencing.empty()) return {told.resequencing};
  std::vector<Message> messages;
  append_batches(told.difference.removals, max_message_, &messages);
  append_batches(told.difference.additions, max_message_, &messages);
  return messages;
}

std::string AclChange::summary() const {
  std::string text;
  const auto say = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
  const auto count = [&](size_t number, const char* what) {
    if (number != 0) say(std::to_string(number) + what);
  };
  const Difference& difference = whole_.difference;
  if (appears()) say("new");
  if (disappears()) say("dropped");
  if (difference.resequencing) {
    say("renumbered");
    return text;
  }
  count(difference.removals.size(), " removed");
  count(difference.changed, " changed");
  count(difference.additions.size() - difference.changed, " added");
  return text;
}

std::vector<AclChange> changes_between(const Database& before, const Database& after, size_t max_message) {
  std::vector<AclChange> changes;
  const auto compare = [&](const std::string& name) {
    AclChange change(name, before.find(name), after.find(name), max_message);
    if (!change.empty()) changes.push_back(std::move(change));
  };
  for (const auto& [name, acl] : before.acls()) compare(name);
  for (const auto& [name, acl] : after.acls()) {
    if (!before.find(name)) compare(name);
  }
  return changes;
}

}  // namespace es_acl::producer
