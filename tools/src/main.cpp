// es-acl: shows, counts, tries and watches the ACLs that this host's producer serves. docs/es-acl.md describes it.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

#include <unistd.h>

#include "commands.h"
#include "watch.h"

namespace es_acl::tool {

namespace {

// The commands that answer and end.
int answer(const Options& options, Client& client, Output& out) {
  const auto report = options.json ? json_report(out, options) : text_report(out, options);
  int exit_code = kExitNotInitialised;
  if (const auto problem = client.start(options.store))
    report->fatal(*problem);
  else
    exit_code = run_command(options, client, *report, out);
  report->finish();
  return exit_code;
}

int run(int argc, char** argv) {
  Options options;
  if (const auto exit_code = parse_command_line(argc, argv, &options)) return *exit_code;
  std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away shows as a failed write
  Output out(STDOUT_FILENO);
  Client client;
  const int exit_code =
      options.command == Command::kWatch ? watch(options, client, out) : answer(options, client, out);
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
