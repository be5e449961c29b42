#include "options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <iostream>

#include "log.h"

namespace es_acl::producer {
namespace {

constexpr const char* kFooter =
    "Serves the ACLs of the configuration until SIGTERM or SIGINT. When the file changes, and on SIGHUP, "
    "the\n"
    "configuration is read again and the difference is pushed to the consumers. A configuration that is "
    "wrong,\n"
    "or a change that a consumer refuses, changes nothing and is told in the log.\n"
    "Exit codes: 0 done, 1 configuration refused, 2 usage, 3 bus, 4 system.";

constexpr uint32_t kMaxQuestionDeadlineMs = 60'000;
constexpr uint32_t kMaxQueueLimitMib = 65'536;

// What is wrong with a descriptor's number; nothing when it is one.
std::string check_descriptor(const std::string& text) {
  int number = -1;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc() && stop == end && number >= 0) return {};
  return "'" + text + "' is not the number of a descriptor";
}

}  // namespace

std::optional<Options> parse_options(int argc, char** argv, int* exit_code) {
  Options options;
  CLI::App app("Reference producer of Layer-2 ACLs", "es-acl-producer");
  app.footer(kFooter);
  app.set_version_flag("--version", ES_ACL_VERSION);
  auto* config =
      app.add_option("--config", options.config, "Configuration to serve, JSON or XML")->type_name("FILE");
  app.add_flag("--check", options.check, "Check the configuration and end");
  auto* print_yang =
      app.add_flag("--print-yang", options.print_yang, "Print the configuration's YANG module and end");
  app.add_flag("--check-resources", options.check_resources,
               "Make a change only when every consumer has the resources for what it adds");
  app.add_option("--question-deadline-ms", options.question_deadline_ms,
                 "How long consumers may take to answer whether they use an ACL, or have resources for it")
      ->type_name("N")
      ->check(CLI::Range(uint32_t{1}, kMaxQuestionDeadlineMs))
      ->capture_default_str();
  app.add_option("--queue-limit-mib", options.queue_limit_mib,
                 "How much may wait for one consumer before its connection is given up")
      ->type_name("N")
      ->check(CLI::Range(uint32_t{1}, kMaxQueueLimitMib))
      ->capture_default_str();
  app.add_option("--ready-fd", options.ready_fd,
                 "Write \"ready\" and a newline to this descriptor when serving")
      ->type_name("N")
      ->check(check_descriptor);
  app.add_option("--ready-file", options.ready_file,
                 "Make this file, with the process id in it, when serving")
      ->type_name("FILE");
  app.add_flag_callback(
      "--foreground", [] {}, "Stay in the foreground, as it always does");
  app.add_flag("--verbose,-v", options.verbose, "Log what is loaded and who comes and goes");
  try {
    app.parse(argc, argv);
    if (!*print_yang && !*config) throw CLI::RequiredError("--config");
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    *exit_code = kExitOk;
    return std::nullopt;
  } catch (const CLI::CallForVersion&) {
    std::cout << "es-acl-producer " << ES_ACL_VERSION << '\n';
    *exit_code = kExitOk;
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    log_line(std::string(error.what()) + " (try --help)");
    *exit_code = kExitUsage;
    return std::nullopt;
  }
  return options;
}

}  // namespace es_acl::producer
