// The layout of the diagnostics files: how one process shows its state to another.
//
// A file holds one region: a header, then a body of the header's kind. The process that made it maps it and
// writes to it; others read it as an ordinary file at any time, and check every size in it against the file's
// own before they use it. All words are in host order. A layout change raises kDiagVersion, and readers
// refuse any version but theirs.
#ifndef ES_PLATFORM_SRC_DIAG_LAYOUT_H_
#define ES_PLATFORM_SRC_DIAG_LAYOUT_H_

#include <cstddef>
#include <cstdint>

#include "es_platform/diag.h"
#include "es_platform/process.h"

namespace es_platform {

constexpr char kDiagMagic[8] = {'E', 'S', 'D', 'I', 'A', 'G', '\r', '\n'};
constexpr uint32_t kDiagVersion = 1;

// Also the word for it in the file's name, PID.KIND.NUMBER.
enum class diag_kind : uint32_t { debug = 1, trace = 2, counters = 3, threads = 4 };

struct diag_header {
  char magic[8];
  uint32_t version;
  uint32_t kind;
  uint64_t size;  // of the whole file
  int32_t pid;
  uint32_t reserved;
  uint64_t process_start;  // as /proc/PID/stat counts it: tells a process from a later one of the same id
  int64_t wall_offset_ns;  // to be added to the monotonic times in the body to get wall-clock time
  char process[64];
  char name[144];  // debug: path; trace: path and suffix; counters: component
};
static_assert(sizeof(diag_header) == 256);

// --- Kind debug ---

constexpr uint32_t kMaxCategories = 16;

struct debug_body {
  uint32_t count;
  uint32_t reserved[15];
  debug_category categories[kMaxCategories];
};
static_assert(sizeof(debug_category) == 128);
static_assert(offsetof(debug_body, categories) == 64);

// --- Kind trace ---

// Kinds of a trace record's payload: this value for a named record, or the number of values.
constexpr uint32_t kTraceNamed = 0xff;
constexpr size_t kTraceValues = 4;

struct trace_named {
  char text[72];
  uint64_t values[2];
};

struct trace_record {
  // 0: never written; odd: being written; even: complete. Grows with every change of the record, so that a
  // reader who finds the same even ticket before and after knows that what it read in between is of one
  // piece.
  uint64_t ticket;
  uint64_t time_ns;  // monotonic
  uint32_t thread;
  uint32_t payload;  // kTraceNamed, or how many of `values` are used
  uint32_t hash;     // unique buffers: of everything below
  uint32_t count;    // unique buffers: how often it was written; changes without the ticket
  char operation[40];
  char event[32];
  union {
    uint64_t values[kTraceValues];
    trace_named named;
  };
};
static_assert(sizeof(trace_record) == 192);

struct trace_body {
  uint32_t capacity;  // records; a power of two in a wrapping buffer
  uint32_t record_size;
  uint32_t unique;  // 0: wrapping
  uint32_t reserved;
  uint64_t next;     // wrapping: tickets drawn so far
  uint64_t dropped;  // records for which there was no place
  uint64_t padding[4];
  trace_record records[1];  // `capacity` of them
};
static_assert(offsetof(trace_body, records) == 64);

constexpr uint32_t kMaxTraceRecords = 1u << 20;

// --- Kind counters ---

struct counters_body {
  acl_client_relay_entry main[ACL_CLIENT_RELAY_ENTRIES];
  acl_client_relay_entry error[ACL_CLIENT_RELAY_ENTRIES];
};
static_assert(sizeof(counters_body) == 2 * 20 * 128);

// --- Kind threads ---

constexpr uint32_t kThreadSlots = 128;

struct thread_slot {
  uint64_t ticket;  // odd: the mark stands; grows with every change
  uint64_t since_ns;
  uint64_t mutex;
  int32_t thread;  // 0: the slot is free
  uint32_t number;
  char name[32];
};
static_assert(sizeof(thread_slot) == 64);

struct threads_body {
  thread_slot slots[kThreadSlots];
};

}  // namespace es_platform

#endif  // ES_PLATFORM_SRC_DIAG_LAYOUT_H_
