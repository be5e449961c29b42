#include "commands.h"

namespace es_acl::tool {

namespace {

Verdict evaluate(es_acl_head* acl, const es_acl_match_key& frame) {
  Verdict verdict = {};
  verdict.result = es_acl_match_complex(acl, &frame, 0, reinterpret_cast<uintptr_t>(&verdict.hit));
  return verdict;
}

class Runner {
 public:
  Runner(const Options& options, Client& client, Report& report)
      : options_(options), client_(client), report_(report) {}

  void run(const std::string& name) {
    if (options_.command == Command::kCount)
      count(name);
    else
      get(name);
  }
  int exit_code() const { return failures_.exit_code(); }

 private:
  void count(const std::string& name) {
    const Result<Counts> result = client_.count(name);
    if (const Counts* counts = std::get_if<Counts>(&result))
      report_.count(name, *counts);
    else
      tell(name, std::get<Problem>(result));
  }

  void get(const std::string& name) {
    const Result<AclHandle> result = client_.get(name);
    const AclHandle* acl = std::get_if<AclHandle>(&result);
    if (acl == nullptr)
      tell(name, std::get<Problem>(result));
    else if (options_.command == Command::kMatch)
      report_.match(name, evaluate(acl->get(), options_.frame));
    else
      report_.show(name, acl->get());
  }

  void tell(const std::string& name, const Problem& problem) {
    failures_.note(problem);
    report_.problem(name, problem);
  }

  const Options& options_;
  Client& client_;
  Report& report_;
  Failures failures_;
};

}  // namespace

int run_command(const Options& options, Client& client, Report& report, const Output& out) {
  Runner runner(options, client, report);
  for (const std::string& name : options.names) {
    if (out.failed()) break;
    runner.run(name);
  }
  return runner.exit_code();
}

}  // namespace es_acl::tool
