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

namespace es_test {

using Lines = std::vector<std::string>;

// The kinds are bits, so that a test selects several of them.
enum Kind : unsigned {
  kCall = 1,    // "dsv_init(ctx, 1)"
  kStore = 2,   // "store.get_header(\"edge\")"
  kLine = 4,    // "E: text", "I: text" or "D: text"
  kTrace = 8,   // "trace w" (wrapping) or "trace u" (unique)
  kLock = 16,   // "trylock(lock)", "lock(lock)" or "unlock(lock)" of a watched mutex
  kCount = 32,  // "main[5]" or "error[6]": the counter has gone up by one
  kAll = 63
};

struct Event {
  Kind kind;
  std::string text;
  std::vector<uint8_t> bytes;  // what a bus request carried
  std::string operation;       // who wrote a trace record
};

void record(Event event);

// The texts of the selected kinds since the last clear_log().
Lines log(unsigned kinds = kAll);
std::vector<Event> events(unsigned kinds = kAll);
void clear_log();

// How a pointer shows in the log. Unnamed ones show as "ptr", null as "null".
void name_pointer(const void* pointer, std::string name);
std::string pointer_name(const void* pointer);

// Counter blocks whose changes become events: each is noticed when the next event is recorded or the log is
// read.
void watch_counters(const void* main_block, const void* error_block);

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

// --- Showing arguments ---

struct Sized {  // "84 bytes"
  uint32_t bytes;
};
struct Capacity {  // "cap 320"
  uint32_t bytes;
};

std::string show(uint64_t value);
std::string show(const char* text);
std::string show(const void* pointer);
std::string show(Sized size);
std::string show(Capacity size);

// "operation(argument, argument)".
template <class... Arguments>
std::string describe(std::string_view operation, Arguments... arguments) {
  std::string text(operation);
  [[maybe_unused]] const char* separator = "(";
  ((text += separator, text += show(arguments), separator = ", "), ...);
  return text += sizeof...(arguments) == 0 ? "()" : ")";
}

}  // namespace es_test

#endif  // TESTS_SUPPORT_EVENT_LOG_H_
