// The library on its real store beside the simplest thing that could be right, a map for each ACL: both get the same
// long random sequence of pushes, resequencings, gets, registrations and releases. After each step the lists
// are the same, the callbacks were shown what they had to be, and what is to be notified is armed.
#include <algorithm>
#include <map>
#include <random>

#include "push_fixture.h"

extern "C" void es_acl_api_init_funcs(es_acl_api_table* apis);

using namespace es_test;

namespace {

using List = std::map<uint32_t, Ace>;

// An ACL of the producer, and the copy while there are holders.
struct Acl {
  std::string name;
  List list{};
  int holders = 0;
  es_acl_head* head = nullptr;
  bool notifies = false;
  bool armed = false;
};

std::string show_ace(const Ace& ace) {
  return " " + show(ace.seq) + "=" + show(ace.content) + "/" + show(ace.kind);
}
Ace ace_of(const es_acl_ace* ace) { return {ace->seq, ace->log_option, ace->kind}; }
const Ace* find(const List& list, uint32_t seq) {
  const auto at = list.find(seq);
  return at == list.end() ? nullptr : &at->second;
}

class Model : public PushTest, public ::testing::WithParamInterface<std::tuple<uint32_t, uint32_t>> {
 protected:
  void SetUp() override {
    platform().dll_symbol.always(
        [](void*, const char*) { return reinterpret_cast<void*>(&es_acl_api_init_funcs); });
    PushTest::SetUp();
    for (debug_category& category : platform().categories) category.enabled = 0;
    platform().pool_take.always([this](pool*) { return ++records_, malloc(80); });
    platform().pool_give.always([this](pool*, void* record) { --records_, free(record); });
    platform().pcx_read.always(
        [this](void* handle, const void* request, uint32_t size, void* buffer, uint32_t* length) {
          const auto* const bytes = static_cast<const uint8_t*>(request);
          return answer(read(Bytes(bytes, bytes + size)))(handle, request, size, buffer, length);
        });
    ASSERT_EQ(es_acl_register_resequence_callback(on_renumbering, this), 0U);
    es_acl_set_modify_mode(mode_);
  }

  uint32_t random(uint32_t below) { return static_cast<uint32_t>(random_() % below); }
  Aces some_aces() {
    Aces aces(1 + random(random(8) == 0 ? 80 : 12));
    for (Ace& ace : aces) ace = {1 + random(60), static_cast<uint8_t>(random(3)), random(8) == 0 ? 1U : 0U};
    return aces;
  }

  // --- The producer's side of a get ---

  Bytes read(const Bytes& request) {
    Aces aces;
    for (const Acl& acl : acls_)
      if (acl.name == get_name(request, 8))
        for (const auto& [seq, ace] : acl.list)
          if (seq > get_32(request, 76) && aces.size() < get_32(request, 80)) aces.push_back(ace);
    return batch(0, aces);
  }

  // --- What the callbacks are shown ---

  static std::string show_removal(const Aces& aces) {
    std::string text = "remove";
    for (const Ace& ace : aces) text += show_ace(ace);
    return text;
  }
  static uint32_t on_batch(es_acl_head* head, uint32_t action, uint32_t n, const ace_edit_info* elements,
                           void* context) {
    auto* const model = static_cast<Model*>(context);
    Aces removed;
    std::string text = "add";
    for (uint32_t i = 0; i < n; ++i) {
      removed.push_back(ace_of(elements[i].ace));
      text += show_ace(removed.back());
      if (elements[i].old_ace != nullptr) text += " for" + show_ace(ace_of(elements[i].old_ace));
      EXPECT_EQ(elements[i].is_new, action == ACL_ADD_ACE && elements[i].old_ace == nullptr ? 1U : 0U);
    }
    model->shown_.push_back(action == ACL_REMOVE_ACE ? show_removal(removed) : text);
    EXPECT_EQ(list(head), model->aces_of(*model->pushed_)) << "the list is still as it was";
    return model->shown_.size() == model->refused_call_ ? 5 : 0;
  }
  static uint32_t on_renumbering(es_acl_head*, uint32_t start, uint32_t step, uint32_t, const uint32_t*,
                                 void* context) {
    static_cast<Model*>(context)->shown_.push_back("renumber " + show(start) + " " + show(step));
    return 0;
  }
  static void on_notice(es_acl_head* head, uint32_t) { ++notices_[head]; }

  // Every client is told, up to the one that refuses.
  bool all_agree(const std::string& text) {
    for (int i = 0; i < clients_; ++i) {
      expected_.push_back(text);
      if (expected_.size() == refused_call_) return false;
    }
    return true;
  }

  // --- What a push does to a list; false when it is refused or changes nothing ---

  bool removed(const Aces& pushed, List& after) {
    const List before = after;
    Aces shown;
    for (const Ace& ace : pushed)
      if (const Ace* found = find(before, ace.seq); found != nullptr && found->kind != 1)
        shown.push_back(*found);
    if (!shown.empty() && !all_agree(show_removal(shown))) return false;
    for (const Ace& ace : pushed) after.erase(ace.seq);
    return true;
  }

  bool added(const Aces& pushed, List& after) {
    const List before = after;
    const bool add_only = mode_ == 1;
    const auto unchanged = [&](const Ace& ace) {
      const Ace* const found = find(before, ace.seq);
      return found != nullptr && *found == ace && (add_only || found->kind != 1);
    };
    Aces shown;
    for (auto ace = pushed.rbegin(); ace != pushed.rend() && !add_only; ++ace)
      if (const Ace* found = find(before, ace->seq); found != nullptr && found->kind != 1 && !unchanged(*ace))
        shown.push_back(*found);
    if (!shown.empty() && !all_agree(show_removal(shown))) return false;
    std::string text = "add";
    for (const Ace& ace : pushed) {
      if (unchanged(ace)) continue;
      const Ace* const old = add_only ? find(before, ace.seq) : nullptr;
      text += show_ace(ace) + (old != nullptr ? " for" + show_ace(*old) : "");
      if (add_only && old == nullptr)
        after.emplace(ace.seq, ace);
      else
        after[ace.seq] = ace;
    }
    return text != "add" && all_agree(text);
  }

  bool renumbered(uint32_t start, uint32_t step, const Numbers& skips, List& list) {
    List after;
    uint64_t next = start;
    for (auto [seq, ace] : list) {
      while (std::count(skips.begin(), skips.end(), next) != 0 && step != 0) next += step;
      if (step == 0 || next > 0xffffffff) return false;
      ace.seq = static_cast<uint32_t>(next);
      after[ace.seq] = ace;
      next += step;
    }
    if (step == 0) return false;
    list = after;
    expected_.push_back("renumber " + show(start) + " " + show(step));
    return true;
  }

  // --- Steps ---

  void push_change(Acl& acl) {
    const bool removal = random(3) == 0;
    const Aces aces = some_aces();
    refused_call_ = random(4) == 0 ? 1 + random(4) : 0;
    List after = acl.list;
    if (acl.head != nullptr && (removal ? removed(aces, after) : added(aces, after))) {
      acl.armed |= acl.notifies;
    } else {
      after = acl.list;
    }
    pushed_ = &acl;
    push(batch(removal ? kRemove : kAdd, aces, acl.name));
    acl.list = after;
  }

  void push_resequencing(Acl& acl) {
    const uint32_t start = random(10) == 0 ? 0xffffffffU - random(100) : 1 + random(30), step = random(5);
    Numbers skips(random(6));
    for (uint32_t& skip : skips) skip = random(60);
    if (acl.head != nullptr) {
      renumbered(start, step, skips, acl.list);
      acl.armed |= acl.notifies;
    }
    push(resequencing(start, step, skips, acl.name));
  }

  void get_or_release(Acl& acl) {
    if (random(2) == 0) {
      const Got got = get({acl.name.c_str()});
      ASSERT_EQ(got.status, 0U);
      EXPECT_EQ(got.heads[0] == acl.head, acl.holders != 0);
      acl.head = got.heads[0];
      ++acl.holders;
    } else if (acl.holders > 0) {
      release({acl.head});
      if (--acl.holders == 0) acl = {acl.name, acl.list};
    }
  }

  void change_clients(Acl& acl) {
    if (random(2) == 0 && acl.head != nullptr) {
      acl.notifies = !acl.notifies;
      if (acl.notifies) {
        EXPECT_EQ(es_acl_register_callback(acl.head, on_notice, 0), 0U);
      } else {
        es_acl_unregister_callback(acl.head, on_notice, 0);
      }
    } else if (clients_ < 3 && random(2) == 0) {
      EXPECT_EQ(es_acl_register_update_callback(on_batch, this), 0U);
      ++clients_;
    } else if (clients_ > 0) {
      es_acl_unregister_update_callback(on_batch, this);
      --clients_;
    }
  }

  void let_time_pass(Acl& acl) {
    if (!acl.armed) return;
    expire(acl.head->cb_timer_leaf);
    notices_.clear();
    es_acl_cb_process_timer(0, nullptr);
    EXPECT_EQ(notices_[acl.head], acl.notifies ? 1 : 0);
    acl.armed = false;
  }

  void take_step(Acl& acl) {
    const uint32_t what = random(20);
    if (what < 10) return push_change(acl);
    if (what < 12) return push_resequencing(acl);
    if (what < 14) return get_or_release(acl);
    if (what < 17) return change_clients(acl);
    let_time_pass(acl);
  }

  static Aces aces_of(const Acl& acl) {
    Aces aces;
    for (const auto& [seq, ace] : acl.list) aces.push_back(ace);
    return aces;
  }

  void compare() {
    EXPECT_EQ(shown_, expected_);
    for (const Acl& acl : acls_) {
      EXPECT_EQ(es_acl_lookup(acl.name.c_str()), acl.head);
      if (acl.head == nullptr) continue;
      EXPECT_EQ(list(acl.head), aces_of(acl));
      EXPECT_EQ(acl.head->ace_count, acl.list.size());
      EXPECT_EQ(acl.head->cb_timer_leaf != nullptr && armed(acl.head), acl.armed);
    }
  }

  const uint32_t mode_ = std::get<0>(GetParam()), seed_ = std::get<1>(GetParam());
  std::mt19937 random_{seed_};
  Acl acls_[3] = {{"edge"}, {"core"}, {"rack"}};
  int records_ = 0;          // out of the pool
  int clients_ = 0;          // registrations of on_batch()
  size_t refused_call_ = 0;  // which call of it refuses, 0 for none
  const Acl* pushed_ = nullptr;
  Lines shown_, expected_;
  static inline std::map<es_acl_head*, int> notices_;
};

TEST_P(Model, SameAsTheModel) {
  for (int step = 0; step < 3000 && !HasFailure(); ++step) {
    SCOPED_TRACE("seed " + std::to_string(seed_) + ", step " + std::to_string(step));
    take_step(acls_[random(3)]);
    compare();
    shown_.clear();
    expected_.clear();
    clear_log();
  }
  for (Acl& acl : acls_)
    for (; acl.holders > 0; --acl.holders) release({acl.head});
  EXPECT_EQ(records_, 0);
}
INSTANTIATE_TEST_SUITE_P(Modes, Model,
                         ::testing::Combine(::testing::Values(0U, 1U), ::testing::Range(1U, 5U)));

}  // namespace
