// Who has what of an ACL: questions to its consumers that are under way, and what has come back.
//
// A verification begins with a question that goes out behind the pushes which have brought the consumers to one state of
// the ACL, and ends when all have answered or its time is over. Each belongs to the consumer that asks for it, which comes
// again until there is a result. A consumer that reads the ACL between question and answer may answer with a later state:
// it has nothing to compare, and so has one that registers the ACL anew: the question may have gone with its connection.
// Results that nobody fetches are forgotten.
//
// Not thread-safe.
#ifndef ES_ACL_PRODUCER_VERIFICATION_H_
#define ES_ACL_PRODUCER_VERIFICATION_H_

#include <chrono>
#include <cstdint>
#include <list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "acl.h"
#include "bus_port.h"
#include "es_acl/es_acl_digest.h"

namespace es_acl::producer {

struct Verification {
  using Clock = std::chrono::steady_clock;
  struct Client {
    pcx_peer peer;
    bool has_read = false;
    bool settled = false;
    es_acl_pcx_digest_resp copy{};  // in host byte order
  };

  uint64_t asker;
  std::string name;
  AclPtr acl;             // null: not configured
  Clock::time_point end;  // not later than the last answer
  uint64_t number = 0;    // of the question
  std::vector<Client> clients{};

  // What is told of it, in wire byte order. To be called without a lock: it takes time with the number of entries.
  std::vector<std::byte> result() const;
};

class Verifications {
 public:
  using Clock = Verification::Clock;

  explicit Verifications(Clock::time_point (*now)() = Clock::now) : now_(now) {}

  bool has(uint64_t asker, std::string_view name) const;
  // Puts the question. 0; 11: too many are under way; or a status of the bus.
  uint32_t begin(uint64_t asker, std::string_view name, AclPtr acl, Clock::duration deadline, BusPort& bus);
  // Takes out one that is over.
  std::optional<Verification> take(uint64_t asker, std::string_view name);

  void answered(const pcx_peer& peer, uint64_t number, std::span<const std::byte> answer);
  void has_read(uint64_t peer, std::string_view name) noexcept;
  void registered(uint64_t peer, std::string_view name) noexcept;
  void forget(uint64_t peer) noexcept;
  // Those that were over a while ago: whoever asked has given up, and who asks again wants to know how things are now.
  void forget_abandoned() noexcept;

 private:
  void end_if_settled(Verification* one) const noexcept;

  Clock::time_point (*const now_)();
  std::list<Verification> under_way_;
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_VERIFICATION_H_
