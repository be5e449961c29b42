// Text for people: a table for each ACL that is shown, one line for each verdict, one table of counts.
//
// The columns are always the same ones, so that scripts may rely on them; they are as wide as this ACL needs,
// which takes a first pass over its entries. A change that arrives between the passes can only make a line
// stick out.
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <vector>

#include "entry_text.h"
#include "es_acl/es_acl_sync.h"
#include "fields.h"
#include "report.h"

namespace es_acl::tool {

namespace {

using Widths = std::array<size_t, kColumns>;

const Row kHeadings = {"Seq",       "Action",     "Source/mask", "Destination/mask",
                       "EtherType", "Outer VLAN", "Inner VLAN",  "Options"};

const char* action_colour(const std::string& action) {
  if (action == "permit") return kGreen;
  return action == "deny" ? kRed : kDim;
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
  append_ethertype_text(out += ", ", frame.eth_type);
  return out;
}

class TextReport : public Report {
 public:
  TextReport(Output& out, const Options& options)
      : out_(out), frame_(options.frame), colour_(colour_wanted()) {}

  void show(const std::string& name, const Acl& acl) override;
  void count(const std::string& name, const Counts& counts) override { counts_.push_back({name, counts}); }
  void match(const std::string& name, const Verdict& verdict) override;
  void verify(const std::string& name, const Client::Lists& lists) override;
  void problem(const std::string& name, const Problem& problem) override;
  void fatal(const Problem& problem) override { complain("", problem); }
  void finish() override;

 private:
  struct NamedCounts {
    std::string name;
    Counts counts;
  };

  void measure(es_acl_head* acl, Widths* widths);
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

void TextReport::measure(es_acl_head* acl, Widths* widths) {
  for (size_t column = 0; column < kColumns; ++column) (*widths)[column] = kHeadings[column].size();
  for_each_ace(acl, [&](const es_acl_ace& ace) {
    fill(row_, ace);
    for (size_t column = 0; column < kColumns; ++column)
      (*widths)[column] = std::max((*widths)[column], row_[column].size());
    return true;
  });
}

void TextReport::put_headings(const Widths& widths) {
  put_row(line_, kHeadings, widths, nullptr);
  out_.put(line_);
}

void TextReport::show(const std::string& name, const Acl& acl) {
  Widths widths;
  measure(acl.head(), &widths);
  const Counts counts = count_entries(acl);
  line_.assign(first_ ? "" : "\n");
  first_ = false;
  put_coloured(line_, name, colour(kBold));
  out_.put(line_ + ": " + summary(counts) + "\n");
  if (counts.aces == 0) return;
  put_headings(widths);
  for_each_ace(acl.head(), [&](const es_acl_ace& ace) {
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

// A line for the producer's list and for each client's.
std::array<std::string, 6> list_row(const es_acl_list_info& list) {
  if (list.pid == 0) {
    const char* const what = list.rules_only != 0 ? "producer, without remarks" : "producer";
    return {"-", what, "-", std::to_string(list.num_aces), digest_text(list), ""};
  }
  const std::string program = list.program[0] != '\0' ? printable(list.program) : "?";
  if (!is_compared(list)) return {std::to_string(list.pid), program, list_state_name(list), "-", "-", ""};
  // Who is not in step knows that it may differ.
  std::string verdict = list.equal != 0 ? "equal" : list.state == ES_ACL_IN_STEP ? "DIFFERS" : "differs";
  if (list.rules_only != 0) verdict += ", without remarks";
  return {std::to_string(list.pid),      program,           list_state_name(list),
          std::to_string(list.num_aces), digest_text(list), verdict};
}

void TextReport::verify(const std::string& name, const Client::Lists& lists) {
  std::vector<std::array<std::string, 6>> rows = {{"Process", "Program", "State", "Entries", "Digest", ""}};
  std::ranges::transform(lists, std::back_inserter(rows), list_row);
  std::array<size_t, 6> widths = {};
  for (const auto& row : rows)
    for (size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], row[column].size());
  line_.assign(first_ ? "" : "\n");
  first_ = false;
  put_coloured(line_, name, colour(kBold));
  out_.put(line_ + ":\n");
  for (const auto& row : rows) {
    line_.clear();
    for (size_t column = 0; column < row.size(); ++column) {
      const std::string gap(widths[column] - row[column].size(), ' ');
      const bool is_number = column == 0 || column == 3;
      line_ += "  ";
      if (is_number) line_ += gap;
      put_coloured(line_, row[column], row[column].starts_with("DIFFERS") ? colour(kRed) : nullptr);
      if (!is_number) line_ += gap;
    }
    end_line(line_);
    out_.put(line_);
  }
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
