// The process that the fetch benchmarks fetch from: a bus producer of ready-made ACLs, and the same bytes on
// a bare socket.
#ifndef ES_ACL_BENCH_PEER_H_
#define ES_ACL_BENCH_PEER_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace es_acl_bench {

// What a client of the bare socket asks for: `count` records from `first` on; the answer is 160 * count
// bytes.
struct BareRequest {
  uint32_t first;
  uint32_t count;
};

// ACL names and sizes that the peer serves: "acl-1000" has 1000 ACEs, numbered 10, 20, ...
std::string acl_name(int64_t size);

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

void register_fetch_benchmarks(const Peer& peer);

}  // namespace es_acl_bench

#endif  // ES_ACL_BENCH_PEER_H_
