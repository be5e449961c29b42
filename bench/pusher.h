// The peer's side of the push benchmarks: makes streams of changes and sends them, by the bus or bare.
#ifndef ES_ACL_BENCH_PUSHER_H_
#define ES_ACL_BENCH_PUSHER_H_

#include <map>
#include <tuple>
#include <vector>

#include "es_acl/es_acl_wire.h"
#include "es_platform/pcx_producer.h"
#include "peer.h"

namespace es_acl_bench {

bool write_all(int fd, const void* data, size_t size);

class Pusher {
 public:
  // False when the connection is gone.
  bool serve(pcx_producer* producer, int fd, const BareRequest& order);

 private:
  using Stream = std::vector<es_acl_pcx_acl_ace>;
  // A stream and its like with other contents, so that every change changes something each time it is sent.
  struct Streams {
    Stream versions[2];
    uint32_t sent = 0;
    const Stream& next() { return versions[sent++ % 2]; }
  };

  const Stream& next_stream(const BareRequest& order);
  void push_stream(const BareRequest& order);
  void fan_out(const BareRequest& order);
  es_acl_pcx_acl_ace timed_change(const BareRequest& order);

  pcx_producer* producer_ = nullptr;
  std::map<std::tuple<uint32_t, uint32_t, uint32_t>, Streams> streams_;
};

}  // namespace es_acl_bench

#endif  // ES_ACL_BENCH_PUSHER_H_
