// es-diag: shows the diagnostics of processes, and switches debug categories of running ones.
//
// Every command reads the files of its kind, shows what it can, and says on standard error what it could not
// read or find. Reading changes nothing; what dead processes have left goes with `clean` only.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <set>
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
    "  1  there is nothing, or nothing that matches what was asked for (--pid, --buffer, --on, --off)\n"
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

void say(const std::string& what) { std::cerr << "es-diag: " << printable(what) << '\n'; }

// Where a command has looked: " of process 12 under DIR".
std::string place(const options& asked) {
  return (asked.pid ? " of process " + std::to_string(*asked.pid) : "") + " under " + asked.directory;
}

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

  // `none`, unless empty, is said when nothing was found although the process or directory holds something;
  // `none_code` is the exit code then.
  int finish(const json& document, const std::string& none, exit_code none_code = kNoMatch) const {
    if (asked_.as_json) {
      std::cout << document.dump(2, ' ', false, json::error_handler_t::replace) << '\n';
    }
    std::cout.flush();
    for (const std::string& error : files_.errors) say(error);
    if (!files_.errors.empty()) return kDamaged;
    if (files_.files == 0) none_code = kNoMatch;
    const std::string missing = files_.files == 0 ? "nothing" : none;
    if (found_ == 0 && !missing.empty()) say(missing + place(asked_));
    return found_ == 0 ? none_code : kDone;
  }

 private:
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
  return run.finish({{"regions", regions}}, "nothing");
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
  return run.finish({{"buffers", buffers}},
                    asked.buffer.empty() ? "no trace buffer" : "no trace buffer '" + asked.buffer + '\'');
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
  return run.finish({{"components", components}}, "no counters");
}

// Switches the categories that the command line names: by their own name, PATH/NAME, or "all". Remembers which
// of the names meant something.
class category_switch {
 public:
  explicit category_switch(const options& asked)
      : on_(!asked.on.empty()), names_(on_ ? asked.on : asked.off), unknown_(names_.begin(), names_.end()) {}

  // Whether the category is to be shown: all are when nothing is switched.
  bool apply(const region& of, es_diag::category& category) {
    if (names_.empty()) return true;
    if (of.dead || !is_named(of, category)) return false;
    es_diag::switch_category(of, category.index, on_);
    category.enabled = on_;
    return true;
  }

  const std::set<std::string>& unknown() const { return unknown_; }

 private:
  bool is_named(const region& of, const es_diag::category& category) {
    const std::string path = of.name.ends_with('/') ? of.name : of.name + '/';
    bool named = false;
    for (const std::string& name : names_) {
      if (name != "all" && name != category.name && name != path + category.name) continue;
      named = true;
      unknown_.erase(name);
    }
    return named;
  }

  const bool on_;
  const std::vector<std::string>& names_;
  std::set<std::string> unknown_;
};

// What was named and does not exist is told even when other names did.
int finish_debug(const session& run, const json& categories, const options& asked,
                 const std::set<std::string>& unknown) {
  // With names given, the lines below say it.
  const int code = run.finish({{"categories", categories}}, unknown.empty() ? "no debug category" : "");
  for (const std::string& name : unknown)
    say("no running process has a category '" + name + '\'' + place(asked));
  return code == kDone && !unknown.empty() ? kNoMatch : code;
}

int debug(const options& asked) {
  session run(asked, diag_kind::debug);
  category_switch switches(asked);
  json categories = json::array();
  run.each([&](const region& one) {
    for (es_diag::category& category : es_diag::decode_categories(one)) {
      if (!switches.apply(one, category)) continue;
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
  return finish_debug(run, categories, asked, switches.unknown());
}

void print_blocked(const region& of, const json& shown) {
  std::cout << of.pid << ' ' << printable(of.process) << (of.dead ? " (dead)" : "") << " thread "
            << shown["thread"] << " waits for mutex " << shown["mutex"].get<std::string>() << " in "
            << printable(shown["name"]) << ' ' << shown["number"];
  if (!of.dead) std::cout << " for " << shown["blocked_ms"] << " ms";
  std::cout << '\n';
}

json to_json(const region& of, const es_diag::blocked_thread& thread) {
  char mutex[32];
  std::snprintf(mutex, sizeof mutex, "0x%llx", static_cast<unsigned long long>(thread.mutex));
  json shown = {{"pid", of.pid},           {"process", of.process}, {"dead", of.dead},
                {"thread", thread.thread}, {"mutex", mutex},        {"name", thread.name},
                {"number", thread.number}};
  // When a dead one stopped to wait, nobody knows.
  const uint64_t now = clock_now_ns();
  if (!of.dead) shown["blocked_ms"] = now > thread.since_ns ? (now - thread.since_ns) / 1'000'000 : 0;
  return shown;
}

int threads(const options& asked) {
  session run(asked, diag_kind::threads);
  json blocked = json::array();
  run.each([&](const region& one) {
    for (const es_diag::blocked_thread& thread : es_diag::decode_threads(one)) {
      run.found();
      blocked.push_back(to_json(one, thread));
      if (!asked.as_json) print_blocked(one, blocked.back());
    }
  });
  return run.finish({{"blocked", blocked}}, "no thread waits for a mutex", kDone);
}

int clean(const options& asked) {
  const es_platform::diag_removal done =
      es_platform::diag_remove_dead(asked.directory, {.pid = asked.pid}, 0);
  if (asked.as_json)
    std::cout << json{{"processes", done.processes}, {"files", done.files}}.dump(2) << '\n';
  else
    std::cout << "removed " << done.files << " files of " << done.processes << " dead processes\n";
  for (const std::string& failure : done.failures) say(failure);
  return done.failures.empty() ? kDone : kDamaged;
}

using command = int (*)(const options&);

// They may stand before the command and behind it.
void add_common(CLI::App& app, options& asked) {
  app.add_option("--pid", asked.pid, "Only this process")->check(CLI::PositiveNumber);
  app.add_flag("--json", asked.as_json, "Print one JSON document");
  app.add_option("--dir", asked.directory, "Directory of the diagnostics files");
  app.footer(kFooter);
}

CLI::App* add_command(CLI::App& app, const char* name, const char* text, command run, options& asked,
                      command& chosen) {
  CLI::App* made = app.add_subcommand(name, text);
  add_common(*made, asked);
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
  add_command(app, "clean", "Removes what dead processes have left", clean, asked, chosen);
}

// The parser misses the command before it looks at the words that are there.
int refuse(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> words = app.remaining();
  const bool unknown = app.get_subcommands().empty() && !words.empty();
  say((unknown ? "no such command: " + words.front() : error.what()) + " (try --help)");
  return kUsage;
}

int run_command(int argc, char** argv) {
  options asked;
  command chosen = nullptr;
  CLI::App app("Diagnostics of processes: debug categories, traces, counters, blocked threads", "es-diag");
  app.require_subcommand(1);
  app.set_version_flag("--version", "es-diag " ES_ACL_VERSION);
  add_common(app, asked);
  add_commands(app, asked, chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return error.get_exit_code() == 0 ? app.exit(error) : refuse(app, error);
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
