// One JSON document for the commands that answer and end; docs/es-acl.md describes it.
#include "entry_json.h"
#include "report.h"

namespace es_acl::tool {

namespace {

const char* result_name(uint32_t result) {
  if (result == ES_ACL_MATCH_PERMIT) return "permit";
  return result == ES_ACL_MATCH_DENY ? "deny" : "none";
}

class JsonReport : public Report {
 public:
  JsonReport(Output& out, const Options& options) : out_(out) {
    out_.put("{\"command\":\"" + std::string(command_name(options.command)) +
             "\",\n\"directory\":" + quoted(bus_directory().path) + ",\n\"acls\":[");
  }

  void show(const std::string& name, const Acl& acl) override;
  void count(const std::string& name, const Counts& counts) override;
  void match(const std::string& name, const Verdict& verdict) override;
  void verify(const std::string& name, const Client::Lists& lists) override;
  void problem(const std::string& name, const Problem& problem) override;
  void fatal(const Problem& problem) override;
  void finish() override { out_.put(error_.empty() ? "\n]}\n" : "\n],\n\"error\":" + error_ + "}\n"); }

 private:
  Members begin(const std::string& name, State state, uint32_t status);
  void put_aces(es_acl_head* acl);
  void end(Members& acl) {
    acl.end();
    out_.put(line_);
  }

  Output& out_;
  bool first_ = true;
  std::string line_;
  std::string error_;
};

// Begins the object of one ACL in line_.
Members JsonReport::begin(const std::string& name, State state, uint32_t status) {
  line_ = first_ ? "\n" : ",\n";
  first_ = false;
  Members acl(line_);
  acl.name("name") += quoted(name);
  acl.word("state", state_name(state));
  acl.number("status", status);
  return acl;
}

// One entry a line: the document can be read, and compared, line by line.
void JsonReport::put_aces(es_acl_head* acl) {
  const char* separator = "[\n ";
  for_each_ace(acl, [&](const es_acl_ace& ace) {
    line_ += separator;
    separator = ",\n ";
    put_ace(line_, ace);
    out_.put(line_);
    line_.clear();
    return !out_.failed();
  });
  line_ += *separator == '[' ? "[]" : "\n]";
}

void JsonReport::show(const std::string& name, const Acl& acl) {
  Members members = begin(name, State::kOk, 0);
  put_counts(members, count_entries(acl));
  members.name("ace");
  put_aces(acl.head());
  end(members);
}

void JsonReport::count(const std::string& name, const Counts& counts) {
  Members members = begin(name, State::kOk, 0);
  put_counts(members, counts);
  end(members);
}

void JsonReport::match(const std::string& name, const Verdict& verdict) {
  Members members = begin(name, State::kOk, 0);
  members.word("result", result_name(verdict.result));
  if (verdict.hit.seq != 0) {
    members.number("sequence", verdict.hit.seq);
    members.boolean("capture", verdict.hit.capture != 0);
    members.boolean("logging", verdict.hit.log_option != 0);
  }
  end(members);
}

// The members of a list: of the producer's, or of one client's.
void put_list(Members& members, const es_acl_list_info& list) {
  members.number("entries", list.num_aces);
  members.word("digest", digest_text(list).c_str());
}

void put_client(std::string& out, const es_acl_list_info& list) {
  Members client(out);
  client.number("pid", static_cast<uint32_t>(list.pid));
  client.name("program") += quoted(list.program);
  client.word("sync", list_state_name(list));
  if (is_compared(list)) {
    put_list(client, list);
    if (list.rules_only != 0) client.boolean("remarks-left-out", true);
    client.boolean("equal", list.equal != 0);
  }
  client.end();
}

void JsonReport::verify(const std::string& name, const Client::Lists& lists) {
  Members members = begin(name, State::kOk, 0);
  put_list(members, lists.front());
  const char* separator = "[\n ";
  std::string clients;
  for (const es_acl_list_info& list : lists) {
    if (list.pid == 0) {
      if (list.rules_only != 0) members.word("rules-digest", digest_text(list).c_str());
      continue;
    }
    clients += separator;
    separator = ",\n ";
    put_client(clients, list);
  }
  members.name("clients") += clients.empty() ? "[]" : clients + "\n]";
  end(members);
}

void JsonReport::problem(const std::string& name, const Problem& problem) {
  complain(name, problem);
  Members members = begin(name, problem.state, problem.status);
  members.name("text") += quoted(problem.text);
  end(members);
}

void JsonReport::fatal(const Problem& problem) {
  complain("", problem);
  Members members(error_);
  members.number("status", problem.status);
  members.name("text") += quoted(problem.text);
  members.end();
}

}  // namespace

std::unique_ptr<Report> json_report(Output& out, const Options& options) {
  return std::make_unique<JsonReport>(out, options);
}

}  // namespace es_acl::tool
