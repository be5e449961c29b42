// es-diag: shows the diagnostics of running processes, and switches their debug categories.
//
// Every command reads the files of its kind, shows what it can, and says on standard error what it could not
// read.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <stdexcept>

#include "diag_file.h"
#include "diag_reader.h"
#include "es_platform/clock.h"
#include "render.h"

namespace {

using es_diag::diag_kind;
using es_diag::json;
using es_diag::printable;
using es_diag::region;

enum exit_code { kDone = 0, kNoMatch = 1, kUsage = 2, kDamaged = 3 };

constexpr const char* kFooter =
    "Files are looked for in --dir, else $ES_DIAG_DIR, else $XDG_RUNTIME_DIR/es-acl/diag, else "
    "/run/es-acl/diag.\n"
    "\n"
    "Exit codes:\n"
    "  0  done\n"
    "  1  nothing matches what was asked for (--pid, --buffer, --on, --off)\n"
    "  2  wrong usage\n"
    "  3  a file could not be read or was damaged; everything else has been shown";

struct options {
  std::string directory = es_platform::diag_directory();
  std::optional<int32_t> pid;
  std::string buffer;
  std::vector<std::string> on;
  std::vector<std::string> off;
  bool as_json = false;
};

// One run of a command: what has been read and found, and what will be the exit code.
class session {
 public:
  session(const options& asked, std::optional<diag_kind> kind)
      : asked_(asked), files_(es_diag::read_directory(asked.directory, kind, asked.pid)) {}

  // Calls `show` for every region; a damaged one is noted and passed over.
  void each(const std::function<void(const region&)>& show) {
    for (const region& one : files_.regions) {
      try {
        show(one);
      } catch (const std::runtime_error& error) {
        files_.errors.push_back(error.what());
      }
    }
  }

  void found() { ++found_; }
  bool as_json() const { return asked_.as_json; }

  int finish(const json& document) const {
    if (asked_.as_json) {
      std::cout << document.dump(2, ' ', false, json::error_handler_t::replace) << '\n';
    }
    for (const std::string& error : files_.errors) std::cerr << "es-diag: " << printable(error) << '\n';
    if (!files_.errors.empty()) return kDamaged;
    return found_ == 0 && asked_for_something() ? kNoMatch : kDone;
  }

 private:
  bool asked_for_something() const {
    return asked_.pid || !asked_.buffer.empty() || !asked_.on.empty() || !asked_.off.empty();
  }

  const options& asked_;
  es_diag::directory files_;
  int found_ = 0;
};

int list(const options& asked) {
  session run(asked, std::nullopt);
  json regions = json::array();
  run.each([&](const region& one) {
    run.found();
    json shown = es_diag::identity(one, "name");
    shown["kind"] = es_platform::diag_kind_word(one.kind);
    if (!asked.as_json)
      std::cout << es_diag::heading(one) << " (" << shown["kind"].get<std::string>() << ")\n";
    regions.push_back(std::move(shown));
  });
  return run.finish({{"regions", regions}});
}

void print_trace(const region& of, const es_diag::trace_dump& dump) {
  std::cout << es_diag::heading(of) << (dump.unique ? " (unique" : " (wrapping") << ", "
            << dump.entries.size() << " records, " << dump.dropped << " dropped)\n";
  for (const es_diag::trace_entry& entry : dump.entries) std::cout << "  " << es_diag::to_line(entry) << '\n';
}

int trace(const options& asked) {
  session run(asked, diag_kind::trace);
  json buffers = json::array();
  run.each([&](const region& one) {
    if (!asked.buffer.empty() && one.name != asked.buffer && !one.name.ends_with('/' + asked.buffer)) return;
    const es_diag::trace_dump dump = es_diag::decode_trace(one);
    run.found();
    if (!asked.as_json) return print_trace(one, dump);
    json shown = es_diag::identity(one, "buffer");
    shown["unique"] = dump.unique;
    shown["dropped"] = dump.dropped;
    shown["records"] = json::array();
    for (const es_diag::trace_entry& entry : dump.entries)
      shown["records"].push_back(es_diag::to_json(entry));
    buffers.push_back(std::move(shown));
  });
  return run.finish({{"buffers", buffers}});
}

void print_counters(const char* block, const std::vector<es_diag::counter>& counters) {
  for (const es_diag::counter& one : counters) std::printf("  %-5s %3u %10u\n", block, one.index, one.count);
  std::fflush(stdout);
}

int counters(const options& asked) {
  session run(asked, diag_kind::counters);
  json components = json::array();
  run.each([&](const region& one) {
    const es_diag::counter_dump dump = es_diag::decode_counters(one);
    run.found();
    if (!asked.as_json) {
      std::cout << es_diag::heading(one) << std::endl;
      print_counters("main", dump.main);
      print_counters("error", dump.error);
      return;
    }
    json shown = es_diag::identity(one, "component");
    shown["main"] = es_diag::to_json(dump.main);
    shown["error"] = es_diag::to_json(dump.error);
    components.push_back(std::move(shown));
  });
  return run.finish({{"components", components}});
}

// Whether a category is meant by one of the names: its own, PATH/NAME, or "all".
bool is_named(const std::vector<std::string>& names, const region& of, const es_diag::category& category) {
  const std::string path = of.name.ends_with('/') ? of.name : of.name + '/';
  return std::any_of(names.begin(), names.end(), [&](const std::string& name) {
    return name == "all" || name == category.name || name == path + category.name;
  });
}

// Switches the category if that was asked for. Whether it is to be shown: all are when nothing is switched.
bool switch_as_asked(const options& asked, const region& of, es_diag::category& category) {
  const bool on = is_named(asked.on, of, category);
  const bool off = is_named(asked.off, of, category);
  if (on || off) {
    es_diag::switch_category(of, category.index, on);
    category.enabled = on;
  }
  return on || off || (asked.on.empty() && asked.off.empty());
}

int debug(const options& asked) {
  session run(asked, diag_kind::debug);
  json categories = json::array();
  run.each([&](const region& one) {
    for (es_diag::category& category : es_diag::decode_categories(one)) {
      if (!switch_as_asked(asked, one, category)) continue;
      run.found();
      json shown = es_diag::identity(one, "path");
      shown["category"] = category.name;
      shown["enabled"] = category.enabled;
      shown["text"] = category.text;
      categories.push_back(std::move(shown));
      if (asked.as_json) continue;
      std::cout << es_diag::heading(one) << ' ' << printable(category.name)
                << (category.enabled ? " on" : " off") << " (" << printable(category.text) << ")\n";
    }
  });
  return run.finish({{"categories", categories}});
}

int threads(const options& asked) {
  session run(asked, diag_kind::threads);
  json blocked = json::array();
  run.each([&](const region& one) {
    run.found();
    for (const es_diag::blocked_thread& thread : es_diag::decode_threads(one)) {
      const uint64_t now = clock_now_ns();
      const uint64_t for_ms = now > thread.since_ns ? (now - thread.since_ns) / 1'000'000 : 0;
      char mutex[32];
      std::snprintf(mutex, sizeof mutex, "0x%llx", static_cast<unsigned long long>(thread.mutex));
      blocked.push_back({{"pid", one.pid},
                         {"process", one.process},
                         {"thread", thread.thread},
                         {"mutex", mutex},
                         {"name", thread.name},
                         {"number", thread.number},
                         {"blocked_ms", for_ms}});
      if (asked.as_json) continue;
      std::cout << one.pid << ' ' << printable(one.process) << " thread " << thread.thread
                << " waits for mutex " << mutex << " in " << printable(thread.name) << ' ' << thread.number
                << " for " << for_ms << " ms\n";
    }
  });
  return run.finish({{"blocked", blocked}});
}

using command = int (*)(const options&);

CLI::App* add_command(CLI::App& app, const char* name, const char* text, command run, options& asked,
                      command& chosen) {
  CLI::App* made = app.add_subcommand(name, text);
  made->add_option("--pid", asked.pid, "Only this process")->check(CLI::PositiveNumber);
  made->add_flag("--json", asked.as_json, "Print one JSON document");
  made->add_option("--dir", asked.directory, "Directory of the diagnostics files");
  made->footer(kFooter);
  made->callback([&chosen, run] { chosen = run; });
  return made;
}

void add_commands(CLI::App& app, options& asked, command& chosen) {
  add_command(app, "list", "Lists what there is to see, by process", list, asked, chosen);
  add_command(app, "trace", "Prints trace buffers, oldest record first", trace, asked, chosen)
      ->add_option("--buffer", asked.buffer,
                   "Only this buffer, by its full name or the part after the last slash");
  add_command(app, "counters", "Prints the counters that are not zero", counters, asked, chosen);
  CLI::App* switches = add_command(app, "debug", "Shows or switches debug categories", debug, asked, chosen);
  CLI::Option* on = switches->add_option("--on", asked.on, "Switch on a category: NAME, PATH/NAME or all");
  switches->add_option("--off", asked.off, "Switch off a category, likewise")->excludes(on);
  add_command(app, "threads", "Lists threads that wait for a mutex", threads, asked, chosen);
}

int run_command(int argc, char** argv) {
  options asked;
  command chosen = nullptr;
  CLI::App app("Diagnostics of running processes: debug categories, traces, counters, blocked threads",
               "es-diag");
  app.require_subcommand(1);
  app.footer(kFooter);
  add_commands(app, asked, chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  return chosen(asked);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run_command(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "es-diag: " << error.what() << '\n';
    return kDamaged;
  }
}
