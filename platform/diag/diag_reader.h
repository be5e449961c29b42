// Reading diagnostics files of other processes.
//
// A file may be damaged, of another version, or written to while it is read; whatever stands in it is checked
// before it is used. A damaged file costs one error text, never more.
#ifndef ES_PLATFORM_DIAG_DIAG_READER_H_
#define ES_PLATFORM_DIAG_DIAG_READER_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "diag_layout.h"

namespace es_diag {

using es_platform::diag_kind;

// One file, read three times in a row. What has the same even ticket in the first and the third reading was
// not changed in between, and so the second holds it in one piece.
struct region {
  std::string path;
  diag_kind kind;
  int32_t pid;
  std::string process;
  std::string name;
  int64_t wall_offset_ns;
  bool dead;  // the process has ended, and not by the door
  std::vector<char> body[3];
};

struct directory {
  std::vector<region> regions;  // by process, kind and name
  std::vector<std::string> errors;
  size_t files = 0;  // of any kind, of that process if one was given
};

// Reads all regions of the kind (none: of all kinds), of one process if `pid` is given. Changes nothing. A
// directory that is missing holds no regions.
directory read_directory(const std::string& path, std::optional<diag_kind> kind, std::optional<int32_t> pid);

struct trace_entry {
  int64_t wall_ns;
  uint32_t thread;
  uint32_t count;  // 1, or in a unique buffer how often
  std::string operation;
  std::string event;
  std::optional<std::string> text;
  std::vector<uint64_t> values;
};

struct trace_dump {
  bool unique;
  uint64_t dropped;
  std::vector<trace_entry> entries;  // oldest first
};

struct counter {
  uint32_t index;
  uint32_t count;
};

struct counter_dump {
  std::vector<counter> main;  // those that are not 0
  std::vector<counter> error;
};

struct category {
  uint32_t index;
  bool enabled;
  std::string name;
  std::string text;
};

struct blocked_thread {
  int32_t thread;
  uint64_t mutex;
  uint64_t since_ns;  // monotonic
  uint32_t number;
  std::string name;
};

// Each throws std::runtime_error, with the file's path in its text, when the body is not what its kind has to
// be.
trace_dump decode_trace(const region& from);
counter_dump decode_counters(const region& from);
std::vector<category> decode_categories(const region& from);
std::vector<blocked_thread> decode_threads(const region& from);

// Switches a category of the region's process. Throws std::runtime_error when the file cannot be written.
void switch_category(const region& where, uint32_t index, bool enabled);

}  // namespace es_diag

#endif  // ES_PLATFORM_DIAG_DIAG_READER_H_
