// What diagnostics cost when nobody looks: a debug line with its category off, a trace record, a counter, the
// lock pair.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "es_acl/es_acl.h"
#include "es_platform/diag.h"

namespace {

void debug_line_off(benchmark::State& state) {
  debug_category* handle = nullptr;
  if (acl_debug_init(&handle, &state, "/debug/bench/", 1) != 0) std::abort();
  for (auto _ : state) {
    benchmark::DoNotOptimize(handle);
    if (handle->enabled != 0) debug_printf(handle, 0, 1, "%s: %d", __func__, 1);
  }
}
BENCHMARK(debug_line_off)->Name("debug_line_off");

void trace_record(benchmark::State& state) {
  rlog_ctx* ctx = nullptr;
  if (acl_rlog_init("/bench/", "_wr", 0, 2048, &ctx) != 0) std::abort();
  for (auto _ : state) _rlog_2(ctx, "trace_record", "measured", 1, 2);
  acl_rlog_close(ctx);
}
BENCHMARK(trace_record)->Name("trace_record");

}  // namespace
