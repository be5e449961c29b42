// Benchmarks of es-acl beside their yardsticks. Everything in one table was taken in one run, repetitions of
// the benchmarks interleaved, so that a noisy machine is noisy for all of them.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "peer.h"
#include "ratios.h"

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--fan-consumer") == 0)
    return es_acl_bench::run_fan_consumer(static_cast<uint32_t>(std::atoi(argv[2])));
  std::vector<char*> args(argv, argv + argc);
  char repetitions[] = "--benchmark_repetitions=5";
  char interleaving[] = "--benchmark_enable_random_interleaving=true";
  char aggregates[] = "--benchmark_report_aggregates_only=true";
  args.insert(args.begin() + 1, {repetitions, interleaving, aggregates});
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;

  es_acl_bench::Peer peer;  // forks: before any thread
  if (!peer.start()) return 1;
  es_acl_bench::register_fetch_benchmarks(peer);
  es_acl_bench::register_bulk_benchmarks(peer);
  es_acl_bench::register_push_benchmarks(peer);
  es_acl_bench::register_catch_up_benchmarks(peer);
  es_acl_bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.print_ratios();
  return 0;
}
