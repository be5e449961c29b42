// What the library's test cases start from. The library's state is the process's and is never torn down:
// CTest runs every case in a process of its own, and each case is written to be the first there.
#ifndef TESTS_SUPPORT_LIBRARY_FIXTURE_H_
#define TESTS_SUPPORT_LIBRARY_FIXTURE_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "event_log.h"
#include "memory_store.h"
#include "scripted_platform.h"
#include "wire_bytes.h"

namespace es_test {

using Numbers = std::vector<uint32_t>;

constexpr uint32_t kUntouched = 4711;
const std::string kSleep = "nanosleep(1, 0)";

// The library's start as a bus consumer.
const std::string kCreateClass = "dsv_create_class(\"DSV_CLASS_ACL_ES_NAME\", 0, 1, ptr)";
const std::string kSetContext = "pcx_set_context(0, ctx, 793173, 0, 1, 0)";
const Lines kConsumerUpToDsv = {"I: Entering es_acl_pcx_consumer_init",
                                "pool_create(\"ES ACL RULES CHUNK\", 80, 100, 257, 0, 0)", "main[5]",
                                "dsv_init(ctx, 1)"};
const Lines kConsumerUpToBus = lines(kConsumerUpToDsv, "main[10]", "pcx_lr_init(ctx)");

class LibraryTest : public ::testing::Test {
 protected:
  LibraryTest() {
    name_pointer(&context_, "ctx");
    name_pointer(&es_acl_hmutex, "es_acl_hmutex");
    name_pointer(reinterpret_cast<void*>(&es_acl_cpcx_handler), "es_acl_cpcx_handler");
  }

  void* ctx() { return &context_; }

  // Initialises as a client (or as the store's owner) and forgets what was recorded meanwhile.
  void initialise() {
    ASSERT_EQ(es_acl_clib_init(ctx()), 0U);
    clear_log();
  }
  void initialise_owner() {
    ASSERT_EQ(es_acl_db_owner_clib_init(ctx()), 0U);
    clear_log();
  }

  // A head as the store makes it, registered on the bus as "reg", with ACEs of these numbers.
  es_acl_head* make_acl(const std::string& name, std::initializer_list<uint32_t> sequence = {}) {
    es_acl_head* const head = es_acl_get_header(name.c_str());
    head->reg_handle = &registration_;
    name_pointer(head->reg_handle, "reg");
    for (const uint32_t seq : sequence) es_acl_add_acl_item(head, make_ace(seq), seq, ES_ACL_ADD_KEEP);
    clear_log();
    return head;
  }

 private:
  uint64_t context_ = 0;
  uint64_t registration_ = 0;
};

// One row of a table of calls: the script, and what then happens.
struct Case {
  const char* name;
  std::function<void()> arrange;
  uint32_t status;
  Lines expected;
};
inline void PrintTo(const Case& row, std::ostream* out) { *out << row.name; }

#define INSTANTIATE_CASES(suite, rows)                              \
  INSTANTIATE_TEST_SUITE_P(Cases, suite, ::testing::ValuesIn(rows), \
                           [](const auto& instance) { return instance.param.name; })

// A get by name. The arrays have one entry more than there are names, which must stay as it is.
struct Got {
  uint32_t status;
  std::vector<es_acl_head*> heads;
  Numbers results;
};

template <class Operation>
Got get_by(Operation operation, std::vector<const char*> names) {
  const size_t count = names.size();
  void* const untouched = &names;
  std::vector<void*> handles(count + 1, untouched);
  Numbers results(count + 1, kUntouched);
  const es_acl_handle_list in = {static_cast<uint32_t>(count),
                                 const_cast<void**>(reinterpret_cast<const void**>(names.data()))};
  es_acl_handle_list out = {kUntouched, handles.data()};
  Got got = {operation(&in, &out, results.data()), {}, {}};
  EXPECT_EQ(out.count, count);
  EXPECT_EQ(handles[count], untouched);
  EXPECT_EQ(results[count], kUntouched);
  for (size_t i = 0; i < count; ++i) got.heads.push_back(static_cast<es_acl_head*>(handles[i]));
  got.results.assign(results.begin(), results.end() - 1);
  return got;
}

inline Got get(std::vector<const char*> names, uint32_t check_count = 0) {
  return get_by([=](auto... lists) { return es_acl_getlist_acl(lists..., check_count); }, std::move(names));
}

inline void release(std::vector<es_acl_head*> heads) {
  const std::vector<es_acl_head*> before = heads;
  const es_acl_handle_list list = {static_cast<uint32_t>(heads.size()),
                                   reinterpret_cast<void**>(heads.data())};
  es_acl_release(&list);
  EXPECT_EQ(heads, before) << "the entries are the caller's";
}

// Numbers of the ACEs that a walk shows.
inline Numbers walk(es_acl_head* acl) {
  Numbers seen;
  es_acl_ace_node* node = es_get_first_ace(acl);
  for (; es_get_ace_data(acl, node) != nullptr; node = es_get_next_ace(acl, node))
    seen.push_back(es_get_ace_data(acl, node)->seq);
  return seen;
}

// Records that were taken from the pool and not given back.
inline size_t records_out() { return log_of("pool_take(").size() - log_of("pool_give(").size(); }

// Runs the operation with its 1st, 2nd, ... allocation failing, until it needs no further one.
inline void sweep_allocations(const std::function<uint32_t()>& operation,
                              const std::function<void()>& after_failure) {
  for (int nth = 1; nth < 100; ++nth) {
    SCOPED_TRACE("allocation " + std::to_string(nth));
    fail_allocation(nth);
    const uint32_t status = operation();
    const bool failed = end_allocation_failure();
    EXPECT_EQ(status, failed ? 12U : 0U);
    if (!failed) return;
    after_failure();
  }
  FAIL() << "there is no end to its allocations";
}

inline std::string long_name(size_t length) { return std::string(length, 'n'); }

}  // namespace es_test

#endif  // TESTS_SUPPORT_LIBRARY_FIXTURE_H_
