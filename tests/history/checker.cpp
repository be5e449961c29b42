#include "checker.h"

#include <algorithm>
#include <chrono>
#include <sstream>
#include <stdexcept>

#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_sync.h"

namespace es_acl::history {
namespace {

List read_list(std::istream& line) {
  List list;
  for (List::value_type entry; line >> entry.first >> entry.second;) list.push_back(entry);
  return list;
}

uint32_t mark_at(const List& list, uint32_t seq) {
  const auto at = std::lower_bound(list.begin(), list.end(), List::value_type(seq, 0));
  return at != list.end() && at->first == seq ? at->second : 0;
}

void require(bool holds, const std::string& otherwise, const List& list) {
  if (!holds) throw std::runtime_error(otherwise + "\n  list " + to_text(list));
}

}  // namespace

uint64_t now_ms() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

void History::add(const Lists& lists, bool begins) {
  Configured& next = all_.emplace_back(Configured{lists, {}, begins});
  for (const auto& [acl, list] : lists) next.rules[acl] = rules_of(list);
}

size_t History::at(uint64_t time) const {
  size_t number = last();
  while (number > 0 && (all_[number].taken == UINT64_MAX || all_[number].taken > time)) --number;
  return number;
}

void Copy::read(char kind, uint64_t time, std::istream& line) {
  uint32_t state = 0;
  if (kind == 'B') since_ = time;
  if (kind == 'R') held_ = false;
  if (kind == 'G' && line >> state >> has_remarks_) {
    held_ = true;
    told_of_state(state, since_, false);
  }
  if (kind == 'N' && line >> state) told_of_state(state, time, true);
  if (kind == 'S' && line >> state) seen(time, state, read_list(line));
  if (kind == 'U') told_of_update(line);
  if (kind == 'Q') told_of_renumbering(rules_of(read_list(line)));
  if (kind == 'D') require(!held_ || ++notices_ <= changes_, "notified of no change", to_);
}

// What is read in order to catch up is one of the producer's lists, and not older than the state.
void Copy::told_of_state(uint32_t state, uint64_t time, bool catching_up) {
  if (held_ && state == ES_ACL_IN_STEP) {
    floor_ = std::max(floor_, history_.at(since_));
    while (catching_up && known_ && floor_ < history_.last() && history_.rules(floor_, acl_) != to_) ++floor_;
    require(!catching_up || !known_ || history_.rules(floor_, acl_) == to_, "in step with no such list", to_);
    refused_ = false;
  }
  if (state != ES_ACL_IN_STEP) since_ = time;
  state_ = state;
  base_ = to_;
  if (known_) explain(to_, floor_);
}

void Copy::told_of_update(std::istream& line) {
  uint32_t action, refused;
  size_t count;
  line >> action >> refused >> count;
  std::vector<uint32_t> edits(3 * count);  // number, mark, replaced mark of each
  for (uint32_t& word : edits) line >> word;
  const List list = rules_of(read_list(line));
  require(!known_ || list == to_ || (only_announced_ && list == from_),
          "changed untold, from " + to_text(to_), list);
  std::map<uint32_t, uint32_t> next(list.begin(), list.end());
  for (auto edit = edits.begin(); edit != edits.end(); edit += 3) {
    check_edit(action, edit[0], edit[1], edit[2], list);
    if (edit[1] != 0) action == ACL_ADD_ACE ? void(next[edit[0]] = edit[1]) : void(next.erase(edit[0]));
  }
  if (!known_) base_ = list;
  known_ = true;
  from_ = to_ = list;
  if (refused == 0) to_.assign(next.begin(), next.end());
  refused_ = refused_ || refused != 0;
  changes_ += refused == 0;
  only_announced_ = action == ACL_REMOVE_ACE && refused == 0;
  explain(list, floor_);
  if (!only_announced_) explain(to_, floor_);  // else told again, or to be seen
}

// Where replaced rules are told as removals, that has just happened.
void Copy::check_edit(uint32_t action, uint32_t seq, uint32_t mark, uint32_t old, const List& list) const {
  const uint32_t held = mark_at(list, seq);
  const std::string what = ", " + std::to_string(seq) + ":" + std::to_string(mark);
  if (action == ACL_REMOVE_ACE) return require(mark == held, "told of a removal that is none" + what, list);
  if (mark == 0) return;
  require(mark != held, "told of an addition that is none" + what, list);
  require(old == (add_only_ ? held : 0), "told of another rule than the replaced one" + what, list);
  const bool announced = only_announced_ && from_ == list && mark_at(to_, seq) == 0;
  require(add_only_ || held == 0 || announced, "a rule replaced untold" + what, list);
}

void Copy::told_of_renumbering(const List& list) {
  require(!known_ || same_but_for_numbers(to_, list), "renumbered into something else", list);
  if (!known_) base_ = list;
  known_ = true;
  from_ = to_ = list;
  only_announced_ = false;
  ++changes_;
  explain(list, floor_);
}

void Copy::seen(uint64_t time, uint32_t state, const List& whole) {
  const List list = rules_of(whole);
  if (!known_) base_ = from_ = to_ = list;
  known_ = true;
  require(on_the_way(from_, to_, list) || same_but_for_numbers(to_, list),
          "on no way from " + to_text(from_) + "\n  to " + to_text(to_), list);
  if (state == ES_ACL_IN_STEP)
    state_ = ES_ACL_IN_STEP;  // the end of a silence that was none of the connection goes untold
  const bool in_step = state == ES_ACL_IN_STEP && time > kOldestMs;
  explain(list, in_step ? std::max(floor_, history_.at(time - kOldestMs)) : floor_);
  changes_ += whole != last_seen_;  // remarks go untold
  last_seen_ = whole;
  last_state_ = state;
}

bool Copy::is_explained(const List& list, size_t n) const {
  const bool between_two =
      state_ != ES_ACL_CATCHING_UP && on_the_way(history_.rules(n, acl_), history_.next_rules(n, acl_), list);
  return between_two || (state_ != ES_ACL_IN_STEP && on_the_way(base_, history_.rules(n, acl_), list));
}

void Copy::explain(const List& list, size_t oldest) {
  if (!held_ || refused_) return;
  size_t n = oldest;
  while (n <= history_.last() && !is_explained(list, n)) ++n;
  require(n <= history_.last(),
          "unexplained in state " + std::to_string(state_) + ", by configuration " + std::to_string(oldest) +
              " and later; that one is " + to_text(history_.rules(oldest, acl_)),
          list);
  if (state_ == ES_ACL_IN_STEP) floor_ = n;
}

std::string Copy::difference() const {
  if (!held_) return acl_ + " is not held";
  if (last_state_ != ES_ACL_IN_STEP) return acl_ + " was seen last in state " + std::to_string(last_state_);
  const List& wanted =
      has_remarks_ ? history_.whole(history_.last(), acl_) : history_.rules(history_.last(), acl_);
  return last_seen_ == wanted ? "" : acl_ + " is " + to_text(last_seen_) + "\n  not " + to_text(wanted);
}

size_t ClientLog::read() {
  size_t count = 0;
  in_.clear();
  for (std::string part; std::getline(in_, part);) {
    rest_ += part;
    if (in_.eof()) break;  // still to be written on
    read(rest_);
    rest_.clear();
    ++count;
  }
  return count;
}

void ClientLog::read(const std::string& line) try {
  std::istringstream words(line);
  char kind = 0;
  uint64_t time = 0;
  std::string acl;
  words >> kind >> time >> acl;
  if (kind == 'B') copies_.erase(acl);
  Copy& copy = copies_.try_emplace(acl, history_, acl, add_only_).first->second;
  copy.read(kind, time, words);
  notices_ += kind == 'D';
  if (kind == 'S' && history_.at(time) == history_.last() && copy.difference().empty())
    equal_to_[acl] = history_.last();
} catch (const std::runtime_error& error) {
  throw std::runtime_error(file_ + ": " + error.what() + "\n  at " + line);
}

std::string ClientLog::difference(size_t acls) const {
  size_t equal = 0;
  for (const auto& [acl, number] : equal_to_) equal += number == history_.last();
  if (equal == acls) return "";
  std::string found = file_ + ":";
  for (const auto& [acl, copy] : copies_) found += "\n  " + copy.difference();
  return found;
}

}  // namespace es_acl::history
