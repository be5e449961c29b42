// What has to be told to a consumer that holds one state of an ACL so that it comes to hold another. Pure.
//
// There are two ways to say it. Entry by entry, under their sequence numbers: remove these, add those; an entry
// whose content changed under its number is added again and replaces what is there. Or, when the same entries in
// the same order have only got other numbers, with one series of numbers for all of them.
#ifndef ES_ACL_PRODUCER_DIFFERENCE_H_
#define ES_ACL_PRODUCER_DIFFERENCE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "acl.h"

namespace es_acl::producer {

// The entries are numbered start, start + step, ... in their order, without the numbers in `skip`.
struct Resequencing {
  uint32_t start;
  uint32_t step;
  std::vector<uint32_t> skip;  // ascending
};

struct Difference {
  // Entry by entry, in wire byte order and ascending sequence order, with their command set.
  std::vector<AceRecord> removals;
  std::vector<AceRecord> additions;
  size_t changed = 0;  // how many of the additions replace an entry
  // The same in one message, when it is not longer and not above the limit.
  std::optional<Resequencing> resequencing;

  bool empty() const { return removals.empty() && additions.empty(); }
};

// `before` and `after` in wire byte order, ascending by sequence number. `max_message`: most bytes of a message.
Difference find_difference(std::span<const AceRecord> before, std::span<const AceRecord> after,
                           size_t max_message);

// The series with the shortest skip list that yields exactly these numbers; nothing when that list would be longer
// than `max_skip`, or there are no numbers. Precondition: they are ascending.
std::optional<Resequencing> find_series(std::span<const uint32_t> numbers, size_t max_skip);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_DIFFERENCE_H_
