#include "difference.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace es_acl::producer {
namespace {

uint32_t number_of(const AceRecord& record) { return es_acl_wire_32(record.ace.seq); }

bool same_entry(const AceRecord& a, const AceRecord& b) {
  return std::memcmp(&a.ace, &b.ace, sizeof a.ace) == 0;
}

bool same_but_for_number(const AceRecord& a, AceRecord b) {
  b.ace.seq = a.ace.seq;
  return same_entry(a, b);
}

AceRecord with_command(AceRecord record, uint32_t command) {
  record.cmd = es_acl_wire_32(command);
  return record;
}

// Walks both states at once, number by number.
Difference compare(std::span<const AceRecord> before, std::span<const AceRecord> after) {
  Difference result;
  auto old = before.begin();
  auto now = after.begin();
  while (old != before.end() || now != after.end()) {
    const bool only_old = now == after.end() || (old != before.end() && number_of(*old) < number_of(*now));
    if (only_old) {
      result.removals.push_back(with_command(*old++, ACL_PCX_REMOVE_ACE));
      continue;
    }
    const bool both = old != before.end() && number_of(*old) == number_of(*now);
    if (!both || !same_entry(*old, *now)) {
      result.additions.push_back(with_command(*now, ACL_PCX_ADD_ACE));
      result.changed += both;
    }
    old += both;
    ++now;
  }
  return result;
}

}  // namespace

// The first number is where the series starts, and its step has to divide every gap; the largest one that does
// meets the fewest numbers on its way.
std::optional<Resequencing> find_series(std::span<const uint32_t> numbers, size_t max_skip) {
  if (numbers.empty()) return std::nullopt;
  uint32_t step = 0;
  for (size_t i = 1; i < numbers.size(); ++i) step = std::gcd(step, numbers[i] - numbers[i - 1]);
  if (step == 0) step = 1;  // of a single entry
  const uint64_t steps = (numbers.back() - numbers.front()) / step;
  if (steps - (numbers.size() - 1) > max_skip) return std::nullopt;
  Resequencing series{numbers.front(), step, {}};
  for (size_t i = 1; i < numbers.size(); ++i) {
    for (uint32_t passed = numbers[i - 1] + step; passed != numbers[i]; passed += step)
      series.skip.push_back(passed);
  }
  return series;
}

Difference find_difference(std::span<const AceRecord> before, std::span<const AceRecord> after,
                           size_t max_message) {
  Difference result = compare(before, after);
  if (result.empty() || !std::ranges::equal(before, after, same_but_for_number)) return result;
  const size_t as_batches = sizeof(AceRecord) * (result.removals.size() + result.additions.size());
  const size_t room = std::min(max_message, as_batches);
  if (room < sizeof(acl_pcx_reseq)) return result;
  std::vector<uint32_t> numbers(after.size());
  std::ranges::transform(after, numbers.begin(), number_of);
  result.resequencing = find_series(numbers, (room - sizeof(acl_pcx_reseq)) / sizeof(uint32_t));
  return result;
}

}  // namespace es_acl::producer
