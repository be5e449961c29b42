#include "updater.h"

#include <algorithm>
#include <utility>

#include "es_platform/diag.h"

namespace es_acl::producer {
namespace {

constexpr size_t kMostNamed = 8;  // ACLs in a log line

// New names, known to everyone until the object goes, and beyond it when they are kept.
class Publication {
 public:
  explicit Publication(BusPort& bus) : bus_(bus) {}
  ~Publication() {
    for (const std::string& name : names_) bus_.unpublish(name);
  }
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;

  Refusal add(const std::string& name) {
    names_.push_back(name);
    const uint32_t status = bus_.publish(name);
    if (status == 0) return std::nullopt;
    return "acl '" + name + "' cannot be published: " + errcode_string(status);
  }
  void keep() noexcept { names_.clear(); }

 private:
  BusPort& bus_;
  std::vector<std::string> names_;
};

Refusal publish_new(std::span<const AclChange> changes, Publication* publication) {
  for (const AclChange& change : changes) {
    if (!change.appears()) continue;
    if (Refusal refusal = publication->add(change.name())) return refusal;
  }
  return std::nullopt;
}

std::string counted(size_t number, const char* what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string summary(std::span<const AclChange> changes, const Delivery& delivery) {
  std::string text;
  for (const AclChange& change : changes.first(std::min(kMostNamed, changes.size())))
    text += (text.empty() ? "acl '" : ", acl '") + change.name() + "' (" + change.summary() + ")";
  if (changes.size() > kMostNamed) text += ", and " + std::to_string(changes.size() - kMostNamed) + " more";
  return text + "; " + counted(delivery.messages, "message") + " to " +
         counted(delivery.consumers, "consumer");
}

}  // namespace

Updater::Outcome Updater::apply(DatabasePtr next) {
  const DatabasePtr present = service_.database();
  const std::vector<AclChange> changes = changes_between(*present, *next, options_.max_message);
  if (changes.empty()) return {Result::kUnchanged, "nothing has changed"};

  if (Refusal refusal = refused_by_use(asking_, changes)) return {Result::kRefused, *refusal};
  ResourceQuestions questions(asking_, ++number_);
  if (options_.check_resources) {
    if (Refusal refusal = questions.ask(changes)) return {Result::kRefused, *refusal};
  }
  Publication publication(bus_);
  if (Refusal refusal = publish_new(changes, &publication)) return {Result::kRefused, *refusal};
  const Delivery delivery = service_.commit(std::move(next), changes, bus_);
  publication.keep();
  for (const AclChange& change : changes) {
    if (change.disappears()) bus_.unpublish(change.name());
  }
  questions.settle();
  return {Result::kApplied, summary(changes, delivery)};
}

}  // namespace es_acl::producer
