// Names, and the store plug-in's table and loading.
#include "library_fixture.h"

using namespace es_test;

namespace {

using NameTest = LibraryTest;

TEST_F(NameTest, Rules) {
  initialise_owner();
  const std::pair<const char*, Lines> rules[] = {
      {nullptr, {"a", "7", "a-b_c.d:e", "Z-", long_name(64), "Trace", "traces", "usage1", "stand"}},
      {"acl name is reserved", {"standby", "maximum", "summary", "trace", "usage"}},
      {"acl name failed regexp match",
       {"", "-acl", "_acl", ".acl", ":acl", "a b", "a/b", "a\n", "a\nb", "b\xc3\xa4r", "a[b]", "a\\b", " a",
        "trace "}},
      {"acl name too long", {long_name(65), long_name(5000), std::string(65, '/')}},
  };
  for (const auto& [rejection, names] : rules) {
    for (const std::string& name : names) {
      Lines expected = {"I: Entering es_acl_check_acl_name: acl_name: " + name};
      if (rejection != nullptr) expected.push_back(std::string("E: es_acl_check_acl_name: ") + rejection);
      EXPECT_EQ(es_acl_check_acl_name(name.c_str()), rejection == nullptr ? 0 : 0xc6b18a00) << name;
      EXPECT_EQ(take_log(), expected);
      EXPECT_EQ(es_acl_is_name_reserved(name.c_str()), &names == &rules[1].second ? 1U : 0U) << name;
    }
  }
  EXPECT_EQ(es_acl_is_name_reserved(nullptr), 0U);
  EXPECT_EQ(es_acl_check_acl_name(nullptr), 0xc6b18a00);
  EXPECT_EQ(log(), (Lines{"I: Entering es_acl_check_acl_name: acl_name: (null)",
                          "E: es_acl_check_acl_name: acl name is NULL"}));
}

class PluginTest : public LibraryTest {
 protected:
  void SetUp() override {
    // The debug categories, without a plug-in.
    platform().dll_open.next(nullptr);
    ASSERT_EQ(es_acl_db_owner_clib_init(ctx()), 0xa6b18600);
    clear_log();
  }
};

uint32_t visit_nothing(es_acl_head*, const es_acl_ace*, va_list*) { return 0; }

std::string use(const std::string& name) { return "I: Entering : es_acl_use_db_dll: name: " + name; }
std::string open(const std::string& name) { return "dll_open(\"" + name + "\", 0)"; }
const std::string kFindSymbol = "dll_symbol(module, \"es_acl_api_init_funcs\")";

TEST_F(PluginTest, EverySlotIsHarmlessWithoutAPlugin) {
  es_acl_head head{};
  es_acl_ace ace{};
  uint32_t out = 9;
  es_acl_iter iter = nullptr;
  va_list none{};
  const es_acl_api_table& table = *es_acl_apis;
  EXPECT_EQ(table.init(ctx()), 0U);
  EXPECT_EQ(table.acl_lookup("edge"), nullptr);
  EXPECT_EQ(table.get_header("edge"), nullptr);
  table.acl_release("edge");
  EXPECT_EQ(table.add_acl_item(&head, &ace, 1, 0), 0U);
  EXPECT_EQ(table.add_acl_item_iter(&head, &ace, 1, 0, &iter), 0U);
  table.delete_entry(&head, 1);
  table.delete_entry_iter(&head, 1, 1, nullptr);
  EXPECT_EQ(table.search_entry(&head, 1), nullptr);
  EXPECT_EQ(table.search_entry_iter(&head, 1, 1, &iter), nullptr);
  table.freelist(&head, nullptr);
  table.freelist(&head, &out);
  EXPECT_EQ(out, 0U);
  EXPECT_EQ(table.match_complex(&head, &ace, 1, 2), 0U);
  EXPECT_EQ(table.match_complex_2(&head, &ace, 1, 2), 0U);
  EXPECT_EQ(table.reserved_13(), 2U);
  EXPECT_EQ(table.resequence(&head, 10, 10, 0, nullptr), 0U);
  EXPECT_EQ(table.get_db_pointer(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), nullptr);
  table.traverse_list(&head, visit_nothing, &none);
}

TEST_F(PluginTest, Names) {
  EXPECT_EQ(es_acl_use_db_dll(nullptr), 22U);
  EXPECT_EQ(take_log(), (Lines{use("(null)"), "E: es_acl_use_db_dll: Name cannot be null", "trace w"}));
  for (const size_t length : {255U, 256U, 4000U}) {
    platform().dll_open.next(nullptr);
    EXPECT_EQ(es_acl_use_db_dll(long_name(length).c_str()), 0xa6b18600);
    EXPECT_EQ(take_log(), (Lines{use(long_name(length)), open(long_name(255)),
                                 "E: es_acl_use_db_dll: dlopen failed", "trace w"}));
  }
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 0U);
  EXPECT_EQ(log_of("dll_open"), Lines{open(long_name(255))}) << "initialisation loads the name chosen before";
}

TEST_F(PluginTest, AMissingSymbolClosesTheModuleAndOneThatLoadsStays) {
  platform().dll_symbol.next(nullptr);
  EXPECT_EQ(es_acl_use_db_dll("first.dll"), 0xa6b18800);
  EXPECT_EQ(take_log(), (Lines{use("first.dll"), open("first.dll"), kFindSymbol,
                               "E: es_acl_use_db_dll: dlsym failed", "trace w", "dll_close(module)"}));
  EXPECT_EQ(es_acl_use_db_dll("first.dll"), 0U);
  EXPECT_EQ(take_log(kCall), (Lines{open("first.dll"), kFindSymbol}));
  EXPECT_EQ(es_acl_use_db_dll("second.dll"), 0U);
  EXPECT_EQ(take_log(), (Lines{use("second.dll"), "D: es_acl_use_db_dll: DLL second.dll is already open"}));

  EXPECT_EQ(es_acl_apis->acl_lookup("edge"), nullptr);
  EXPECT_EQ(log(), Lines{"store.acl_lookup(\"edge\")"});
  EXPECT_EQ(es_acl_apis->reserved_13(), 2U) << "a slot that the plug-in leaves alone keeps its default";
}

}  // namespace
