#include "lists.h"

#include <algorithm>
#include <cstdio>

namespace es_acl::history {
namespace {

using nlohmann::json;

// Remarks have numbers of their own: rules turn into rules only.
constexpr uint32_t kNumbers = 200, kFirstRemark = 100000;

json configured(uint32_t seq, uint32_t mark) {
  if (mark == 0) return {{"sequence", seq}, {"remark", "as agreed"}};
  char mac[24];
  std::snprintf(mac, sizeof mac, "02:00:%02x:%02x:%02x:%02x", mark >> 24, mark >> 16 & 255, mark >> 8 & 255,
                mark & 255);
  return {{"sequence", seq},
          {"matches", {{"eth", {{"source-mac-address", mac}}}}},
          {"actions", {{"forwarding", mark % 2 != 0 ? "accept" : "drop"}}}};
}

// Remarks stand in every other ACL; the others are renumbered now and then.
void change(List* list, std::mt19937& random, bool has_remarks) {
  static uint32_t last_mark = 0;
  std::map<uint32_t, uint32_t> entries(list->begin(), list->end());
  const auto kind = random() % 16;
  if (kind == 0) entries.clear();
  if (kind == 1 && !has_remarks)
    for (uint32_t seq = random() % 5; auto& entry : *list) entry.first = seq += 2;
  if (kind == 1) return;
  for (auto edits = 1 + random() % (kind < 4 ? 50 : 6); edits > 0; --edits) {
    const uint32_t seq = 1 + random() % kNumbers, width = random() % 12, remark = kFirstRemark + seq % 8;
    if (random() % 3 == 0)
      entries.erase(entries.lower_bound(seq), entries.upper_bound(seq + width));
    else
      entries[seq] = ++last_mark;
    if (has_remarks && entries.erase(remark) == 0) entries[remark] = 0;
  }
  list->assign(entries.begin(), entries.end());
}

uint32_t take(List::const_iterator* at, const List& list, uint32_t seq) {
  return *at != list.end() && (*at)->first == seq ? (*at)++->second : 0;
}

}  // namespace

List rules_of(const List& list) {
  List rules = list;
  std::erase_if(rules, [](const auto& entry) { return entry.second == 0; });
  return rules;
}

std::string to_text(const List& list) {
  std::string text = "[";
  for (const auto& [seq, mark] : list) text += " " + std::to_string(seq) + ":" + std::to_string(mark);
  return text + " ]";
}

bool on_the_way(const List& from, const List& to, const List& seen) {
  bool removal_left = false, addition_left = false, has_added = false;
  auto f = from.begin(), t = to.begin(), s = seen.begin();
  while (f != from.end() || t != to.end() || s != seen.end()) {
    uint32_t seq = UINT32_MAX;
    if (f != from.end()) seq = f->first;
    if (t != to.end()) seq = std::min(seq, t->first);
    if (s != seen.end()) seq = std::min(seq, s->first);
    const uint32_t was = take(&f, from, seq), will_be = take(&t, to, seq), is = take(&s, seen, seq);
    if (is != was && is != will_be) return false;
    if (was == will_be) continue;
    bool& left = will_be == 0 ? removal_left : addition_left;
    if (is == will_be && left) return false;
    left = left || is == was;
    has_added = has_added || (is == will_be && will_be != 0);
  }
  return !(has_added && removal_left);
}

bool same_but_for_numbers(const List& a, const List& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const auto& x, const auto& y) { return x.second == y.second; });
}

void change(Lists* lists, std::mt19937& random) {
  bool has_remarks = false;
  for (auto& [name, list] : *lists) {
    if (random() % 3 == 0) change(&list, random, has_remarks);
    has_remarks = !has_remarks;
  }
}

std::vector<json> configuration(const Lists& lists, size_t number) {
  std::vector<json> acls = {{{"name", "a-" + std::to_string(number)}}};
  for (const auto& [name, list] : lists) {
    json aces = json::array();
    for (const auto& [seq, mark] : list) aces.push_back(configured(seq, mark));
    if (!list.empty()) acls.push_back({{"name", name}, {"aces", {{"ace", aces}}}});
  }
  return acls;
}

}  // namespace es_acl::history
