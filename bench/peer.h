// The process at the other end of the fetch and push benchmarks: a bus producer of ready-made ACLs, and the same bytes
// on a bare socket. The bare socket also carries the orders to push.
#ifndef ES_ACL_BENCH_PEER_H_
#define ES_ACL_BENCH_PEER_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "es_acl/es_acl_wire.h"

namespace es_acl_bench {

// What a client of the bare socket asks for.
struct BareRequest {
  enum Kind : uint32_t {
    kRead,      // `count` records from `first` on; the answer is 160 * count bytes
    kPush,      // about `count` changes of the ACL of `size` ACEs, `batch` a message, on the bus; then kDone
    kPushBare,  // the same bytes here, coalesced
    kPing,      // one changed ACE of the ACL of `size` ACEs that carries the time of its sending, on the bus
    kPingBare,  // the same here
    kFan,       // `count` messages of `batch` records for kFanName
    kRestart,   // the bus's producer goes and comes again, every `count`-th ACE (0: none) another one
  };
  Kind kind;
  uint32_t first;
  uint32_t count;
  uint32_t size;
  uint32_t batch;
};

// Pushed, as a producer request without bytes, when an order has been pushed.
inline constexpr char kDoneName[] = "bench-done";
inline constexpr char kFanName[] = "bench-fan";

// The changes of an order: so many messages of `batch` records each, alternately new ACEs, changed ACEs and the removal
// of the new ones, at random places of the list.
uint32_t push_messages(const BareRequest& order);

// Nanoseconds of the clock that both processes see.
uint64_t shared_clock_ns();

// ACL names and sizes that the peer serves: "acl-1000" has 1000 ACEs, numbered 10, 20, ...
std::string acl_name(int64_t size);

// Sets of ACLs that are got together: "acl-100-7" is the eighth of those with 100 ACEs.
struct BulkSize {
  int64_t acls, aces;
};
inline constexpr BulkSize kBulkSizes[] = {{1000, 100}, {100, 10000}, {10000, 10}};
std::string acl_name(int64_t size, int64_t index);

class Peer {
 public:
  Peer() = default;
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  // Forks the peer, with a bus directory of its own in the environment, and waits until it serves.
  bool start();
  // A new connection to the bare socket, or -1.
  int connect_bare() const;

 private:
  std::string directory_;
  pid_t pid_ = -1;
};

// Receives and converts `count` records of the bare socket, from `first` on.
bool read_bare(int fd, es_acl_pcx_acl_ace* records, uint32_t first, uint32_t count);

void register_fetch_benchmarks(const Peer& peer);
void register_bulk_benchmarks(const Peer& peer);
void register_push_benchmarks(const Peer& peer);
void register_catch_up_benchmarks(const Peer& peer);
// The process of one fan-out consumer: counts `messages` and says so on standard output.
int run_fan_consumer(uint32_t messages);

}  // namespace es_acl_bench

#endif  // ES_ACL_BENCH_PEER_H_
