// Text for people: a table for each ACL that is shown, one line for each verdict, one table of counts.
//
// The columns are always the same ones, so that scripts may rely on them; they are as wide as this ACL needs,
// which takes a first pass over its entries. A change that arrives between the passes can only make a line
// stick out.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fields.h"
#include "report.h"

namespace es_acl::tool {

namespace {

enum Column { kSequence, kAction, kSource, kDestination, kEthertype, kOuter, kInner, kOptions, kColumns };

using Row = std::array<std::string, kColumns>;
using Widths = std::array<size_t, kColumns>;

const Row kHeadings = {"Seq",       "Action",     "Source/mask", "Destination/mask",
                       "EtherType", "Outer VLAN", "Inner VLAN",  "Options"};

constexpr char kAny[] = "any";

// --- Cells: what one ACE has in each column. Cleared strings keep their memory from row to row. ---

void put_address(std::string& out, bool compared, const uint16_t address[3], const uint16_t wildcard[3]) {
  if (!compared) {
    out += kAny;
    return;
  }
  append_mac(out, address);
  if ((wildcard[0] | wildcard[1] | wildcard[2]) == 0) return;
  const uint16_t mask[3] = {static_cast<uint16_t>(~wildcard[0]), static_cast<uint16_t>(~wildcard[1]),
                            static_cast<uint16_t>(~wildcard[2])};
  out += '/';
  append_mac(out, mask);
}

void put_ethertype(std::string& out, uint16_t ethertype) {
  if (const char* name = ethertype_name(ethertype))
    out += name;
  else
    append_ethertype(out, ethertype);
}

// One tag's fields of an ACE.
struct Tag {
  bool vlan_compared, cos_compared, dei_compared;
  uint16_t first, last;
  uint8_t cos, dei;
};

void put_tag(std::string& out, const Tag& tag) {
  if (tag.vlan_compared) {
    append_number(out, tag.first);
    if (tag.last != tag.first) append_number(out += '-', tag.last);
  } else {
    out += kAny;
  }
  if (tag.cos_compared) append_number(out += " pcp ", static_cast<unsigned>(tag.cos));
  if (tag.dei_compared) append_number(out += " dei ", static_cast<unsigned>(tag.dei));
}

void put_options(std::string& out, const es_acl_ace& ace) {
  if (ace.capture != 0) out += "capture";
  if (ace.capture != 0 && ace.log_option != 0) out += ' ';
  if (ace.log_option != 0) out += "log";
}

void put_rule(Row& row, const es_acl_ace& ace) {
  const uint64_t mask = es_acl_ace_match_mask(&ace);
  const auto compared = [mask](uint64_t bit) { return (mask & bit) != 0; };
  row[kAction] = ace.grant == ES_ACL_PERMIT ? "permit" : "deny";
  put_address(row[kSource], compared(ES_ACL_MATCH_SRC_ADDR), ace.src_addr, ace.src_wild);
  put_address(row[kDestination], compared(ES_ACL_MATCH_DST_ADDR), ace.dst_addr, ace.dst_wild);
  if (compared(ES_ACL_MATCH_ETH_TYPE))
    put_ethertype(row[kEthertype], ace.eth_type);
  else
    row[kEthertype] = kAny;
  put_tag(row[kOuter], {compared(ES_ACL_MATCH_VLAN), compared(ES_ACL_MATCH_COS), compared(ES_ACL_MATCH_DEI),
                        ace.vlan_first, ace.vlan_last, ace.cos, ace.dei});
  put_tag(row[kInner], {compared(ES_ACL_MATCH_IVLAN), compared(ES_ACL_MATCH_ICOS),
                        compared(ES_ACL_MATCH_IDEI), ace.ivlan_first, ace.ivlan_last, ace.icos, ace.idei});
  put_options(row[kOptions], ace);
}

void fill(Row& row, const es_acl_ace& ace) {
  for (std::string& cell : row) cell.clear();
  append_number(row[kSequence], ace.seq);
  if (ace.kind == ES_ACL_KIND_REMARK)
    row[kAction] = "remark";
  else
    put_rule(row, ace);
}

// --- Lines ---

constexpr char kBold[] = "\033[1m";
constexpr char kRed[] = "\033[31m";
constexpr char kGreen[] = "\033[32m";
constexpr char kDim[] = "\033[2m";
constexpr char kPlain[] = "\033[0m";

const char* action_colour(const std::string& action) {
  if (action == "permit") return kGreen;
  return action == "deny" ? kRed : kDim;
}

bool colour_wanted() {
  const char* no_color = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && (no_color == nullptr || *no_color == '\0') && terminal != nullptr &&
         std::strcmp(terminal, "dumb") != 0;
}

void put_coloured(std::string& line, const std::string& text, const char* colour) {
  if (colour != nullptr) line += colour;
  line += text;
  if (colour != nullptr) line += kPlain;
}

void end_line(std::string& line) {
  line.erase(line.find_last_not_of(' ') + 1);
  line += '\n';
}

// `colour` is the action's, or null.
void put_row(std::string& line, const Row& row, const Widths& widths, const char* colour) {
  line.assign(widths[kSequence] - row[kSequence].size() + 2, ' ');
  line += row[kSequence];
  for (size_t column = kAction; column < kColumns; ++column) {
    line += "  ";
    put_coloured(line, row[column], column == kAction ? colour : nullptr);
    line.append(widths[column] - std::min(widths[column], row[column].size()), ' ');
  }
  end_line(line);
}

std::string plural(uint64_t number, const char* one, const char* many) {
  return std::to_string(number) + " " + (number == 1 ? one : many);
}

std::string summary(const Counts& counts) {
  std::string text = plural(counts.aces, "entry", "entries");
  if (counts.remarks != 0) text += ", " + plural(counts.remarks, "of them a remark", "of them remarks");
  return text;
}

void put_key_tag(std::string& out, const char* name, unsigned vlan, unsigned cos, unsigned dei) {
  append_number(out += name, vlan);
  append_number(out += " pcp ", cos);
  append_number(out += " dei ", dei);
}

// The frame that was tried, defaults included.
std::string frame_text(const es_acl_match_key& frame) {
  std::string out;
  append_mac(out, frame.src_addr);
  append_mac(out += " to ", frame.dst_addr);
  if (frame.tags == ES_ACL_KEY_UNTAGGED) out += ", untagged";
  if (frame.tags >= ES_ACL_KEY_TAGGED) put_key_tag(out, ", vlan ", frame.vlan, frame.cos, frame.dei);
  if (frame.tags == ES_ACL_KEY_DOUBLE_TAGGED)
    put_key_tag(out, ", inner vlan ", frame.ivlan, frame.icos, frame.idei);
  put_ethertype(out += ", ", frame.eth_type);
  return out;
}

class TextReport : public Report {
 public:
  TextReport(Output& out, const Options& options)
      : out_(out), frame_(options.frame), colour_(colour_wanted()) {}

  void show(const std::string& name, es_acl_head* acl) override;
  void count(const std::string& name, const Counts& counts) override { counts_.push_back({name, counts}); }
  void match(const std::string& name, const Verdict& verdict) override;
  void problem(const std::string& name, const Problem& problem) override;
  void fatal(const Problem& problem) override { complain("", problem); }
  void finish() override;

 private:
  struct NamedCounts {
    std::string name;
    Counts counts;
  };

  Counts measure(es_acl_head* acl, Widths* widths);
  void put_headings(const Widths& widths);
  const char* colour(const char* code) const { return colour_ ? code : nullptr; }

  Output& out_;
  const es_acl_match_key frame_;
  const bool colour_;
  bool first_ = true;
  Row row_;
  std::string line_;
  std::vector<NamedCounts> counts_;
};

Counts TextReport::measure(es_acl_head* acl, Widths* widths) {
  Counts counts;
  for (size_t column = 0; column < kColumns; ++column) (*widths)[column] = kHeadings[column].size();
  for_each_ace(acl, [&](const es_acl_ace& ace) {
    fill(row_, ace);
    for (size_t column = 0; column < kColumns; ++column)
      (*widths)[column] = std::max((*widths)[column], row_[column].size());
    ++counts.aces;
    counts.remarks += ace.kind == ES_ACL_KIND_REMARK;
    return true;
  });
  return counts;
}

void TextReport::put_headings(const Widths& widths) {
  put_row(line_, kHeadings, widths, nullptr);
  out_.put(line_);
}

void TextReport::show(const std::string& name, es_acl_head* acl) {
  Widths widths;
  const Counts counts = measure(acl, &widths);
  line_.assign(first_ ? "" : "\n");
  first_ = false;
  put_coloured(line_, name, colour(kBold));
  out_.put(line_ + ": " + summary(counts) + "\n");
  if (counts.aces == 0) return;
  put_headings(widths);
  for_each_ace(acl, [&](const es_acl_ace& ace) {
    fill(row_, ace);
    put_row(line_, row_, widths, colour(action_colour(row_[kAction])));
    out_.put(line_);
    return !out_.failed();
  });
}

void TextReport::match(const std::string& name, const Verdict& verdict) {
  line_ = name + ": ";
  if (verdict.result == ES_ACL_MATCH_NONE) {
    put_coloured(line_, "none", colour(kDim));
    line_ += ", no entry matches";
  } else {
    const bool permit = verdict.result == ES_ACL_MATCH_PERMIT;
    put_coloured(line_, permit ? "permit" : "deny", colour(permit ? kGreen : kRed));
    append_number(line_ += " by entry ", verdict.hit.seq);
    if (verdict.hit.capture != 0) line_ += ", capture";
    if (verdict.hit.log_option != 0) line_ += ", log";
  }
  out_.put(line_ + " (" + frame_text(frame_) + ")\n");
}

// What is printed so far goes out first: on a terminal the lines then stand in the order of the names.
void TextReport::problem(const std::string& name, const Problem& problem) {
  out_.flush();
  complain(name, problem);
}

// The counts come last, since the column of names is as wide as the longest of them.
void TextReport::finish() {
  if (counts_.empty()) return;
  size_t width = std::strlen("ACL");
  for (const NamedCounts& entry : counts_) width = std::max(width, entry.name.size());
  const auto put = [&](const std::string& name, const std::string& entries, const std::string& remarks) {
    line_ = name + std::string(width - name.size(), ' ');
    for (const std::string* number : {&entries, &remarks})
      line_ += std::string(12 - std::min<size_t>(10, number->size()), ' ') + *number;
    out_.put(line_ + "\n");
  };
  put("ACL", "Entries", "Remarks");
  for (const auto& [name, counts] : counts_)
    put(name, std::to_string(counts.aces), std::to_string(counts.remarks));
}

}  // namespace

std::unique_ptr<Report> text_report(Output& out, const Options& options) {
  return std::make_unique<TextReport>(out, options);
}

}  // namespace es_acl::tool
