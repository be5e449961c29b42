// Memory runs out at every allocation in turn: the status is 12, nothing is lost, and the next attempt
// succeeds.
#include <functional>

#include "library_fixture.h"

using namespace es_test;

namespace {

class OutOfMemory : public LibraryTest {
 protected:
  // Runs the operation with its 1st, 2nd, ... allocation failing, until it needs no further one.
  static void sweep(const std::function<uint32_t()>& operation, const std::function<void()>& after_failure) {
    for (int nth = 1; nth < 100; ++nth) {
      SCOPED_TRACE("allocation " + std::to_string(nth));
      bool fired;
      uint32_t status;
      {
        const FailAllocation failure(nth);
        status = operation();
        fired = failure.fired();
      }
      if (!fired) {
        EXPECT_EQ(status, 0U);
        return;
      }
      EXPECT_EQ(status, 12U);
      after_failure();
    }
    FAIL() << "there is no end to its allocations";
  }

  static uint32_t get(const char* name, void** handle) {
    void* names_[] = {const_cast<char*>(name)};
    uint32_t result = 0;
    const es_acl_handle_list names = {1, names_};
    es_acl_handle_list handles = {0, handle};
    return es_acl_get_acl(&names, &handles, &result);
  }
};

TEST_F(OutOfMemory, Initialisation) {
  sweep([this] { return es_acl_clib_init(ctx()); }, [] {});
  EXPECT_EQ(es_acl_check_acl_name("edge"), 0U);
}

TEST_F(OutOfMemory, CountQuery) {
  initialise();
  platform().pcx_read.always(answer(count_answer(2, 1)));
  uint32_t aces = 0, remarks = 0;
  sweep([&] { return es_acl_get_ace_count("edge", &aces, &remarks); }, [&] { EXPECT_EQ(aces, 0U); });
  EXPECT_EQ(aces, 2U);
}

TEST_F(OutOfMemory, GettingAnAcl) {
  initialise();
  platform().pcx_read.always(answer(ace_records({5, 9, 11})));
  void* handle = nullptr;
  sweep([&] { return get("edge", &handle); },
        [&] {
          EXPECT_EQ(handle, nullptr);
          EXPECT_EQ(held("edge"), nullptr);
          long registered = 0, records = 0;
          for (const std::string& call : log(kCall)) {
            registered += call.starts_with("dsv_register(") - call.starts_with("pcx_unregister(");
            records += call.starts_with("pool_take(") - call.starts_with("pool_give(");
          }
          EXPECT_EQ(registered, 0);
          EXPECT_EQ(records, 0);
        });
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(held_sequence(held("edge")), (std::vector<uint32_t>{5, 9, 11}));
}

// What answers without a status has nothing to allocate, or copes.
TEST_F(OutOfMemory, OperationsWithoutAStatus) {
  initialise();
  void* handle = nullptr;
  ASSERT_EQ(get("edge", &handle), 0U);
  const FailAllocation failure(1);
  EXPECT_EQ(es_acl_lookup("edge"), handle);
  EXPECT_EQ(es_acl_check_acl_name("edge"), 0U);
  EXPECT_EQ(es_acl_search_item(held("edge"), 5), nullptr);
  const es_acl_handle_list handles = {1, &handle};
  es_acl_release(&handles);
  EXPECT_EQ(held("edge"), nullptr);
}

}  // namespace
