// The first fetch of "acl-SIZE", which other benchmarks stand beside.
#ifndef ES_ACL_BENCH_FETCH_H_
#define ES_ACL_BENCH_FETCH_H_

#include <benchmark/benchmark.h>

namespace es_acl_bench {

void fetch_es_acl(benchmark::State& state);

}  // namespace es_acl_bench

#endif  // ES_ACL_BENCH_FETCH_H_
