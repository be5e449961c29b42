// The std::map that the library is compared with, filled over the same bus, and the library's start.
#ifndef ES_ACL_BENCH_MAP_STORE_H_
#define ES_ACL_BENCH_MAP_STORE_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "es_acl/es_acl_types.h"

namespace es_acl_bench {

void init_library();

// Records that one read asks for.
uint32_t batch_size();

struct MapStore {
  std::mutex lock;
  std::map<uint32_t, es_acl_ace> aces;
};

// Reads an ACL as the library does. False when the bus fails.
bool read_into_map(void* address, const std::string& name, MapStore& store);

}  // namespace es_acl_bench

#endif  // ES_ACL_BENCH_MAP_STORE_H_
