// Ratios between benchmarks of one run.
//
// A benchmark called GROUP/es_acl/SIZE is ours; every GROUP/OTHER/SIZE beside it is what it is compared with.
// Names without a size compare in the same way.
#ifndef ES_ACL_BENCH_RATIOS_H_
#define ES_ACL_BENCH_RATIOS_H_

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace es_acl_bench {

// The console reporter, which also keeps each benchmark's median.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override;
  // A line per comparison: time of the other over time of ours.
  void print_ratios() const;

 private:
  struct Key {
    std::string group, size;
    auto operator<=>(const Key&) const = default;
  };
  std::map<Key, std::map<std::string, double>>
      times_;  // nanoseconds per iteration (or per item, where counted)
};

}  // namespace es_acl_bench

#endif  // ES_ACL_BENCH_RATIOS_H_
