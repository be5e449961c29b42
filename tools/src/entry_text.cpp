#include "entry_text.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "fields.h"

namespace es_acl::tool {

namespace {

constexpr char kAny[] = "any";

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
    append_ethertype_text(row[kEthertype], ace.eth_type);
  else
    row[kEthertype] = kAny;
  put_tag(row[kOuter], {compared(ES_ACL_MATCH_VLAN), compared(ES_ACL_MATCH_COS), compared(ES_ACL_MATCH_DEI),
                        ace.vlan_first, ace.vlan_last, ace.cos, ace.dei});
  put_tag(row[kInner], {compared(ES_ACL_MATCH_IVLAN), compared(ES_ACL_MATCH_ICOS),
                        compared(ES_ACL_MATCH_IDEI), ace.ivlan_first, ace.ivlan_last, ace.icos, ace.idei});
  put_options(row[kOptions], ace);
}

constexpr const char* kLabels[kColumns] = {nullptr,      nullptr,       "source ",     "destination ",
                                           "ethertype ", "outer vlan ", "inner vlan ", ""};

}  // namespace

void fill(Row& row, const es_acl_ace& ace) {
  for (std::string& cell : row) cell.clear();
  append_number(row[kSequence], ace.seq);
  if (ace.kind == ES_ACL_KIND_REMARK)
    row[kAction] = "remark";
  else
    put_rule(row, ace);
}

void append_entry(std::string& out, const es_acl_ace& ace) {
  Row row;
  fill(row, ace);
  ((out += row[kSequence]) += ' ') += row[kAction];
  for (size_t column = kSource; column < kColumns; ++column) {
    if (row[column].empty() || row[column] == kAny) continue;
    ((out += ", ") += kLabels[column]) += row[column];
  }
}

void append_ethertype_text(std::string& out, uint16_t ethertype) {
  if (const char* name = ethertype_name(ethertype))
    out += name;
  else
    append_ethertype(out, ethertype);
}

std::string plural(uint64_t number, const char* one, const char* many) {
  return std::to_string(number) + " " + (number == 1 ? one : many);
}

std::string summary(const Counts& counts) {
  std::string text = plural(counts.aces, "entry", "entries");
  if (counts.remarks != 0) text += ", " + plural(counts.remarks, "of them a remark", "of them remarks");
  if (counts.remarks_left_out) text += ", remarks left out";
  return text;
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

}  // namespace es_acl::tool
