// Callbacks, first fills and releases that meet at one ACL, on threads that are held where they meet.
#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

#include "es_acl/es_acl_wire.h"
#include "push_fixture.h"
#include "scripted_callbacks.h"

using namespace es_test;

namespace {

std::function<void(es_acl_head*)> on_event;  // what each callback does
std::function<void()> on_usage;

uint32_t updated(es_acl_head* acl, uint32_t, uint32_t, const ace_edit_info*, void*) {
  return on_event(acl), 0;
}
uint32_t asked(es_acl_head* acl, uint32_t, const ace_edit_info*, int32_t, void*) { return on_event(acl), 0; }
uint32_t usage() { return on_usage(), 0; }
void notified(es_acl_head* acl, uint32_t) { on_event(acl); }

// A change pushed to the ACL.
void change(uint32_t command, const std::string& name, uint32_t seq) {
  push(command == kReseq ? resequencing(0, 0, {}, name) : batch(command, {{seq}}, name));
}

// --- Waiting for one another ---

bool comes(const std::function<bool()>& condition,
           std::chrono::milliseconds within = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + within;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}
void on_another_thread(const std::function<void()>& body) { std::thread(body).join(); }
// Whether the ACL is on its way out, or gone: a removal of nothing is refused then.
bool is_leaving(const char* name) {
  es_acl_pcx_acl_ace record = {};
  es_acl_wire_set_name(record.acl_name, name);
  es_acl_head* head = nullptr;
  return es_acl_cpcx_handle_pcx_update_ace(kRemove, &record, 1, &head, nullptr) == 22;
}

// The log's lines that begin with one of these.
Lines lines_of(std::initializer_list<std::string_view> beginnings) {
  Lines all = log();
  std::erase_if(all, [&](const std::string& line) {
    return std::none_of(beginnings.begin(), beginnings.end(),
                        [&](std::string_view beginning) { return line.starts_with(beginning); });
  });
  return all;
}

class Gate : public LibraryTest {
 protected:
  void SetUp() override {
    initialise();
    on_event = [](es_acl_head*) {};
    es_acl_register_update_callback(updated, nullptr);
  }
  // Got, and with somebody to notify.
  static es_acl_head* get_one(const char* name) {
    es_acl_head* const acl = get({name}).heads[0];
    es_acl_register_callback(acl, notified, 0);
    return acl;
  }
  // Holds a callback of the ACL on another thread until it is let go.
  struct Held {
    Held(const std::function<void()>& event, const std::function<void()>& inside) {
      on_event = [this, inside, first = std::make_shared<std::atomic<bool>>(true)](es_acl_head*) {
        if (!first->exchange(false)) return;
        inside();
        entered.count_down();
        go.wait();
        record(kCall, "the callback ends");
      };
      thread = std::thread(event);
      entered.wait();
    }
    void let_go() { go.count_down(), thread.join(); }
    std::latch entered{1}, go{1};
    std::thread thread;
  };
};

const Lines kOneTeardown = {"the callback ends", "pcx_unregister(reg:edge)", "store.acl_release(\"edge\")"};
Lines teardown() { return lines_of({"the callback ends", "pcx_unregister", "store.acl_release"}); }

// --- Releases and callbacks ---

struct Event {
  const char* name;
  void (*happen)(es_acl_head* acl);
};
void PrintTo(const Event& event, std::ostream* out) { *out << event.name; }

class GateRelease : public Gate, public ::testing::WithParamInterface<Event> {};

TEST_P(GateRelease, WaitsForTheCallbackOnAnotherThread) {
  es_acl_head* const acl = get_one("edge");
  Held callback([acl] { GetParam().happen(acl); }, [] {});
  std::thread releaser([acl] { release({acl}); });
  EXPECT_TRUE(comes([] { return is_leaving("edge"); }));
  EXPECT_EQ(held("edge"), acl);
  clear_log();
  es_acl_invoke_list(acl);
  EXPECT_EQ(log(), Lines{}) << "nobody is notified any more";
  callback.let_go();
  releaser.join();
  EXPECT_EQ(teardown(), kOneTeardown);
}

TEST_P(GateRelease, InsideTheCallbackIsDoneAtItsEnd) {
  es_acl_head* const acl = get_one("edge");
  Held([acl] { GetParam().happen(acl); }, [acl] { release({acl}); }).let_go();
  EXPECT_EQ(teardown(), kOneTeardown);
  EXPECT_EQ(lines_of({"I: Entering es_acl_start_cb_timer", "store."}).back(), kOneTeardown.back())
      << "it is used to the event's end";
}

TEST_P(GateRelease, GotAgainInsideTheCallback) {
  es_acl_head* const acl = get_one("edge");
  Held([acl] { GetParam().happen(acl); },
       [acl] {
         release({acl});
         EXPECT_EQ(get({"edge"}).heads[0], acl);
       })
      .let_go();
  EXPECT_EQ(teardown(), Lines{"the callback ends"});
  EXPECT_EQ(acl->refcount, 1);
  release({acl});
  EXPECT_EQ(teardown(), kOneTeardown);
}

// Whoever gets it before the callback ends has it alive, and takes it down as usual.
TEST_P(GateRelease, GotAndReleasedElsewhereBeforeTheCallbackEnds) {
  es_acl_head* const acl = get_one("edge");
  Held callback([acl] { GetParam().happen(acl); }, [acl] { release({acl}); });
  ASSERT_EQ(get({"edge"}).heads[0], acl);
  std::thread releaser([acl] { release({acl}); });
  EXPECT_TRUE(comes([] { return is_leaving("edge"); }));
  callback.let_go();
  releaser.join();
  EXPECT_EQ(teardown(), kOneTeardown);
}

const Event kEvents[] = {
    {"push", [](es_acl_head*) { change(kAdd, "edge", 5); }},
    {"drain", [](es_acl_head* acl) { es_acl_invoke_list(acl); }},
};
INSTANTIATE_CASES(GateRelease, kEvents);

// Two callbacks on two threads would wait for each other for ever.
TEST_F(Gate, CallbacksReleaseEachOthersAcl) {
  es_acl_head* const edge = get_one("edge");
  es_acl_head* const core = get_one("core");
  std::latch both(2);
  on_event = [&](es_acl_head* of) {
    both.arrive_and_wait();
    release({of == edge ? core : edge});
  };
  std::thread drain([core] { es_acl_invoke_list(core); });
  change(kAdd, "edge", 5);
  drain.join();
  EXPECT_EQ(held_names(), Lines{});
  EXPECT_EQ(log_of("pcx_unregister").size(), 2U);
}

// A callback that is about no ACL in particular does not wait, either.
TEST_F(Gate, UsageCallbackReleasesAnAclThatIsDrained) {
  es_acl_head* const acl = get_one("edge");
  es_acl_register_check_usage_callback(usage);
  Held drain([acl] { es_acl_invoke_list(acl); }, [] {});
  on_usage = [acl] { release({acl}); };
  deliver(kSync, usage_question());
  EXPECT_EQ(held("edge"), acl);
  drain.let_go();
  EXPECT_EQ(teardown(), kOneTeardown);
}

// A get waits for the end of a teardown, but not inside a callback.
TEST_F(Gate, GetMeetsATeardown) {
  es_acl_head* const acl = get_one("edge");
  get_one("core");
  uint32_t inside = 0;
  es_acl_head* outside = nullptr;
  std::thread getter;
  on_event = [&](es_acl_head*) { inside = get({"edge"}).status; };
  platform().pcx_unregister.next([&](void*) {
    on_another_thread([] { change(kAdd, "core", 5); });
    clear_log();
    getter = std::thread([&] { outside = get({"edge"}).heads[0]; });
    EXPECT_FALSE(comes([] { return !log_of("store.acl_lookup").empty(); }, std::chrono::milliseconds(50)));
    return 0U;
  });
  release({acl});
  getter.join();
  EXPECT_EQ(inside, 11U);
  EXPECT_EQ(outside, held("edge"));
  EXPECT_EQ(lines_of({"store.acl_release", "store.get_header"}),
            (Lines{"store.acl_release(\"edge\")", "store.get_header(\"edge\")"}));
}

// --- First fills and pushes ---

class GateFill : public Gate {
 protected:
  // Happens while the ACL's 10 and 20 are read; the read then ends with this status.
  static void while_reading(const std::function<void()>& event, uint32_t status = 0) {
    platform().pcx_read.next(
        [=](void* handle, const void* request, uint32_t length, void* buffer, uint32_t* room) {
          event();
          answer(ace_records({10, 20}))(handle, request, length, buffer, room);
          return status;
        });
  }
  // What was done to the list: "add 10", "delete 20" or "resequence".
  static Lines changes() {
    Lines made;
    for (const std::string& line : lines_of({"store.add", "store.delete", "store.resequence"})) {
      const std::string verb = line.substr(6, line.find_first_of("_(") - 6);
      const size_t at = line.find(", ", verb == "add" ? line.find(", ") + 1 : 0) + 2;
      made.push_back(verb == "resequence" ? verb : verb + " " + line.substr(at, line.find(',', at) - at));
    }
    return made;
  }
};

// But for those of other ACLs, and those that come on the filling thread.
TEST_F(GateFill, ChangesThatArriveMeanwhileAreMadeBehindItInOrder) {
  std::atomic<uint32_t> told = 0;
  const std::thread::id filling = std::this_thread::get_id();
  es_acl_head* const core = get({"core"}).heads[0];
  on_event = [&](es_acl_head* of) {
    if (of == core) return;
    EXPECT_EQ(std::this_thread::get_id(), filling);
    if (++told == 3) on_another_thread([] { change(kAdd, "edge", 40); });  // behind the last
  };
  while_reading([] {
    on_another_thread([] {
      change(kAdd, "edge", 30);
      change(kReseq, "edge", 0);
      change(kRemove, "edge", 10);
      change(kAdd, "core", 60);
    });
    change(kAdd, "edge", 5);
    EXPECT_EQ(changes(), (Lines{"add 60", "add 5"}));
  });
  const Got got = get({"edge"});
  EXPECT_EQ(got.status, 0U);
  EXPECT_EQ(changes(),
            (Lines{"add 60", "add 5", "add 10", "add 20", "add 30", "resequence", "delete 10", "add 40"}));
  EXPECT_EQ(held_sequence(got.heads[0]), (Numbers{5, 20, 30, 40}));
  EXPECT_EQ(told, 4U);
  change(kAdd, "edge", 50);
  EXPECT_EQ(changes().back(), "add 50") << "the fill is over";
}

// Changes may come faster than they are made; the get ends all the same.
TEST_F(GateFill, EndsThoughChangesKeepComing) {
  std::atomic<uint32_t> sent = 0, told = 0;
  std::atomic<bool> enough = false;
  std::thread flood;
  on_event = [&](es_acl_head*) {
    const uint32_t before = sent;
    if (++told == 2000) enough = true;
    comes([&] { return enough || sent >= before + 2; }, std::chrono::milliseconds(1));
  };
  while_reading([&] {
    flood = std::thread([&] {
      for (uint32_t seq = 1; !enough; ++seq, ++sent) change(kAdd, "edge", seq);
    });
    EXPECT_TRUE(comes([&] { return sent > 2; }));
  });
  es_acl_head* const acl = get({"edge"}).heads[0];
  EXPECT_FALSE(enough.exchange(true));
  flood.join();
  EXPECT_EQ(acl->ace_count, sent) << "none is lost";
}

// It was on its way for an earlier copy, when this one's fill began: the read has it already.
TEST_F(GateFill, ChangeFromBeforeTheFillIsNotMade) {
  std::latch reading(1), go(1);
  std::thread getter;
  while_reading([&] {
    reading.count_down();
    go.wait();
  });
  platform().line_printed.always([&](uint32_t, const std::string& text) {
    if (text.find("Event for seq") == std::string::npos) return;
    getter = std::thread([] { get({"edge"}); });
    reading.wait();
  });
  change(kAdd, "edge", 30);
  go.count_down();
  getter.join();
  EXPECT_EQ(changes(), (Lines{"add 10", "add 20"}));
}

// Without memory to keep a change the get fails: the list would have missed it.
TEST_F(GateFill, FailedFillDropsWhatWasKept) {
  const auto push_meanwhile = [](bool no_memory) {
    return [=] {
      on_another_thread([=] {
        const Bytes message = batch(kAdd, {{30}});
        if (no_memory) fail_allocation(1);
        push(message);
        EXPECT_EQ(end_allocation_failure(), no_memory);
      });
    };
  };
  on_event = [](es_acl_head*) { ADD_FAILURE() << "nobody is told"; };
  for (const uint32_t status : {5U, 12U}) {
    while_reading(push_meanwhile(status == 12), status == 12 ? 0 : status);
    EXPECT_EQ(get({"edge"}).status, status);
    EXPECT_EQ(held("edge"), nullptr);
  }
  clear_log();
  while_reading([] {});
  EXPECT_EQ(get({"edge"}).status, 0U);
  EXPECT_EQ(changes(), (Lines{"add 10", "add 20"}));
}

// The question's callback has a head in its hands that a failed fill throws away. Nobody else may get that one, so that
// even a get inside a callback waits.
TEST_F(GateFill, FailedFillWaitsForAQuestion) {
  es_acl_register_res_check_callback(asked, nullptr);
  es_acl_register_check_usage_callback(usage);
  const auto ask = [] {
    push(question(kQuery, {}, {{30}}));
    deliver(kSync, question(kQuery, {}));
  };
  on_usage = [] { EXPECT_EQ(get({"edge"}).status, 5U); };
  for (const bool inside : {false, true}) {
    clear_log();
    std::unique_ptr<Held> callback;
    std::latch entered(1);
    const auto hold = [&] {
      callback = std::make_unique<Held>(ask, [] {});
      entered.count_down();
    };
    while_reading(hold, 5);
    std::thread watcher([&] {
      entered.wait();
      EXPECT_TRUE(comes([] { return is_leaving("edge"); }, std::chrono::seconds(5)));
      EXPECT_NE(held("edge"), nullptr);
      callback->let_go();
    });
    inside ? void(deliver(kSync, usage_question("core"))) : on_usage();
    watcher.join();
    EXPECT_EQ(lines_of({"the callback ends", "store.freelist"}),
              (Lines{"the callback ends", "store.freelist(head:edge, null)"}));
  }
}

// --- First registrations, and counters ---

TEST_F(Gate, EverythingIsMadeOnceAndCountedEveryTime) {
  constexpr int kThreads = 8;
  // Whoever makes one gives the others time to make another.
  const auto linger = [](const char* call) {
    comes([call] { return log_of(call).size() > 1; }, std::chrono::milliseconds(20));
  };
  platform().list_registry_create.next([linger](uint32_t flags, uint32_t kind) {
    return linger("list_registry_create"), make_registry(flags, kind);
  });
  platform().mtimer_tree_new.next([linger](const evm_sigevent* event, uint32_t flags) {
    return linger("mtimer_tree_new"), make_tree(event, flags);
  });
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  clear_log();
  for (int i = 0; i < kThreads; ++i) {
    es_acl_head* const acl = get({("acl-" + std::to_string(i)).c_str()}).heads[0];
    threads.emplace_back([&start, acl] {
      start.arrive_and_wait();
      EXPECT_EQ(es_acl_register_callback(acl, notified, 1), 0U);
      EXPECT_EQ(es_acl_register_res_check_callback(asked, acl), 0U);
      EXPECT_EQ(es_acl_register_check_usage_callback(usage), 0U);
      es_acl_unregister_res_check_callback(asked, acl);
      for (int n = 0; n < 200; ++n) es_acl_lookup(nullptr);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(main_counters[22].count, kThreads * 200U);
  EXPECT_EQ(log_of("list_registry_create").size(), 2U) << "that of updates was there";
  EXPECT_EQ(log_of("mtimer_tree_new").size(), 1U);
  EXPECT_EQ(log_of("evm_async_attach").size(), 1U);
  EXPECT_EQ(log_of("mtimer_leaf_new").size(), static_cast<size_t>(kThreads));
}

}  // namespace
