// What consumers are asked before a change is made. Each question returns why the change is refused, or nothing.
//
// Both block, for at most the deadline for each ACL.
#ifndef ES_ACL_PRODUCER_QUESTIONS_H_
#define ES_ACL_PRODUCER_QUESTIONS_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "acl_change.h"
#include "bus_port.h"
#include "service.h"

namespace es_acl::producer {

// How questions are put.
struct Asking {
  const Service& service;
  BusPort& bus;
  uint32_t deadline_ms;
  std::function<void(std::string_view line)> log;
  std::function<bool()> interrupted;  // true: there is no time left, give up
};

using Refusal = std::optional<std::string>;

// Is one of the ACLs that are to disappear in use? A consumer that does not answer in time is taken not to use it.
Refusal refused_by_use(const Asking& asking, std::span<const AclChange> changes);

// Has everyone the resources for what is to be added? Asked in two steps, ACL by ACL: the candidates, which the
// consumer holds, and the check of what it holds. A consumer that does not answer in time refuses.
//
// The questions of one change stand side by side: each ACL has an origin of its own, and the number is the change's.
// A question that a consumer holds on to, since it answered too late to be told, goes with the next change.
class ResourceQuestions {
 public:
  // `number`: of the change.
  ResourceQuestions(const Asking& asking, uint16_t number) : asking_(asking), number_(number) {}
  // The change is not made, unless it is settled: everything that was asked is withdrawn, so that what has been set
  // aside for it is released.
  ~ResourceQuestions() { take_back(true); }
  ResourceQuestions(const ResourceQuestions&) = delete;
  ResourceQuestions& operator=(const ResourceQuestions&) = delete;

  Refusal ask(std::span<const AclChange> changes);
  // The change has been made: what is held for it is let go, and there is nothing to release any more.
  void settle() { take_back(false); }

 private:
  struct Asked {
    std::string acl_name;
    QuestionKey key;
  };
  using Peers = std::unordered_set<uint64_t>;

  Refusal ask_about(const AclChange& change);
  Refusal hold(const AclChange& change, QuestionKey key, Peers* holders);
  Refusal check(const AclChange& change, QuestionKey key, const Peers& holders);
  void take_back(bool release) noexcept;

  const Asking& asking_;
  const uint16_t number_;
  std::vector<Asked> asked_;
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_QUESTIONS_H_
