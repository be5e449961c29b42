#include "ratios.h"

#include <cstdio>

namespace es_acl_bench {

namespace {

std::vector<std::string> split(const std::string& name) {
  std::vector<std::string> parts;
  for (size_t begin = 0; begin <= name.size();) {
    const size_t end = std::min(name.find('/', begin), name.size());
    parts.push_back(name.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

// A number, or two as in 100x1000.
bool is_size(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789x") == std::string::npos;
}

}  // namespace

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
  ConsoleReporter::ReportRuns(runs);
  for (const Run& run : runs) {
    if (run.error_occurred || (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median")) continue;
    if (run.run_type == Run::RT_Iteration && run.repetitions > 1) continue;
    const std::vector<std::string> parts = split(run.run_name.function_name + "/" + run.run_name.args);
    if (parts.size() < 2) continue;
    const std::string size = parts.size() > 2 && is_size(parts[2]) ? parts[2] : "";
    times_[{parts[0], size}][parts[1]] =
        run.GetAdjustedRealTime() * 1e9 / benchmark::GetTimeUnitMultiplier(run.time_unit);
  }
}

void RatioReporter::print_ratios() const {
  std::printf("\n%-16s %9s %14s %-16s %14s %8s\n", "what", "size", "es_acl ns", "beside", "ns", "ratio");
  for (const auto& [key, variants] : times_) {
    const auto ours = variants.find("es_acl");
    if (ours == variants.end()) continue;
    for (const auto& [name, time] : variants) {
      if (name == "es_acl") continue;
      std::printf("%-16s %9s %14.1f %-16s %14.1f %8.2f\n", key.group.c_str(), key.size.c_str(), ours->second,
                  name.c_str(), time, time / ours->second);
    }
  }
  std::printf("\nratio: the other's time over ours, medians of one run; above 1 we are faster\n");
}

}  // namespace es_acl_bench
