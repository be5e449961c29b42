// Memory runs out at every allocation in turn: the status is 12, nothing is lost, and the next attempt
// succeeds.
#include "library_fixture.h"

using namespace es_test;

namespace {

using OutOfMemory = LibraryTest;

TEST_F(OutOfMemory, InitialisationAndCountQuery) {
  sweep_allocations([this] { return es_acl_clib_init(ctx()); }, [] {});
  EXPECT_EQ(es_acl_check_acl_name("edge"), 0U);
  platform().pcx_read.always(answer(count_answer(2, 1)));
  uint32_t aces = 0, remarks = 0;
  sweep_allocations([&] { return es_acl_get_ace_count("edge", &aces, &remarks); },
                    [&] { EXPECT_EQ(aces, 0U); });
  EXPECT_EQ(aces, 2U);
}

TEST_F(OutOfMemory, GettingAnAcl) {
  initialise();
  platform().pcx_read.always(answer(ace_records({5, 9, 11})));
  void* name = const_cast<char*>("edge");
  void* handle = nullptr;
  uint32_t result = 0;
  const es_acl_handle_list names = {1, &name};
  es_acl_handle_list handles = {0, &handle};
  sweep_allocations([&] { return es_acl_get_acl(&names, &handles, &result); },
                    [&] {
                      EXPECT_EQ(handle, nullptr);
                      EXPECT_EQ(held("edge"), nullptr);
                      EXPECT_EQ(log_of("dsv_register").size(), log_of("pcx_unregister").size());
                      EXPECT_EQ(records_out(), 0U);
                    });
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(held_sequence(held("edge")), (Numbers{5, 9, 11}));

  // What answers without a status has nothing to allocate, or copes.
  fail_allocation(1);
  EXPECT_EQ(es_acl_lookup("edge"), handle);
  EXPECT_EQ(es_acl_check_acl_name("edge"), 0U);
  EXPECT_EQ(es_acl_search_item(held("edge"), 7), nullptr);
  es_acl_release(&handles);
  end_allocation_failure();
  EXPECT_EQ(held("edge"), nullptr);
}

}  // namespace
