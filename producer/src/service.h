// Answers the consumers' requests (counts and reads, single and bulk) out of the current database: bytes in,
// bytes out, no input or output of its own.
//
// A read of an ACL takes as many requests as it has batches, and all of them are answered from one state of
// the ACL: the first (start sequence 0) pins the snapshot for that consumer, the following are answered from
// it whatever has become of the database since, and it is let go when the last batch has been served or the
// consumer is gone.
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

#include "database.h"
#include "es_platform/pcx_producer.h"

namespace es_acl::producer {

class Service {
 public:
  using Log = std::function<void(std::string_view line)>;

  // `log` is called with one line for every refused request.
  Service(DatabasePtr database, Log log);

  DatabasePtr database() const;
  // From now on new reads see `database`; those under way go on as they began.
  void replace(DatabasePtr database);

  // Answers one request of `peer` into `answer`, and sets *answer_length. The request's bytes are converted
  // in place. 0; 22 for a request that is not as the wire format has it; 90 (EMSGSIZE) when the answer does
  // not fit: an answer that was cut would look complete.
  uint32_t answer(const pcx_peer& peer, std::span<std::byte> request, std::span<std::byte> answer,
                  uint32_t* answer_length);
  // The consumer is gone: its pins are let go.
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

  AclPtr snapshot_for_read(uint64_t peer, std::string_view name, uint32_t start_seq);
  void unpin(uint64_t peer, std::string_view name);

  using Pins = std::map<std::string, AclPtr, std::less<>>;

  const Log log_;
  mutable std::mutex mutex_;                 // guards what follows
  DatabasePtr database_;                     // never null
  std::unordered_map<uint64_t, Pins> pins_;  // by peer id; no empty ones
};

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_SERVICE_H_
