// What the lists of ACLs may look like: the configurations that the producer is given one after the other, and what may be
// seen on the way from one to another. Values; any thread.
#ifndef ES_ACL_TESTS_HISTORY_LISTS_H_
#define ES_ACL_TESTS_HISTORY_LISTS_H_

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace es_acl::history {

// Sequence numbers with marks, in order. No two rules that were ever configured have the same mark; a remark's is 0.
using List = std::vector<std::pair<uint32_t, uint32_t>>;
using Lists = std::map<std::string, List>;

List rules_of(const List& list);
std::string to_text(const List& list);
// Of lists without remarks. Some of the removals have been made, or all of them and some of the additions; both in order.
bool on_the_way(const List& from, const List& to, const List& seen);
bool same_but_for_numbers(const List& a, const List& b);

// Changes some of them at random, some of those wholly.
void change(Lists* lists, std::mt19937& random);
// As a producer's configuration. What has no entries is left out; an ACL named "a-NUMBER" is there.
std::vector<nlohmann::json> configuration(const Lists& lists, size_t number);

}  // namespace es_acl::history

#endif  // ES_ACL_TESTS_HISTORY_LISTS_H_
