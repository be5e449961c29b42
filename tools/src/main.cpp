// es-acl: shows, counts, tries and watches the ACLs that this host's producer serves. docs/es-acl.md describes it.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>

#include <unistd.h>

#include "commands.h"
#include "name_list.h"
#include "watch.h"

namespace es_acl::tool {

namespace {

std::unique_ptr<Report> make_report(const Options& options, Output& out) {
  return options.json ? json_report(out, options) : text_report(out, options);
}

// The commands that answer and end.
int answer(const Options& options, Client& client, Output& out) {
  const auto report = make_report(options, out);
  const int exit_code = run_command(options, client, *report, out);
  report->finish();
  return exit_code;
}

int tell_failed_start(const Options& options, const Problem& problem, Output& out) {
  if (options.command == Command::kWatch) {
    tell_failed_watch(options, problem, out);
  } else {
    const auto report = make_report(options, out);
    report->fatal(problem);
    report->finish();
  }
  return kExitNotInitialised;
}

bool add_listed_names(Options* options) {
  if (!options->list) return true;
  try {
    read_name_list(*options->list, &options->names);
    return true;
  } catch (const std::runtime_error& error) {
    std::fprintf(stderr, "es-acl: %s\n", error.what());
    return false;
  }
}

int perform(Options& options, Output& out) {
  Client client;
  if (const auto problem = client.start(options.store)) return tell_failed_start(options, *problem, out);
  if (!add_listed_names(&options)) return kExitUsage;
  return options.command == Command::kWatch ? watch(options, client, out) : answer(options, client, out);
}

int run(int argc, char** argv) {
  Options options;
  if (const auto exit_code = parse_command_line(argc, argv, &options)) return *exit_code;
  std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away shows as a failed write
  Output out(STDOUT_FILENO);
  const int exit_code = perform(options, out);
  out.flush();
  if (out.error() == 0) return exit_code;
  std::fprintf(stderr, "es-acl: standard output: %s\n", std::strerror(out.error()));
  return kExitOutput;
}

}  // namespace

}  // namespace es_acl::tool

int main(int argc, char** argv) {
  try {
    return es_acl::tool::run(argc, argv);
  } catch (const std::exception& error) {  // out of memory, as a rule
    std::fprintf(stderr, "es-acl: %s\n", error.what());
    return es_acl::tool::kExitNotInitialised;
  }
}
