// What happened, in order: one log for everything that a test can see the library do.
//
// Platform calls, store calls, debug lines, trace records, changes of watched locks and counters all become
// one-line events of the same log, so that a test compares one list of texts and thereby the order across all
// of them. Pointers show under the names that tests give them. Any thread may record.
#ifndef TESTS_SUPPORT_EVENT_LOG_H_
#define TESTS_SUPPORT_EVENT_LOG_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "es_platform/process.h"

namespace es_test {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

// The kinds are bits, so that a test selects several of them.
enum Kind : unsigned {
  kCall = 1,    // "dsv_init(ctx, 1)"
  kStore = 2,   // "store.get_header(\"edge\")"
  kLine = 4,    // "E: text", "I: text" or "D: text"
  kTrace = 8,   // "trace w" (wrapping) or "trace u" (unique)
  kLock = 16,   // "trylock(lock)", "lock(lock)" or "unlock(lock)" of a watched mutex
  kCount = 32,  // "main[5]" or "error[6]": the counter has gone up by one
  kAll = 63,
  kLink = 64  // "pcx_generation(class)": asked about the link to the producer; shown only when selected
};

// A bus request is recorded with the bytes it carries.
void record(Kind kind, std::string text, Bytes request = {});

// The texts of the selected kinds since the log was last taken or cleared; those that begin with a prefix;
// the bus requests.
Lines log(unsigned kinds = kAll);
Lines log_of(std::string_view prefix);
std::vector<Bytes> requests();
Lines take_log(unsigned kinds = kAll);
void clear_log();

// A list of lines from single lines and lists.
inline void append(Lines& all, const std::string& line) { all.push_back(line); }
inline void append(Lines& all, const Lines& more) { all.insert(all.end(), more.begin(), more.end()); }
template <class... Parts>
Lines lines(const Parts&... parts) {
  Lines all;
  (append(all, parts), ...);
  return all;
}

// How a pointer shows in the log. Unnamed ones show as "ptr", null as "null".
void name_pointer(const void* pointer, const std::string& name);
std::string pointer_name(const void* pointer);

// The counter blocks that acl_client_relay_init() hands out. A change becomes an event when the next event is
// recorded or the log is read.
extern acl_client_relay_entry main_counters[ACL_CLIENT_RELAY_ENTRIES];
extern acl_client_relay_entry error_counters[ACL_CLIENT_RELAY_ENTRIES];

// While one exists on a thread, that thread is inside the test's own machinery: its allocations do not count
// against the budget and its lock steps are not recorded.
class Backstage {
 public:
  Backstage() { ++depth(); }
  ~Backstage() { --depth(); }
  Backstage(const Backstage&) = delete;
  Backstage& operator=(const Backstage&) = delete;
  static bool inside() { return depth() > 0; }

 private:
  static int& depth();
};

}  // namespace es_test

#endif  // TESTS_SUPPORT_EVENT_LOG_H_
