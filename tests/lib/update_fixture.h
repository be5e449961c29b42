// What the tests of pushed batches share: the ACL that they change, and how one is handed in.
#ifndef TESTS_LIB_UPDATE_FIXTURE_H_
#define TESTS_LIB_UPDATE_FIXTURE_H_

#include "push_fixture.h"

namespace es_test {

inline constexpr Ace kRemark = {30, 3, 1};
inline const Aces kStored = {{10, 1}, {20, 2}, kRemark, {40, 4}};

inline const Aces kMixed = {{10, 1}, {20, 9}, kRemark, {50, 5}};  // equal, changed, remark, new
inline const Aces kToRemove = {{20, 77}, {60}, kRemark, {10, 1}};
inline const Aces kTwice = {{50, 1}, {50, 2}, {20, 8}, {20, 9}};

inline std::string given(const std::string& record) { return "pool_give(pool, " + record + ")"; }
inline const std::string kTake = "pool_take(pool)";

class Update : public PushTest {
 protected:
  void SetUp() override {
    PushTest::SetUp();
    if (told_) {
      ASSERT_EQ(es_acl_register_update_callback(on_update, &client_), 0U);
    }
    head_ = hold(kStored);
  }

  // Applies the batch in host byte order; what was marked in it stays to be seen in records_.
  uint32_t apply(uint32_t command, const Aces& aces, const std::string& name = "edge") {
    records_.assign(aces.size(), {});
    for (size_t i = 0; i < aces.size(); ++i) {
      es_acl_wire_set_name(records_[i].acl_name, name.c_str());
      records_[i].ace.kind = aces[i].kind;
      records_[i].ace.seq = aces[i].seq;
      records_[i].ace.log_option = aces[i].content;
    }
    found_ = nullptr;
    changed_ = 0;
    return es_acl_cpcx_handle_pcx_update_ace(command, records_.data(), static_cast<uint32_t>(aces.size()),
                                             &found_, &changed_);
  }
  static Lines steps() {
    Lines all = log(kStore | kCall);
    std::erase_if(all, [](const std::string& line) {
      return line.starts_with("store.acl_lookup") || line.starts_with("list_registry");
    });
    return all;
  }

  bool told_ = true;
  es_acl_head* head_ = nullptr;
  Client client_;
  std::vector<es_acl_pcx_acl_ace> records_;
  es_acl_head* found_ = nullptr;
  uint32_t changed_ = 0;
};

}  // namespace es_test

#endif  // TESTS_LIB_UPDATE_FIXTURE_H_
