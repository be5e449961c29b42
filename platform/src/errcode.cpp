// Texts of statuses, and the end of a process whose invariants are broken.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "es_platform/diag.h"
#include "es_platform/dsv.h"
#include "guard.h"

namespace {

struct added_table {
  const errcode_text* table;
  size_t count;
  bool operator==(const added_table&) const = default;
};

// Never destroyed: other threads may outlive the end of main().
struct added_tables {
  std::mutex mutex;
  std::vector<added_table> list;

  static added_tables& instance() {
    static added_tables& all = *new added_tables;
    return all;
  }

  const char* find(uint32_t code) {
    const std::lock_guard lock(mutex);
    for (const added_table& one : list) {
      const auto* end = one.table + one.count;
      const auto* found =
          std::find_if(one.table, end, [code](const errcode_text& e) { return e.code == code; });
      if (found != end) return found->text;
    }
    return nullptr;
  }
};

// The text of a number that nobody has a text for, in one of a few buffers of the thread.
const char* numbered(uint32_t code) {
  constexpr size_t kBuffers = 4;
  constexpr uint32_t kClassMask = 0xe0000000, kTransient = 0x80000000;
  static thread_local char buffers[kBuffers][40];
  static thread_local size_t turn = 0;
  char(&text)[40] = buffers[turn++ % kBuffers];
  const bool transient = (code & kClassMask) == kTransient;
  std::snprintf(text, sizeof text, "%s 0x%" PRIx32 " (%" PRIu32 ")", transient ? "transient error" : "error",
                code, code);
  return text;
}

const char* posix_text(uint32_t code) {
  constexpr uint32_t kLargest = 4095;
  return code <= kLargest ? strerrordesc_np(static_cast<int>(code)) : nullptr;
}

}  // namespace

const char* errcode_string(uint32_t code) {
  const es_platform::errno_keeper keeper;
  if (code == DSV_NO_DATA) return "no data is registered under the name";
  if (const char* text = added_tables::instance().find(code)) return text;
  if (const char* text = posix_text(code)) return text;
  return numbered(code);
}

uint32_t errcode_add_table(const errcode_text* table, size_t count) {
  if (table == nullptr || count == 0) return 0;
  return es_platform::guarded([&]() -> uint32_t {
    added_tables& all = added_tables::instance();
    const std::lock_guard lock(all.mutex);
    const added_table added{table, count};
    if (std::find(all.list.begin(), all.list.end(), added) == all.list.end()) all.list.push_back(added);
    return 0;
  });
}

void assert_fail(const char* text, const char* file, int line, const char* function) {
  std::fprintf(stderr, "%s:%d: %s: assertion `%s' failed\n", file, line, function, text);
  std::fflush(stderr);
  std::abort();
}
