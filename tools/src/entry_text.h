// One entry as people read it, and what else several texts share. Pure functions but for colour_wanted().
#ifndef ES_ACL_TOOLS_ENTRY_TEXT_H_
#define ES_ACL_TOOLS_ENTRY_TEXT_H_

#include <array>
#include <cstdint>
#include <string>

#include "client.h"

namespace es_acl::tool {

enum Column { kSequence, kAction, kSource, kDestination, kEthertype, kOuter, kInner, kOptions, kColumns };

// What an entry has in each column.
using Row = std::array<std::string, kColumns>;

// Strings that are filled again keep their memory from row to row.
void fill(Row& row, const es_acl_ace& ace);

// The same in one line, without what the entry does not look at: "20 deny, ethertype arp, log".
void append_entry(std::string& out, const es_acl_ace& ace);

void append_ethertype_text(std::string& out, uint16_t ethertype);  // "ipv6", "0x9000"

std::string plural(uint64_t number, const char* one, const char* many);  // "1 entry", "2 entries"
std::string summary(const Counts& counts);                               // "4 entries, 1 of them a remark"

constexpr char kBold[] = "\033[1m";
constexpr char kRed[] = "\033[31m";
constexpr char kGreen[] = "\033[32m";
constexpr char kDim[] = "\033[2m";
constexpr char kPlain[] = "\033[0m";

// Whether standard output is a terminal that wants colour.
bool colour_wanted();
// `colour` may be null.
void put_coloured(std::string& line, const std::string& text, const char* colour);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_ENTRY_TEXT_H_
