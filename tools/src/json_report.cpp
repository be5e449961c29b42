// One JSON document for all commands; docs/es-acl.md describes it. An entry has the shape and the names that
// it has in the producer's configuration.
//
// Entries are written piece by piece: a document tree of a million of them would take a gigabyte. What comes
// from outside and may need escaping, names and texts, goes through the JSON library.
#include <array>
#include <nlohmann/json.hpp>

#include "fields.h"
#include "report.h"

namespace es_acl::tool {

namespace {

std::string quoted(const std::string& text) {
  return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

const char* state_name(State state) {
  switch (state) {
    case State::kOk:
      return "ok";
    case State::kInvalidName:
      return "invalid-name";
    case State::kNotConfigured:
      return "not-configured";
    case State::kNoProducer:
      return "no-producer";
    case State::kUnreachable:
      return "unreachable";
    case State::kFailed:
      break;
  }
  return "failed";
}

const char* result_name(uint32_t result) {
  if (result == ES_ACL_MATCH_PERMIT) return "permit";
  return result == ES_ACL_MATCH_DENY ? "deny" : "none";
}

// The members of one object; the first one is not preceded by a comma.
class Members {
 public:
  explicit Members(std::string& out) : out_(out) { out_ += '{'; }

  std::string& name(const char* name) {
    if (!first_) out_ += ',';
    first_ = false;
    out_ += '"';
    out_ += name;
    return out_ += "\":";
  }
  void number(const char* member, uint32_t value) { append_number(name(member), value); }
  void boolean(const char* member, bool value) { name(member) += value ? "true" : "false"; }
  void word(const char* member, const char* value) { ((name(member) += '"') += value) += '"'; }
  void mac(const char* member, const uint16_t words[3]) {
    append_mac(name(member) += '"', words);
    out_ += '"';
  }
  void end() { out_ += '}'; }

 private:
  std::string& out_;
  bool first_ = true;
};

// --- One entry ---

void put_address(Members& eth, const char* address_name, const char* wildcard_name, const uint16_t address[3],
                 const uint16_t wildcard[3]) {
  eth.mac(address_name, address);
  if ((wildcard[0] | wildcard[1] | wildcard[2]) != 0) eth.mac(wildcard_name, wildcard);
}

struct TagBits {
  uint64_t vlan, cos, dei;
};
constexpr TagBits kOuterBits = {ES_ACL_MATCH_VLAN, ES_ACL_MATCH_COS, ES_ACL_MATCH_DEI};
constexpr TagBits kInnerBits = {ES_ACL_MATCH_IVLAN, ES_ACL_MATCH_ICOS, ES_ACL_MATCH_IDEI};

void put_tag(Members& eth, const char* name, uint64_t mask, const TagBits& bits,
             const std::array<uint16_t, 4>& first_last_cos_dei) {
  if ((mask & (bits.vlan | bits.cos | bits.dei)) == 0) return;
  const auto& [first, last, cos, dei] = first_last_cos_dei;
  Members tag(eth.name(name));
  if ((mask & bits.vlan) != 0) tag.number("id", first);
  if ((mask & bits.vlan) != 0 && last != first) tag.number("last-id", last);
  if ((mask & bits.cos) != 0) tag.number("pcp", cos);
  if ((mask & bits.dei) != 0) tag.boolean("dei", dei != 0);
  tag.end();
}

void put_matches(std::string& out, const es_acl_ace& ace) {
  const uint64_t mask = es_acl_ace_match_mask(&ace);
  Members eth(out);
  if ((mask & ES_ACL_MATCH_SRC_ADDR) != 0)
    put_address(eth, "source-mac-address", "source-mac-address-wildcard", ace.src_addr, ace.src_wild);
  if ((mask & ES_ACL_MATCH_DST_ADDR) != 0)
    put_address(eth, "destination-mac-address", "destination-mac-address-wildcard", ace.dst_addr,
                ace.dst_wild);
  if ((mask & ES_ACL_MATCH_ETH_TYPE) != 0) {
    append_ethertype(eth.name("ethertype") += '"', ace.eth_type);
    out += '"';
  }
  put_tag(eth, "outer-vlan", mask, kOuterBits, {ace.vlan_first, ace.vlan_last, ace.cos, ace.dei});
  put_tag(eth, "inner-vlan", mask, kInnerBits, {ace.ivlan_first, ace.ivlan_last, ace.icos, ace.idei});
  eth.end();
}

void put_ace(std::string& out, const es_acl_ace& ace) {
  Members entry(out);
  entry.number("sequence", ace.seq);
  if (ace.kind == ES_ACL_KIND_REMARK) {
    entry.boolean("remark", true);
    entry.end();
    return;
  }
  Members matches(entry.name("matches"));
  put_matches(matches.name("eth"), ace);
  matches.end();
  Members actions(entry.name("actions"));
  actions.word("forwarding", ace.grant == ES_ACL_PERMIT ? "accept" : "drop");
  actions.boolean("capture", ace.capture != 0);
  actions.boolean("logging", ace.log_option != 0);
  actions.end();
  entry.end();
}

Counts count_aces(es_acl_head* acl) {
  Counts counts;
  for_each_ace(acl, [&](const es_acl_ace& ace) {
    ++counts.aces;
    counts.remarks += ace.kind == ES_ACL_KIND_REMARK;
    return true;
  });
  return counts;
}

void put_counts(Members& acl, const Counts& counts) {
  acl.number("entries", counts.aces);
  acl.number("remarks", counts.remarks);
}

// --- The document ---

class JsonReport : public Report {
 public:
  JsonReport(Output& out, const Options& options) : out_(out) {
    out_.put("{\"command\":\"" + std::string(command_name(options.command)) +
             "\",\n\"directory\":" + quoted(bus_directory().path) + ",\n\"acls\":[");
  }

  void show(const std::string& name, es_acl_head* acl) override;
  void count(const std::string& name, const Counts& counts) override;
  void match(const std::string& name, const Verdict& verdict) override;
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

void JsonReport::show(const std::string& name, es_acl_head* acl) {
  Members members = begin(name, State::kOk, 0);
  put_counts(members, count_aces(acl));
  members.name("ace");
  put_aces(acl);
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
