#include "questions.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <new>
#include <utility>

#include "es_platform/diag.h"
#include "es_platform/process.h"
#include "log.h"

namespace es_acl::producer {
namespace {

constexpr const char* kEnding = "the producer is ending";

std::string quoted(const AclChange& change) { return "acl '" + change.name() + "'"; }

// Who that is: by its own word where there is one, else by what the kernel knows.
std::string consumer_text(const BusPort::Answer& answer) {
  std::string process = "process " + std::to_string(answer.peer.pid);
  if (answer.response) {
    return printable(answer.response->proc_name) + " (" + process + " on " +
           printable(answer.response->node_name) + ")";
  }
  char name[ACL_PCX_RESP_PROC_NAME_SIZE];
  if (proc_name_get(answer.peer.pid, name, sizeof name) != 0) return process;
  return printable(name) + " (" + process + ")";
}

bool is_silent(const BusPort::Answer& answer) {
  return answer.status == 0 ? !answer.response : answer.status != ESRCH;
}

Refusal refused_by_use_of(const Asking& asking, const AclChange& change) {
  std::string users;
  for (const BusPort::Answer& answer :
       asking.bus.ask(change.name(), usage_question(change.name()), asking.deadline_ms)) {
    if (is_silent(answer)) {
      asking.log(quoted(change) + ": " + consumer_text(answer) +
                 " did not say whether it uses it; taken as not in use");
    } else if (answer.response && answer.response->rc == 0 && answer.response->in_use != 0) {
      users += (users.empty() ? "" : ", ") + consumer_text(answer);
    }
  }
  if (users.empty()) return std::nullopt;
  return quoted(change) + " cannot be dropped: it is in use by " + users;
}

}  // namespace

Refusal refused_by_use(const Asking& asking, std::span<const AclChange> changes) {
  for (const AclChange& change : changes) {
    if (!change.disappears()) continue;
    if (asking.interrupted()) return kEnding;
    if (Refusal refusal = refused_by_use_of(asking, change)) return refusal;
  }
  return std::nullopt;
}

Refusal ResourceQuestions::ask(std::span<const AclChange> changes) {
  for (const AclChange& change : changes) {
    if (change.additions(Form::kWhole).empty() || change.is_resequencing()) continue;
    if (asking_.interrupted()) return kEnding;
    if (Refusal refusal = ask_about(change)) return refusal;
  }
  return std::nullopt;
}

Refusal ResourceQuestions::ask_about(const AclChange& change) {
  if (asked_.size() == std::numeric_limits<uint16_t>::max()) return "too many ACLs to ask about at once";
  const QuestionKey key = {static_cast<uint16_t>(asked_.size() + 1), number_};
  asked_.push_back({change.name(), key});
  Peers holders;
  if (Refusal refusal = hold(change, key, &holders)) return refusal;
  return holders.empty() ? std::nullopt : check(change, key, holders);
}

Refusal ResourceQuestions::hold(const AclChange& change, QuestionKey key, Peers* holders) {
  for (const Audience::Member& member : asking_.service.audience(change.name())) {
    const auto candidates = change.additions(member.armed.value_or(Form::kWhole));
    if (candidates.empty()) continue;
    const auto question = held_question(change.name(), key, candidates);
    const uint32_t status = asking_.bus.push_to(member.peer, change.name(), question);
    if (status == 0) holders->insert(member.peer);
    if (status == 0 || status == ENOENT) continue;
    return quoted(change) + ": the question for resources, of " + std::to_string(question.size()) +
           " bytes, cannot be sent: " + errcode_string(status);
  }
  return std::nullopt;
}

Refusal ResourceQuestions::check(const AclChange& change, QuestionKey key, const Peers& holders) {
  std::string refusing;
  for (const BusPort::Answer& answer :
       asking_.bus.ask(change.name(), resource_check(change.name(), key), asking_.deadline_ms)) {
    if (!holders.contains(answer.peer.id)) continue;  // it came after the question
    std::string reason;
    if (is_silent(answer)) reason = "no answer";
    if (answer.response && answer.response->rc != 0) reason = errcode_string(answer.response->rc);
    if (!reason.empty()) refusing += (refusing.empty() ? "" : ", ") + consumer_text(answer) + ": " + reason;
  }
  if (refusing.empty()) return std::nullopt;
  return quoted(change) + " is refused for want of resources by " + refusing;
}

// To everyone who registered the ACL; who holds nothing under the key has nothing to do. One deadline for all of
// it: what a silent consumer is told, it will find when it speaks again.
void ResourceQuestions::take_back(bool release) noexcept {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::milliseconds(asking_.deadline_ms);
  for (const Asked& asked : std::exchange(asked_, {})) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    try {
      asking_.bus.ask(asked.acl_name, resource_withdrawal(asked.acl_name, asked.key, release),
                      static_cast<uint32_t>(std::max<int64_t>(left, 0)));
    } catch (const std::bad_alloc&) {
      asking_.log("no memory: a question for resources could not be taken back");
    }
  }
}

}  // namespace es_acl::producer
