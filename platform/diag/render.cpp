#include "render.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace es_diag {

std::string time_text(int64_t wall_ns) {
  constexpr int64_t kNsPerSecond = 1'000'000'000;
  if (wall_ns < 0) wall_ns = 0;
  const time_t seconds = wall_ns / kNsPerSecond;
  tm parts{};
  gmtime_r(&seconds, &parts);
  char date[48];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
  char text[64];
  std::snprintf(text, sizeof text, "%s.%06dZ", date, static_cast<int>(wall_ns % kNsPerSecond / 1000));
  return text;
}

std::string printable(const std::string& text) {
  std::string clean = text;
  for (char& c : clean) {
    if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) c = '?';
  }
  return clean;
}

std::string heading(const region& of) {
  return std::to_string(of.pid) + ' ' + printable(of.process) + ' ' + printable(of.name) +
         (of.dead ? " (dead)" : "");
}

json identity(const region& of, const char* name_key) {
  return {{"pid", of.pid}, {"process", of.process}, {"dead", of.dead}, {name_key, of.name}};
}

json to_json(const trace_entry& entry) {
  json made = {{"time", time_text(entry.wall_ns)},
               {"thread", entry.thread},
               {"operation", entry.operation},
               {"event", entry.event}};
  if (entry.text) made["text"] = *entry.text;
  made["values"] = entry.values;
  made["count"] = entry.count;
  return made;
}

json to_json(const std::vector<counter>& counters) {
  json made = json::object();
  for (const counter& one : counters) made[std::to_string(one.index)] = one.count;
  return made;
}

std::string to_line(const trace_entry& entry) {
  std::string line = time_text(entry.wall_ns) + " [" + std::to_string(entry.thread) + "] " +
                     printable(entry.operation) + ": " + printable(entry.event);
  if (entry.text) line += " \"" + printable(*entry.text) + '"';
  for (const uint64_t value : entry.values) {
    char text[48];
    std::snprintf(text, sizeof text, value < 10 ? " %" PRIu64 : " %" PRIu64 "(0x%" PRIx64 ")", value, value);
    line += text;
  }
  if (entry.count > 1) line += " x" + std::to_string(entry.count);
  return line;
}

}  // namespace es_diag
