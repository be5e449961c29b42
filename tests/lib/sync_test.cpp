// ACLs whose link to the producer is lost and renewed: what is read anew, what is told and changed, and what is said of it.
#include <array>
#include <stdexcept>
#include <thread>

#include "es_acl/es_acl_digest.h"
#include "es_acl/es_acl_sync.h"
#include "push_fixture.h"

using namespace es_test;

namespace {

enum : uint32_t { kLost = 1, kRenewed = 2 };

void on_state(es_acl_head* acl, uint32_t state, void*) {
  const Backstage backstage;
  constexpr const char* kStates[] = {"in step", "catching up", "out of touch"};
  record(kCall, std::string(acl->name) + " " + kStates[state]);
}

pcx_link_handler link_handler;
pcx_inquiry_handler inquiry_handler;

// Without the numbers that tell copies apart.
std::string unnumbered(std::string line) {
  for (size_t at = 0; (at = line.find("copy", at)) != line.npos; at += 4)
    line.erase(at + 4, line.find_first_not_of("0123456789", at + 4) - at - 4);
  return line;
}

class Sync : public PushTest {
 protected:
  void SetUp() override {
    platform().pcx_set_link_handler.always(
        [](uint32_t, pcx_link_handler handler) { return link_handler = handler, 0U; });
    platform().pcx_set_inquiry_handler.always(
        [](uint32_t, pcx_inquiry_handler handler) { return inquiry_handler = handler, 0U; });
    PushTest::SetUp();
    platform().pcx_get_optimum_msg_size.always(320);
    ASSERT_EQ(es_acl_register_sync_callback(on_state, nullptr), 0U);
    if (told_) {
      ASSERT_EQ(es_acl_register_update_callback(on_update, &client_), 0U);
    }
    serve({{10, 1}});
    head_ = get({"edge"}).heads[0];
    ASSERT_NE(head_, nullptr);
    clear_log();
  }
  // The ACL's list as the producer has it now, in batches of two. What name the records of an answer bear does not count.
  static void serve(const Aces& aces) {
    for (size_t at = 0; at <= aces.size(); at += 2) {
      const auto begin = aces.begin() + static_cast<long>(at);
      const auto end = begin + static_cast<long>(std::min<size_t>(2, aces.size() - at));
      platform().pcx_read.next(answer(batch(kAdd, Aces(begin, end), "any")));
    }
  }
  void tell(uint32_t event, uint64_t generation) {
    if (event == kRenewed) platform().pcx_generation.always(generation);
    link_handler(head_->reg_handle, "edge", event, generation);
  }
  // What the callbacks have said, in order, and when the bus was asked to try again.
  static Lines told() {
    Lines said;
    for (const std::string& line : take_log(kCall | kLink))
      for (const char* const begin : {"edge ", "add(", "remove(", "pcx_renew_later("})
        if (line.starts_with(begin)) said.push_back(unnumbered(line));
    return said;
  }
  static es_acl_sync_info info(es_acl_head* acl) {
    es_acl_sync_info now = {};
    EXPECT_EQ(es_acl_get_sync_info(acl, &now), 0U);
    return now;
  }
  es_acl_sync_info info() const { return info(head_); }
  static std::string retry(int ms) { return "pcx_renew_later(reg:edge, " + std::to_string(ms) + ")"; }

  bool told_ = true;
  es_acl_head* head_ = nullptr;
  Client client_;
};

TEST_F(Sync, TheDifferenceAndNothingElseIsToldAndMade) {
  const struct {
    Aces after;
    Lines told;
  } rows[] = {
      {{{10, 1}}, {}},
      {{{10, 1}, {20, 2}, {30, 3}}, {"add(head:edge, 20=2 copy new, 30=3 copy new)"}},
      {{{20, 2}, {30, 4}},
       {"remove(head:edge, 10=1 copy)", "remove(head:edge, 30=3 copy)", "add(head:edge, 30=4 copy new)"}},
      {{{5, 0, 1}, {20, 2}, {30, 4}}, {"add(head:edge, 5=0 copy new)"}},
      {{}, {"remove(head:edge, 20=2 copy, 30=4 copy)"}},
  };
  uint64_t generation = 1;
  for (const auto& row : rows) {
    tell(kLost, generation);
    EXPECT_EQ(info().state, uint32_t{ES_ACL_OUT_OF_TOUCH});
    serve(row.after);
    tell(kRenewed, ++generation);
    EXPECT_EQ(told(), lines("edge out of touch", "edge catching up", row.told, "edge in step"));
    EXPECT_EQ(list(head_), row.after);
    EXPECT_EQ(info().state, uint32_t{ES_ACL_IN_STEP});
  }
}

// What was pushed for the old registration cannot come behind what is read for the new one.
TEST_F(Sync, IsRegisteredAnewBeforeItIsRead) {
  serve({{10, 1}});
  tell(kRenewed, 2);
  Lines calls = log(kCall | kLink);
  std::erase_if(calls, [](const std::string& line) { return line.starts_with("list_registry_"); });
  const Lines expected = {"edge catching up",
                          "pcx_register_anew(reg:edge)",
                          "pcx_generation(793173)",
                          "pcx_get_optimum_msg_size(793173)",
                          "pcx_read(reg:edge, 84, cap 320)",
                          "pcx_generation(793173)",
                          "edge in step"};
  EXPECT_EQ(calls, expected);
  clear_log();
  tell(kRenewed, 2);
  EXPECT_EQ(log(kCall | kLink), Lines{}) << "read behind this connection already";
}

TEST_F(Sync, ARefusedStepLeavesTheCopyAndIsTriedAgainLater) {
  client_.answer = 28;
  const Aces now = {{10, 1}, {20, 2}};
  const std::string add = "add(head:edge, 20=2 copy new)";
  for (int i = 0; i < 8; ++i) {
    serve(now);
    tell(kRenewed, 2);
    EXPECT_EQ(list(head_), (Aces{{10, 1}}));
    const std::string later = retry(std::min(100 << i, 5000));
    EXPECT_EQ(told(), i == 0 ? lines("edge catching up", add, later) : lines(add, later));
    EXPECT_EQ(info().state, uint32_t{ES_ACL_CATCHING_UP});
    EXPECT_EQ(info().refusals, static_cast<uint32_t>(i + 1));
  }
  push(batch(kAdd, {{40, 4}}));
  EXPECT_EQ(told(), Lines{"add(head:edge, 40=4 copy new)"})
      << "offered, but it does not put the next try off";
  client_.answer = 0;
  serve(now);
  tell(kRenewed, 2);
  EXPECT_EQ(told(), lines(add, "edge in step"));
  push(batch(kAdd, {{40, 4}}));
  EXPECT_EQ(list(head_), (Aces{{10, 1}, {20, 2}, {40, 4}}));
}

TEST_F(Sync, AnUnusableReadLeavesTheCopyAndIsTriedAgain) {
  Bytes wrong_version = batch(kAdd, {{20}});
  put_32(wrong_version, 4, 2);
  const std::pair<std::function<void()>, uint32_t> rows[] = {
      {[] { platform().pcx_read.next(3); }, ES_ACL_OUT_OF_TOUCH},
      {[] { platform().pcx_read.next(answer(Bytes(161))); }, ES_ACL_CATCHING_UP},
      {[] {
         platform().pcx_read.next(answer(batch(kAdd, {{20}, {20}})));
       },
       ES_ACL_CATCHING_UP},
      {[&] { platform().pcx_read.next(answer(wrong_version)); }, ES_ACL_CATCHING_UP},
      {[] { platform().pcx_register_anew.next(12); }, ES_ACL_CATCHING_UP},
      {[] { platform().pcx_generation.next(2), platform().pcx_generation.next(3); }, ES_ACL_CATCHING_UP},
      {[] { platform().pcx_generation.next(0); }, ES_ACL_OUT_OF_TOUCH},
      {[] { platform().pcx_read.next(failed_with(62)); }, ES_ACL_CATCHING_UP},
  };
  for (const auto& [arrange, state] : rows) {
    arrange();
    tell(kRenewed, 2);
    EXPECT_EQ(info().state, state) << &arrange - &rows[0].first;
    push(batch(kAdd, {{40, 4}}));
    EXPECT_EQ(list(head_), (Aces{{10, 1}})) << "a push is for another list";
    EXPECT_NE(told().back().find("pcx_renew_later(reg:edge, "), std::string::npos);
  }
  EXPECT_EQ(info().refusals, 0U);
  clear_log();
  tell(kRenewed, 2);
  EXPECT_EQ(log_of("pcx_read"), Lines{}) << "nobody waits for one deadline behind the other";
}

// The others come when the pause ends, and it comes behind them.
TEST_F(Sync, ASlowAclKeepsNoOtherFromItsTurn) {
  es_acl_head* const core = get({"core"}).heads[0];
  platform().pcx_read.next(failed_with(62));
  tell(kRenewed, 2);
  EXPECT_EQ(told().back(), retry(1100));
  link_handler(core->reg_handle, "core", kRenewed, 2);
  const std::string later = told().back(), put_off = "pcx_renew_later(reg:core, ";
  ASSERT_TRUE(later.starts_with(put_off)) << later;
  EXPECT_LE(std::stoi(later.substr(put_off.size())), 1000);
}

TEST_F(Sync, AFillSurvivesACallbackThatThrows) {
  platform().pcx_read.next([](void*, const void*, uint32_t, void*, uint32_t* length) {
    std::thread([] { push(batch(kAdd, {{20, 2}}, "core")); }).join();
    return *length = 0, 0U;
  });
  client_.action = [] { throw std::runtime_error("no"); };
  es_acl_head* const core = get({"core"}).heads[0];
  EXPECT_EQ(info(core).state, uint32_t{ES_ACL_CATCHING_UP});
}

TEST_F(Sync, ARefusedPushIsMadeUpFor) {
  client_.answer = 28;
  push(batch(kAdd, {{20, 2}}));
  EXPECT_EQ(told(), lines("add(head:edge, 20=2 copy new)", "edge catching up", retry(100)));
  client_.answer = 0;
  push(batch(kAdd, {{30, 3}}));
  EXPECT_EQ(list(head_), (Aces{{10, 1}, {30, 3}})) << "further pushes are taken all the same";
  told();
  serve({{10, 1}, {20, 2}, {30, 3}});
  tell(kRenewed, 1);
  EXPECT_EQ(told(), lines("add(head:edge, 20=2 copy new)", "edge in step"));
}

// A change that has come and is not in the copy, although nobody has refused it.
TEST_F(Sync, WhatCannotBeAppliedIsMadeUpFor) {
  Bytes version = batch(kAdd, {{20}}), cut = batch(kAdd, {{10, 1}, {20}}),
        numbers = resequencing(100, 10, {});
  const Bytes less(numbers.begin(), numbers.end() - 1), none(version.begin(), version.begin() + 100);
  put_32(version, 4, 2), put_32(numbers, 4, 2), cut.resize(319);
  const std::pair<std::function<void()>, Bytes> rows[] = {
      {[] {}, version},
      {[] {}, numbers},
      {[] {}, cut},
      {[] {}, none},
      {[] {}, less},
      {[] { store().add_acl_item_iter.next(12); }, batch(kAdd, {{20}})},
      {[] { store().resequence.next(22); }, resequencing(100, 0, {})},
  };
  for (const auto& [arrange, message] : rows) {
    arrange();
    push(message);
    EXPECT_EQ(told().back(), retry(100)) << &arrange - &rows[0].first;
    EXPECT_EQ(info().state, uint32_t{ES_ACL_CATCHING_UP});
    serve({{10, 1}, {20, 2}});
    store().add_acl_item_iter.next(12);
    tell(kRenewed, 1);
    EXPECT_EQ(told().back(), retry(200)) << "the store does not take what catching up adds";
    serve({{10, 1}});
    tell(kRenewed, 1);
    EXPECT_EQ(info().state, uint32_t{ES_ACL_IN_STEP});
    told();
  }
  EXPECT_EQ(info().refusals, 0U);
  put_32(version, 8, 0x6e6f6e65);
  push(version);
  EXPECT_EQ(told(), Lines{}) << "of an ACL that is not held";

  es_acl_pcx_acl_ace handed_in = {};
  es_acl_wire_set_name(handed_in.acl_name, "edge");
  handed_in.ace.seq = 20;
  es_acl_head* found = nullptr;
  store().add_acl_item_iter.next(12);
  EXPECT_EQ(es_acl_cpcx_handle_pcx_update_ace(kAdd, &handed_in, 1, &found, nullptr), 0U);
  EXPECT_EQ(info().state, uint32_t{ES_ACL_CATCHING_UP});
}

// Who has no callbacks, in a store that is given batches and refuses one ACE of them.
class UntoldSync : public Sync {
 protected:
  UntoldSync() { told_ = false; }
  ~UntoldSync() override { es_acl_offer_batches(nullptr); }

  static void search(es_acl_head*, es_acl_batch_item* items, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) items[i].ace = nullptr, items[i].mark = nullptr;
  }
  static void add(es_acl_head*, es_acl_batch_item* items, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) items[i].status = items[i].seq == refused_ ? 12 : 0;
  }
  static inline uint32_t refused_;
};

TEST_F(UntoldSync, WhatTheStoreRefusesIsMadeUpFor) {
  static const es_acl_batch_table table = {search, add, add};
  es_acl_offer_batches(&table);
  for (debug_category& category : platform().categories) category.enabled = 0;
  Aces many;
  for (uint32_t seq = 20; seq < 60; ++seq) many.push_back({seq});
  for (const uint32_t refused : {0U, 20U, 51U, 52U, 59U}) {
    refused_ = refused;
    push(batch(kAdd, many));
    EXPECT_EQ(info().state, uint32_t{refused == 0 ? ES_ACL_IN_STEP : ES_ACL_CATCHING_UP}) << refused;
    serve({{10, 1}});
    tell(kRenewed, 1);
  }
}

TEST_F(Sync, WithoutAProducerItIsFilledWhenThereIsOne) {
  platform().pcx_generation.always(0);
  platform().pcx_query_producer.next(2);
  es_acl_head* const core = get({"core"}).heads[0];
  es_acl_sync_info now;
  ASSERT_EQ(es_acl_get_sync_info(core, &now), 0U);
  EXPECT_EQ(now.state, uint32_t{ES_ACL_OUT_OF_TOUCH});
  platform().pcx_generation.always(1);
  platform().pcx_read.next(answer(batch(kAdd, {{7}}, "core")));
  link_handler(core->reg_handle, "core", kRenewed, 1);
  EXPECT_EQ(list(core), (Aces{{7}}));
}

// A fill that meets a new connection may have read from two lists.
TEST_F(Sync, AFillThatMeetsANewConnectionIsReadAgain) {
  platform().pcx_generation.next(1);
  platform().pcx_generation.always(2);
  platform().pcx_read.next(answer(batch(kAdd, {{1}, {2}}, "core")));
  platform().pcx_read.next(answer(batch(kAdd, {{5}}, "core")));
  platform().pcx_read.next(answer(batch(kAdd, {{1}, {3}}, "core")));
  platform().pcx_read.next(answer(batch(kAdd, {{5}}, "core")));
  es_acl_head* const core = get({"core"}).heads[0];
  EXPECT_EQ(list(core), (Aces{{1}, {3}, {5}}));
}

TEST_F(Sync, ARepeatedReadThatFailsIsNoSuccess) {
  platform().pcx_generation.next(1);
  platform().pcx_generation.always(2);
  platform().pcx_read.next(answer(batch(kAdd, {{1}}, "core")));
  platform().pcx_read.next(11);
  platform().pcx_read.next(answer(batch(kAdd, {{3}}, "core")));
  EXPECT_EQ(list(get({"core"}).heads[0]), (Aces{{3}}));
}

// The fill is the other thread's: the event waits for its end.
TEST_F(Sync, AnEventDuringAFillIsRepeated) {
  for (const uint32_t event : {kRenewed, kLost}) {
    platform().pcx_read.next([event](void*, const void*, uint32_t, void*, uint32_t* length) {
      std::thread([event] { link_handler(nullptr, "core", event, 1); }).join();
      return *length = 0, 0U;
    });
    es_acl_head* const core = get({"core"}).heads[0];
    EXPECT_EQ(log(kLink).back(), "pcx_renew_later(reg:core, 0)");
    EXPECT_EQ(info(core).state, uint32_t{event == kLost ? ES_ACL_OUT_OF_TOUCH : ES_ACL_IN_STEP});
    release({core});
  }
}

// A release waits for the request under way and not for the list, which has no end here.
TEST_F(Sync, AReleaseEndsIt) {
  std::thread releasing;
  uint32_t seq = 0;
  platform().pcx_read.always(
      [&](void* handle, const void* request, uint32_t size, void* room, uint32_t* length) {
        if (!releasing.joinable()) releasing = std::thread([&] { release({head_}); });
        seq += 2;
        return answer(batch(kAdd, {{seq - 1}, {seq}}))(handle, request, size, room, length);
      });
  tell(kRenewed, 2);
  releasing.join();
  EXPECT_EQ(es_acl_lookup("edge"), nullptr);
}

// Three beats are what the bus says they are.
TEST_F(Sync, SilenceAndStrangers) {
  for (const auto& [silence_ms, limit_ms, state] : {std::array{0xffffffffU, 3000U, uint32_t{ES_ACL_IN_STEP}},
                                                    {5U, 5U, uint32_t{ES_ACL_IN_STEP}},
                                                    {5U, 0U, uint32_t{ES_ACL_OUT_OF_TOUCH}}}) {
    platform().pcx_silence_ms.always(silence_ms);
    platform().pcx_silence_limit_ms.always(limit_ms);
    EXPECT_EQ(info().state, state) << silence_ms << " of " << limit_ms << ", and read a moment ago";
  }
  es_acl_sync_info now;
  EXPECT_EQ(es_acl_get_sync_info(make_acl("own"), &now), ES_ACL_E_NOT_FOUND);
  EXPECT_EQ(es_acl_get_sync_info(nullptr, &now), 22U);
  EXPECT_EQ(es_acl_get_sync_info(head_, nullptr), 22U);
  link_handler(nullptr, "nobody", kRenewed, 2);
  link_handler(nullptr, "own", kLost, 2);
  EXPECT_EQ(told(), Lines{});
  release({head_});
  link_handler(nullptr, "edge", kRenewed, 2);
  EXPECT_EQ(told(), Lines{});
}

// The state that the library tells when it is asked with so many bytes; UINT32_MAX when it tells nothing.
uint32_t inquire(const char* name, size_t length = 8, uint32_t command = ES_ACL_PCX_DIGEST,
                 uint32_t version = 1) {
  const uint32_t words[4] = {es_acl_wire_32(command), es_acl_wire_32(version)};
  const auto* const begin = reinterpret_cast<const unsigned char*>(words);
  std::vector<unsigned char> question(begin, begin + length);
  void* response = nullptr;
  uint32_t response_length = 0;
  inquiry_handler(name, question.data(), static_cast<uint32_t>(length), &response, &response_length);
  EXPECT_EQ(response_length, response != nullptr ? sizeof(es_acl_pcx_digest_resp) : 0);
  const std::unique_ptr<es_acl_pcx_digest_resp, decltype(&std::free)> answer(
      static_cast<es_acl_pcx_digest_resp*>(response), std::free);
  return answer != nullptr ? es_acl_wire_32(answer->state) : UINT32_MAX;
}

TEST_F(Sync, AnInquiryIsToldWhatThereIs) {
  for (uint32_t length = 0; length <= 16; ++length)
    EXPECT_EQ(inquire("edge", length), length == 8 ? uint32_t{ES_ACL_IN_STEP} : UINT32_MAX) << length;
  EXPECT_EQ(inquire("edge", 8, ES_ACL_PCX_DIGEST + 1), UINT32_MAX);
  EXPECT_EQ(inquire("edge", 8, ES_ACL_PCX_DIGEST, 2), UINT32_MAX);
  tell(kLost, 1);
  EXPECT_EQ(inquire("edge"), uint32_t{ES_ACL_OUT_OF_TOUCH});
  EXPECT_EQ(inquire("nobody"), uint32_t{ES_ACL_READING});
  platform().pcx_read.next([](void*, const void*, uint32_t, void*, uint32_t* length) {
    std::thread([] { EXPECT_EQ(inquire("core"), uint32_t{ES_ACL_READING}); }).join();
    return *length = 0, 0U;
  });
  EXPECT_EQ(inquire(get({"core"}).heads[0]->name), uint32_t{ES_ACL_IN_STEP});
}

}  // namespace
