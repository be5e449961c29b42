// Deferred notifications: who is registered, the timer behind them, and telling everybody.
#include "es_acl/es_acl_callback.h"
#include "library_fixture.h"
#include "scripted_callbacks.h"

using namespace es_test;

namespace {

Script<void(es_acl_head*, uint32_t)> on_change;  // what the client's function does

void changed(es_acl_head* acl, uint32_t context) { play(kCall, "changed", on_change, acl, context); }
void other(es_acl_head* acl, uint32_t context) { play(kCall, "other", on_change, acl, context); }

std::string calls_of(uint32_t context) { return "changed(head:edge, " + std::to_string(context) + ")"; }

const std::string kEntering = "I: Entering es_acl_register_callback for acl edge";
const std::string kTry = "trylock(lock:edge)", kUnlock = "unlock(lock:edge)";
const std::string kSetup = "es_acl_setup_callback_timer";
const Lines kUpToSetup = {kEntering, kTry, "D: es_acl_register_callback: Notify queue for acl edge is empty",
                          "I: Entering " + kSetup + " for acl edge Timer tree is 0x0"};
const std::string kNoTree = "D: " + kSetup + ": No timer tree, create one";
const Lines kUpToAttach =
    lines(kUpToSetup, kNoTree, "evm_async_attach(ctx, 128, es_acl_cb_process_timer, null)");
const Lines kUpToEvent = lines(kUpToAttach, "evm_init_sigevent(ctx, 7, 0, 0, ptr)");
const Lines kUpToTree = lines(kUpToEvent, "mtimer_tree_new(ptr, 0)");
const Lines kUpToLeaf =
    lines(kUpToTree, "D: " + kSetup + ": Timer tree created", "mtimer_leaf_new(tree, 0, 0, head:edge)");
const std::string kDetached = "evm_async_attach(ctx, 7, null, null)";
const std::string kNoLeaf = "E: " + kSetup + ": Null timer leaf";

std::string attach_error(int code) {
  return "E: " + kSetup + ": event async attach error " + std::to_string(code);
}

// A step that fails with a null pointer.
template <class Made>
auto failing(int code) {
  return [code](auto...) -> Made* {
    errno = code;
    return nullptr;
  };
}

class Notify : public LibraryTest {
 protected:
  void SetUp() override {
    initialise();
    name_pointer(reinterpret_cast<void*>(es_acl_cb_process_timer), "es_acl_cb_process_timer");
    on_change.always([](es_acl_head*, uint32_t) {});
    acl_ = make_held_acl("edge");
  }
  es_acl_head* make_held_acl(const std::string& name) {
    es_acl_head* const acl = make_acl(name);
    acl->evm_ctx = ctx();
    return acl;
  }
  void add(std::initializer_list<uint32_t> contexts) {
    for (const uint32_t context : contexts) ASSERT_EQ(es_acl_register_callback(acl_, changed, context), 0U);
    clear_log();
  }
  // What the leaf's second brings; nothing when it is not running.
  Lines after_a_second() {
    if (running_for(acl_->cb_timer_leaf) == 0) return {};
    expire(acl_->cb_timer_leaf);
    clear_log();
    es_acl_cb_process_timer(7, nullptr);
    return log_of("changed");
  }

  es_acl_head* acl_ = nullptr;
};

// --- The timer's set-up ---

// A failed registration leaves nothing, but for the tree; a failure that errno does not explain counts as none.
class NotifySetup : public Notify, public ::testing::WithParamInterface<Case> {};

const Case kFailures[] = {
    {"attach", [] { platform().evm_async_attach.next(failed_with(28)); }, 28,
     lines(kUpToAttach, attach_error(28), kUnlock)},
    {"attach_unexplained", [] { platform().evm_async_attach.next(failed_with(0)); }, 0,
     lines(kUpToAttach, attach_error(0), kUnlock)},
    {"event", [] { platform().evm_init_sigevent.next(failed_with(5)); }, 5,
     lines(kUpToEvent, kDetached, kUnlock)},
    {"tree", [] { platform().mtimer_tree_new.next(failing<mtimer_tree>(12)); }, 12,
     lines(kUpToTree, kDetached, "trace w", kUnlock)},
    {"leaf", [] { platform().mtimer_leaf_new.next(failing<mtimer_leaf>(11)); }, 11,
     lines(kUpToLeaf, kNoLeaf, kUnlock)},
    {"leaf_unexplained", [] { platform().mtimer_leaf_new.next(failing<mtimer_leaf>(0)); }, 0,
     lines(kUpToLeaf, kNoLeaf, kUnlock)},
};

TEST_P(NotifySetup, FailureIsTold) {
  platform().line_printed.always(
      [](uint32_t, const std::string&) { errno = 99; });  // what is printed changes it
  // Whatever comes after the failing call changes it, too.
  platform().evm_async_attach.always([](evm*, int code, evm_async_handler, void*) {
    if (code != 128) errno = 98;
    return code == 128 ? 7 : 0;
  });
  GetParam().arrange();
  EXPECT_EQ(es_acl_register_callback(acl_, changed, 1), GetParam().status);
  EXPECT_EQ(take_log(), GetParam().expected);
  const bool registered = GetParam().status == 0;
  const bool has_tree = es_acl_cb_timer_tree != nullptr;
  EXPECT_EQ(has_tree, std::string(GetParam().name).starts_with("leaf"));
  EXPECT_EQ(acl_->cb_timer_leaf, nullptr);

  es_acl_start_cb_timer(acl_);
  EXPECT_EQ(log_of("mtimer_leaf_start"), Lines{}) << "there is no leaf";
  es_acl_invoke_list(acl_);
  EXPECT_EQ(log_of("changed").size(), registered ? 1U : 0U);
  if (registered) return;
  clear_log();
  EXPECT_EQ(es_acl_register_callback(acl_, changed, 1), 0U) << "the next one tries again";
  EXPECT_EQ(log_of("mtimer_tree_new").size(), has_tree ? 0U : 1U);
  EXPECT_NE(acl_->cb_timer_leaf, nullptr);
}

INSTANTIATE_CASES(NotifySetup, kFailures);

TEST_F(Notify, SetupIsDoneOnceForTheProcessAndOnceForEachAcl) {
  EXPECT_EQ(es_acl_register_callback(acl_, changed, 1), 0U);
  char created[96];
  const auto low = [](void* handle) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(handle)); };
  snprintf(created, sizeof created, "D: %s: create ES_ACL_LIB_CALLBACK_TIMER leaf 0x%x for edge",
           kSetup.c_str(), low(acl_->cb_timer_leaf));
  EXPECT_EQ(take_log(), lines(kUpToLeaf, created, kUnlock));
  EXPECT_EQ(es_acl_register_callback(acl_, changed, 2), 0U);
  EXPECT_EQ(take_log(), lines(kEntering, kTry, kUnlock)) << "somebody is there already";

  es_acl_unregister_callback(acl_, changed, 1);
  es_acl_unregister_callback(acl_, changed, 2);
  void* const leaf = acl_->cb_timer_leaf;
  EXPECT_EQ(es_acl_register_callback(acl_, changed, 3), 0U);
  EXPECT_EQ(acl_->cb_timer_leaf, leaf);
  EXPECT_EQ(es_acl_register_callback(make_held_acl("core"), changed, 1), 0U);
  char entering[96];
  snprintf(entering, sizeof entering, "I: Entering %s for acl core Timer tree is 0x%x", kSetup.c_str(),
           low(es_acl_cb_timer_tree));
  EXPECT_EQ(log_of("I: Entering " + kSetup), Lines{entering});
  EXPECT_EQ(log_of("mtimer_leaf_new"), Lines{"mtimer_leaf_new(tree, 0, 0, head:core)"});
  EXPECT_EQ(log_of("evm_async_attach"), Lines{});
}

TEST_F(Notify, NoMemoryForAnEntryKeepsTheTimer) {
  fail_allocation(1);
  EXPECT_EQ(es_acl_register_callback(acl_, changed, 1), 0x46b18200U);
  EXPECT_TRUE(end_allocation_failure());
  EXPECT_EQ(log().back(), kUnlock);
  void* const leaf = acl_->cb_timer_leaf;
  EXPECT_NE(leaf, nullptr);
  es_acl_start_cb_timer(acl_);
  EXPECT_EQ(running_for(leaf), 0U) << "nobody is there";
  add({1});
  EXPECT_EQ(acl_->cb_timer_leaf, leaf);
}

// --- Who is registered ---

TEST_F(Notify, Refusals) {
  const std::string refused = "E: es_acl_register_callback: ACL or the callback function is NULL";
  EXPECT_EQ(es_acl_register_callback(acl_, nullptr, 1), 0x46b18400U);
  EXPECT_EQ(es_acl_register_callback(nullptr, changed, 1), 0x46b18400U);
  es_acl_unregister_callback(nullptr, changed, 1);
  es_acl_invoke_list(nullptr);
  EXPECT_EQ(take_log(),
            lines(refused, refused, "E: es_acl_unregister_callback: Error, ACL should not be NULL.",
                  "E: es_acl_invoke_list: ACL pointer is NULL, returning."));
}

TEST_F(Notify, EqualPairsAreCounted) {
  const std::string entering = "I: Entering es_acl_unregister_callback for acl edge";
  const auto found = [](int count) {
    return "D: es_acl_unregister_callback: Found func/ctx. Refcnt is " + std::to_string(count);
  };
  add({1, 2});
  ASSERT_EQ(es_acl_register_callback(acl_, other, 1), 0U);
  clear_log();
  EXPECT_EQ(es_acl_register_callback(acl_, changed, 1), 0U);
  EXPECT_EQ(take_log(),
            lines(kEntering, kTry, "D: es_acl_register_callback: func/ctx exist, refcnt 2", kUnlock));

  const Lines everybody = {calls_of(1), calls_of(2), "other(head:edge, 1)"};
  es_acl_invoke_list(acl_);
  EXPECT_EQ(lines(log_of("changed"), log_of("other")), everybody) << "once each, whatever the count";
  clear_log();
  es_acl_unregister_callback(acl_, changed, 3);
  es_acl_unregister_callback(acl_, nullptr, 1);
  EXPECT_EQ(take_log(), lines(entering, kTry, kUnlock, entering, kTry, kUnlock)) << "nobody has this pair";
  es_acl_unregister_callback(acl_, changed, 1);
  EXPECT_EQ(take_log(), lines(entering, kTry, found(2), kUnlock));
  es_acl_unregister_callback(acl_, changed, 1);
  EXPECT_EQ(take_log(),
            lines(entering, kTry, found(1), "D: es_acl_unregister_callback: Last one, free it", kUnlock));
  es_acl_invoke_list(acl_);
  EXPECT_EQ(lines(log_of("changed"), log_of("other")), Lines(everybody.begin() + 1, everybody.end()));
}

// --- The timer ---

TEST_F(Notify, ArmedOnlyForSomebodyOnAnEventManager) {
  const std::string entering = "I: Entering es_acl_start_cb_timer for acl edge";
  const Lines nobody = {entering, "D: es_acl_start_cb_timer Fwd_agent should just return from here"};
  es_acl_start_cb_timer(acl_);
  EXPECT_EQ(take_log(), nobody);
  add({1});
  acl_->evm_ctx = nullptr;
  es_acl_start_cb_timer(acl_);
  EXPECT_EQ(take_log(), Lines{entering});
  acl_->evm_ctx = ctx();
  es_acl_start_cb_timer(acl_);
  EXPECT_EQ(take_log(), (Lines{entering, "D: es_acl_start_cb_timer: Staring the timer", "timer_one_second()",
                               "mtimer_leaf_start(leaf, 1000000000)"}));
  es_acl_unregister_callback(acl_, changed, 1);
  clear_log();
  es_acl_start_cb_timer(acl_);
  EXPECT_EQ(take_log(), nobody);
}

TEST_F(Notify, OneDrainForAllChangesOfASecond) {
  add({1});
  es_acl_start_cb_timer(acl_);
  es_acl_start_cb_timer(acl_);
  expire(acl_->cb_timer_leaf);
  clear_log();
  es_acl_cb_process_timer(7, nullptr);
  EXPECT_EQ(take_log(),
            (Lines{"I: Entering es_acl_cb_process_timer", "mtimer_tree_expired(tree)",
                   "mtimer_tree_first_expired(tree)", "mtimer_leaf_get_type(leaf)",
                   "mtimer_leaf_get_context(leaf)", "D: es_acl_cb_process_timer: ACL on timer leaf is edge",
                   "mtimer_leaf_stop(leaf)", "I: Entering es_acl_invoke_list for edge refcnt 1", kTry,
                   kUnlock, kTry, kUnlock, "D: es_acl_invoke_list: Calling a callback function from edge",
                   calls_of(1), "trace w", "mtimer_tree_expired(tree)"}));
  EXPECT_EQ(after_a_second(), Lines{}) << "it is stopped";
  on_change.next([](es_acl_head* acl, uint32_t) { es_acl_start_cb_timer(acl); });  // a change comes meanwhile
  es_acl_start_cb_timer(acl_);
  EXPECT_EQ(after_a_second(), Lines{calls_of(1)});
  EXPECT_EQ(after_a_second(), Lines{calls_of(1)});
  EXPECT_EQ(after_a_second(), Lines{});
}

// An odd leaf among the expired ones is passed over or ends the round; the ACL's own comes behind it.
TEST_F(Notify, OddLeaves) {
  void* const odd = mtimer_leaf_new(static_cast<mtimer_tree*>(make_tree(nullptr, 0)), 0, 0, nullptr);
  add({1});
  const std::tuple<std::function<void()>, std::string, size_t, size_t> rows[] = {
      {[] { platform().mtimer_tree_first_expired.next(nullptr); }, "NULL leaf on timer expiry", 0, 0},
      {[] {}, "NULL ACL on timer leaf", 0, 0},
      {[] { platform().mtimer_leaf_get_type.next(3); }, "Unkonwn timer, ignore", 2, 1},
  };
  for (const auto& [arrange, text, stopped, notified] : rows) {
    expire(odd);
    expire(acl_->cb_timer_leaf);
    arrange();
    clear_log();
    es_acl_cb_process_timer(7, nullptr);
    EXPECT_EQ(log_of("E: "), Lines{"E: es_acl_cb_process_timer: " + text});
    EXPECT_EQ(log_of("mtimer_leaf_stop").size(), stopped);
    EXPECT_EQ(log_of("changed").size(), notified);
  }
}

// --- Callbacks that change what is being drained ---

struct Change {
  const char* name;
  void (*make)(es_acl_head* acl);  // inside the call of context 2, of 1, 2 and 3
  Numbers called, next_time;       // contexts
};
void PrintTo(const Change& row, std::ostream* out) { *out << row.name; }

class NotifyDrain : public Notify, public ::testing::WithParamInterface<Change> {
 protected:
  Numbers drain(es_acl_head* acl) {
    Numbers contexts;
    on_change.always([&contexts](es_acl_head* of, uint32_t context) {
      contexts.push_back(context);
      if (context == 2 && contexts.size() == 2) GetParam().make(of);
    });
    es_acl_invoke_list(acl);
    return contexts;
  }
};

TEST_P(NotifyDrain, SeesWhoIsStillThere) {
  add({1, 2, 3});
  EXPECT_EQ(drain(acl_), GetParam().called);
  es_acl_head* const still_held = held("edge");
  ASSERT_EQ(still_held == nullptr, GetParam().next_time.empty());
  if (still_held != nullptr) {
    EXPECT_EQ(drain(still_held), GetParam().next_time);
  }
}

void drop(es_acl_head* acl, uint32_t context) { es_acl_unregister_callback(acl, changed, context); }

void add_one(es_acl_head* acl, uint32_t context) { es_acl_register_callback(acl, changed, context); }
void replace_all(es_acl_head* acl) {
  for (const uint32_t context : {1U, 2U, 3U}) drop(acl, context);
  add_one(acl, 9);
}

const Change kChanges[] = {
    {"unregisters_the_next", [](es_acl_head* acl) { drop(acl, 3); }, {1, 2}, {1, 2}},
    {"unregisters_an_earlier_one", [](es_acl_head* acl) { drop(acl, 1); }, {1, 2, 3}, {2, 3}},
    {"unregisters_itself", [](es_acl_head* acl) { drop(acl, 2); }, {1, 2, 3}, {1, 3}},
    {"registers", [](es_acl_head* acl) { add_one(acl, 4); }, {1, 2, 3}, {1, 2, 3, 4}},
    {"unregisters_all", replace_all, {1, 2}, {9}},
    {"releases_the_acl", [](es_acl_head* acl) { release({acl}); }, {1, 2, 3}, {}},
};
INSTANTIATE_CASES(NotifyDrain, kChanges);

TEST_F(Notify, MorePairsThanFitWithoutMemory) {
  constexpr uint32_t kPairs = 40;
  for (uint32_t context = 0; context < kPairs; ++context) add({context});
  es_acl_start_cb_timer(acl_);
  fail_allocation(1);
  EXPECT_EQ(after_a_second(), Lines{});
  EXPECT_TRUE(end_allocation_failure());
  EXPECT_EQ(log_of("E: "), Lines{"E: es_acl_invoke_list: no memory to notify for acl edge, trying again"});
  const Lines told = after_a_second();
  ASSERT_EQ(told.size(), kPairs) << "a second later";
  for (uint32_t context = 0; context < kPairs; ++context) EXPECT_EQ(told[context], calls_of(context));
}

}  // namespace
