// Holds what the clients have seen and were told against what the producer had.
//
// A client's record is a line in its file, "KIND MILLISECONDS ACL ...", with LIST as "SEQ MARK SEQ MARK ...":
//
//     B                   is about to get the ACL
//     G STATE REMARKS     has got it, with or without remarks
//     R                   is about to release it
//     S STATE LIST        has walked it under its lock, and has been told nothing of it meanwhile
//     U ACTION REFUSED N (SEQ MARK OLD-MARK)* LIST    update callback, with the list as it stands then
//     Q LIST              resequence callback, likewise
//     N STATE             sync callback
//     D                   deferred notification
//
// What must hold: each callback tells a change, of a list that is what the callbacks before have made of it; each list that
// is seen is on the way between the two. And of the producer's lists: while an ACL is in step the client sees one of them,
// not older than is promised, or the way from it to the next; while it catches up, the way from the list that it had to one
// of them; while it is out of touch, either, for a connection that is silent may go on. (Behind a refusal, until it is in
// step again, pushes meet another list than the producer's.)
//
// One thread. What does not hold is thrown.
#ifndef ES_ACL_TESTS_HISTORY_CHECKER_H_
#define ES_ACL_TESTS_HISTORY_CHECKER_H_

#include <fstream>

#include "lists.h"

namespace es_acl::history {

// How old a list may be that a client takes for the producer's: silence is noticed after three seconds. What was sent before
// it waits some more where a busy machine does not let the client read it.
constexpr uint64_t kOldestMs = 5000 + 1000 * HISTORY_SLACK;

// Milliseconds of the monotonic clock.
uint64_t now_ms();

// Every configuration in the order in which the producer was given them.
class History {
 public:
  // `begins`: a producer starts with it, so nothing leads there from the one before.
  void add(const Lists& lists, bool begins);
  // The producer is known to have the last one.
  void taken() { all_.back().taken = now_ms(); }
  size_t last() const { return all_.size() - 1; }
  // The newest one that it is known to have had at that time.
  size_t at(uint64_t time) const;
  const List& whole(size_t number, const std::string& acl) const { return all_[number].whole.at(acl); }
  const List& rules(size_t number, const std::string& acl) const { return all_[number].rules.at(acl); }
  // What a push may make of it.
  const List& next_rules(size_t number, const std::string& acl) const {
    return rules(number < last() && !all_[number + 1].begins ? number + 1 : number, acl);
  }

 private:
  struct Configured {
    Lists whole, rules;
    bool begins;
    uint64_t taken = UINT64_MAX;
  };
  std::vector<Configured> all_;
};

// One client's copy of one ACL.
class Copy {
 public:
  Copy(const History& history, std::string acl, bool add_only)
      : history_(history), acl_(std::move(acl)), add_only_(add_only) {}

  void read(char kind, uint64_t time, std::istream& line);
  // Empty when it is in step, with the producer's last list or the rules of it.
  std::string difference() const;

 private:
  void told_of_state(uint32_t state, uint64_t time, bool catching_up);
  void told_of_update(std::istream& line);
  void check_edit(uint32_t action, uint32_t seq, uint32_t mark, uint32_t old, const List& list) const;
  void told_of_renumbering(const List& list);
  void seen(uint64_t time, uint32_t state, const List& whole);
  bool is_explained(const List& list, size_t configuration) const;
  void explain(const List& list, size_t oldest);

  const History& history_;
  const std::string acl_;
  const bool add_only_;
  bool held_ = false, has_remarks_ = true;
  uint32_t state_ = 0;
  uint64_t since_ = 0;           // when it was got, or began to catch up
  size_t floor_ = 0;             // no configuration before that one
  bool known_ = false;           // the two lists are
  List from_, to_;               // what the last callback has told
  bool only_announced_ = false;  // that was a removal, perhaps one that an addition replaces
  bool refused_ = false;         // something since it was last in step
  List base_;                    // where catching up has begun
  uint64_t changes_ = 0, notices_ = 0;
  List last_seen_;
  uint32_t last_state_ = UINT32_MAX;
};

// The file of one client process.
class ClientLog {
 public:
  ClientLog(const History& history, const std::string& file, bool add_only)
      : history_(history), file_(file), in_(file), add_only_(add_only) {}

  // Reads on. How many records.
  size_t read();
  // Empty when each of so many ACLs has been equal to the producer's last list: got anew, it can only be that again.
  std::string difference(size_t acls) const;
  size_t notices() const { return notices_; }

 private:
  void read(const std::string& line);

  const History& history_;
  const std::string file_;
  std::ifstream in_;
  const bool add_only_;
  std::string rest_;
  std::map<std::string, Copy> copies_;
  std::map<std::string, size_t> equal_to_;  // the last such list
  size_t notices_ = 0;
};

}  // namespace es_acl::history

#endif  // ES_ACL_TESTS_HISTORY_CHECKER_H_
