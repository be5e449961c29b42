// How es-diag shows what it has read: lines for people, or one JSON document.
#ifndef ES_PLATFORM_DIAG_RENDER_H_
#define ES_PLATFORM_DIAG_RENDER_H_

#include <nlohmann/json.hpp>
#include <string>

#include "diag_reader.h"

namespace es_diag {

using json = nlohmann::ordered_json;

// "2026-01-31T10:20:30.123456Z"
std::string time_text(int64_t wall_ns);
// Without control characters: texts come from other processes.
std::string printable(const std::string& text);
// "PID PROCESS NAME", and whether the process is dead
std::string heading(const region& of);

// The members that every shown region begins with: pid, process, whether it is dead, and its name under `name_key`.
json identity(const region& of, const char* name_key);

json to_json(const trace_entry& entry);
json to_json(const std::vector<counter>& counters);
std::string to_line(const trace_entry& entry);

}  // namespace es_diag

#endif  // ES_PLATFORM_DIAG_RENDER_H_
