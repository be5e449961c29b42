// Values of a configuration entry in text form, and as the ACE record holds them. Pure functions.
#ifndef ES_ACL_PRODUCER_ACE_VALUES_H_
#define ES_ACL_PRODUCER_ACE_VALUES_H_

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace es_acl::producer {

// 48 bits as three 16-bit words, most significant first.
using MacWords = std::array<uint16_t, 3>;

// "00:11:22:33:44:55", in either case.
std::optional<MacWords> parse_mac(std::string_view text);

// "0x88cc" (one to four digits) or a well-known name such as "ipv6".
std::optional<uint16_t> parse_ethertype(std::string_view text);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_ACE_VALUES_H_
