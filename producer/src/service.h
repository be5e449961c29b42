// Answers the consumers' requests (counts and reads, single and bulk) out of the current database: bytes in,
// bytes out, no input or output of its own. And brings a new database to those who have read the old one.
//
// A read of an ACL takes as many requests as it has batches, and all of them are answered from one state of
// the ACL: the first (start sequence 0) pins the snapshot for that consumer, the following are answered from
// it whatever has become of the database since, and it is let go when the last batch has been served, the
// consumer registers the ACL anew (a read that was under way then is worth nothing to it), or is gone.
//
// A consumer that has registered an ACL and reads it is pushed every change behind the state that the read showed, and
// none before it: choosing that state and arming the registration are one step, putting a new database in place and
// queueing its pushes are another, and the two exclude each other.
//
// Thread-safe. Answers are copied out with no lock held: snapshots never change.
#ifndef ES_ACL_PRODUCER_SERVICE_H_
#define ES_ACL_PRODUCER_SERVICE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "audience.h"
#include "bus_port.h"
#include "database.h"
#include "outbox.h"
#include "verification.h"

namespace es_acl::producer {

class Service {
 public:
  using Log = std::function<void(std::string_view line)>;

  // `log` is called with one line for every refused request, and for consumers that may have missed a change; on the
  // thread of the call that is the reason.
  Service(DatabasePtr database, Log log);

  // The bus by which consumers are asked; before it is known nobody is.
  void attach(BusPort* bus);

  DatabasePtr database() const;
  // From now on new reads see `next`; those under way go on as they began. `changes`: what differs from the present
  // one; it is pushed to those who hold the state before. std::bad_alloc, and then nothing has happened. To be called
  // by one thread.
  Delivery commit(DatabasePtr next, std::span<const AclChange> changes, BusPort& bus);
  // Who has registered the ACL.
  std::vector<Audience::Member> audience(const std::string& acl_name) const;

  // Answers one request of `peer` into `answer`, and sets *answer_length. The request's bytes are converted
  // in place. 0; 11 when consumers are being asked, and the request is to come again; 22 for a request that is not as the wire format has it; 90 (EMSGSIZE) when the answer does
  // not fit: an answer that was cut would look complete.
  uint32_t answer(const pcx_peer& peer, std::span<std::byte> request, std::span<std::byte> answer,
                  uint32_t* answer_length);
  // The consumer has registered the ACL, anew or once more after a lost connection. std::bad_alloc, and then it is to come
  // once more.
  void registered(const pcx_peer& peer, std::string_view acl_name);
  // The consumer has answered an inquiry.
  void inquiry_answered(const pcx_peer& peer, uint64_t number, std::span<const std::byte> answer);
  // The consumer is gone: its pins are let go, and it is told nothing more.
  void forget(const pcx_peer& peer);

  // Reads under way.
  size_t pinned() const;

 private:
  struct Request;  // one request being answered

  uint32_t dispatch(Request& request);
  uint32_t count(Request& request);
  uint32_t read(Request& request);
  uint32_t bulk_count(Request& request);
  uint32_t bulk_read(Request& request);
  uint32_t verify(Request& request);

  AclPtr snapshot_for_read(uint64_t peer, std::string_view name, uint32_t start_seq);
  DatabasePtr arm_for_bulk_read(uint64_t peer, std::span<const std::string_view> names);
  void unpin_locked(uint64_t peer, std::string_view name) noexcept;

  using Pins = std::map<std::string, AclPtr, std::less<>>;

  const Log log_;
  mutable std::mutex mutex_;                 // guards what follows
  DatabasePtr database_;                     // never null
  std::unordered_map<uint64_t, Pins> pins_;  // by peer id; no empty ones
  Audience audience_;
  BusPort* bus_ = nullptr;
  Verifications verifications_;
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_SERVICE_H_
