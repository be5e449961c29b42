#include "commands.h"

#include <algorithm>

#include "es_acl/es_acl_sync.h"

namespace es_acl::tool {

namespace {

Verdict evaluate(es_acl_head* acl, const es_acl_match_key& frame) {
  Verdict verdict = {};
  verdict.result = es_acl_match_complex(acl, &frame, 0, reinterpret_cast<uintptr_t>(&verdict.hit));
  return verdict;
}

bool is_fault(const es_acl_list_info& list) {
  return list.state == ES_ACL_NO_ANSWER || (list.state == ES_ACL_IN_STEP && list.equal == 0);
}

class Runner {
 public:
  Runner(const Options& options, Client& client, Report& report, const Output& out)
      : options_(options), client_(client), report_(report), out_(out) {}

  void run() {
    if (options_.command == Command::kCount)
      for_each_name([this](const std::string& name) { count(name); });
    else if (options_.command == Command::kVerify)
      for_each_name([this](const std::string& name) { verify(name); });
    else
      get_all();
  }
  int exit_code() const { return failures_.exit_code(); }

 private:
  template <typename Answer>
  void for_each_name(Answer answer) {
    for (const std::string& name : options_.names) {
      if (out_.failed()) break;
      answer(name);
    }
  }

  void get_all() {
    client_.get_all(options_.names, [this](const std::string& name, const Result<Acl>& acl) {
      tell(name, acl);
      return !out_.failed();
    });
  }

  void count(const std::string& name) {
    const Result<Counts> result = client_.count(name);
    if (const Counts* counts = std::get_if<Counts>(&result))
      report_.count(name, *counts);
    else
      tell(name, std::get<Problem>(result));
  }

  void verify(const std::string& name) {
    const Result<Client::Lists> result = client_.verify(name, options_.wait);
    const Client::Lists* lists = std::get_if<Client::Lists>(&result);
    if (lists == nullptr) return tell(name, std::get<Problem>(result));
    failures_.note(*lists);
    report_.verify(name, *lists);
  }

  void tell(const std::string& name, const Result<Acl>& result) {
    const Acl* acl = std::get_if<Acl>(&result);
    if (acl == nullptr)
      tell(name, std::get<Problem>(result));
    else if (options_.command == Command::kMatch)
      report_.match(name, evaluate(acl->head(), options_.frame));
    else
      report_.show(name, *acl);
  }

  void tell(const std::string& name, const Problem& problem) {
    failures_.note(problem);
    report_.problem(name, problem);
  }

  const Options& options_;
  Client& client_;
  Report& report_;
  const Output& out_;
  Failures failures_;
};

}  // namespace

void Failures::note(const Client::Lists& lists) {
  differs_ |= std::any_of(lists.begin(), lists.end(), is_fault);
}

int run_command(const Options& options, Client& client, Report& report, const Output& out) {
  Runner runner(options, client, report, out);
  runner.run();
  return runner.exit_code();
}

}  // namespace es_acl::tool
