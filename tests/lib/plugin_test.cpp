// Names, and the store plug-in's table and loading.
#include "library_fixture.h"

using namespace es_test;

namespace {

class NameTest : public LibraryTest {};

struct NameCase {
  std::string name;
  const char* rejected_as;  // null when acceptable
};

TEST_F(NameTest, Rules) {
  initialise_owner();
  const char* const reserved = "acl name is reserved";
  const char* const pattern = "acl name failed regexp match";
  const char* const too_long = "acl name too long";
  const NameCase cases[] = {
      {"a", nullptr},
      {"7", nullptr},
      {"a-b_c.d:e", nullptr},
      {"Z-", nullptr},
      {long_name(64), nullptr},
      {"Trace", nullptr},
      {"traces", nullptr},
      {"usage1", nullptr},
      {"stand", nullptr},
      {"standby", reserved},
      {"maximum", reserved},
      {"summary", reserved},
      {"trace", reserved},
      {"usage", reserved},
      {"", pattern},
      {"-acl", pattern},
      {"_acl", pattern},
      {".acl", pattern},
      {":acl", pattern},
      {"a b", pattern},
      {"a/b", pattern},
      {"a\n", pattern},
      {"a\nb", pattern},
      {"b\xc3\xa4r", pattern},
      {"a[b]", pattern},
      {"a\\b", pattern},
      {" a", pattern},
      {"trace ", pattern},
      {long_name(65), too_long},
      {long_name(5000), too_long},
      {std::string(65, '/'), too_long},
  };
  for (const NameCase& row : cases) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(es_acl_check_acl_name(row.name.c_str()), row.rejected_as == nullptr ? 0 : 0xc6b18a00);
    Lines expected = {"I: Entering es_acl_check_acl_name: acl_name: " + row.name};
    if (row.rejected_as != nullptr)
      expected.push_back(std::string("E: es_acl_check_acl_name: ") + row.rejected_as);
    EXPECT_EQ(log(), expected);
    EXPECT_EQ(es_acl_is_name_reserved(row.name.c_str()), row.rejected_as == reserved ? 1U : 0U);
    clear_log();
  }
}

TEST_F(NameTest, NullName) {
  initialise_owner();
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

TEST_F(PluginTest, EverySlotIsHarmlessWithoutAPlugin) {
  es_acl_head head{};
  es_acl_ace ace{};
  uint32_t out = 9;
  es_acl_iter iter = nullptr;
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
  va_list none{};
  table.traverse_list(&head, visit_nothing, &none);
}

TEST_F(PluginTest, OperationsSeeTheInertStore) {
  EXPECT_EQ(es_acl_lookup("edge"), nullptr);
  EXPECT_EQ(es_acl_get_header("edge"), nullptr);
  EXPECT_EQ(es_acl_traverse_list("edge", 0, visit_nothing), 0x46b19a00U);
  es_acl_head copy;
  EXPECT_EQ(es_acl_lookup_read("edge", &copy), 2U);
}

TEST_F(PluginTest, SlotsThatAPluginLeavesAloneKeepTheirDefaults) {
  ASSERT_EQ(es_acl_use_db_dll("some.dll"), 0U);
  EXPECT_EQ(es_acl_apis->reserved_13(), 2U);
  EXPECT_EQ(es_acl_apis->add_acl_item(nullptr, nullptr, 1, 0), 0U);
  EXPECT_EQ(es_acl_apis->acl_lookup("edge"), nullptr);
  EXPECT_THAT(log(kStore), ::testing::Contains("store.acl_lookup(\"edge\")"));
}

TEST_F(PluginTest, NullName) {
  EXPECT_EQ(es_acl_use_db_dll(nullptr), 22U);
  EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_use_db_dll: name: (null)",
                          "E: es_acl_use_db_dll: Name cannot be null", "trace w"}));
}

TEST_F(PluginTest, NamesAreCutTo255) {
  for (const size_t length : {255U, 256U, 4000U}) {
    const std::string name = long_name(length);
    platform().dll_open.next(nullptr);
    EXPECT_EQ(es_acl_use_db_dll(name.c_str()), 0xa6b18600);
    EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_use_db_dll: name: " + name,
                            "dll_open(\"" + long_name(255) + "\", 0)", "E: es_acl_use_db_dll: dlopen failed",
                            "trace w"}));
    clear_log();
  }
}

TEST_F(PluginTest, LoadedOnceOnly) {
  ASSERT_EQ(es_acl_use_db_dll("first.dll"), 0U);
  clear_log();
  EXPECT_EQ(es_acl_use_db_dll("second.dll"), 0U);
  EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_use_db_dll: name: second.dll",
                          "D: es_acl_use_db_dll: DLL second.dll is already open"}));
}

TEST_F(PluginTest, AMissingSymbolClosesTheModuleAndTheNextCallTriesAgain) {
  platform().dll_symbol.next(nullptr);
  EXPECT_EQ(es_acl_use_db_dll("first.dll"), 0xa6b18800);
  EXPECT_EQ(log(), (Lines{"I: Entering : es_acl_use_db_dll: name: first.dll", "dll_open(\"first.dll\", 0)",
                          "dll_symbol(module, \"es_acl_api_init_funcs\")",
                          "E: es_acl_use_db_dll: dlsym failed", "trace w", "dll_close(module)"}));
  clear_log();
  EXPECT_EQ(es_acl_use_db_dll("first.dll"), 0U);
  EXPECT_EQ(log(kCall),
            (Lines{"dll_open(\"first.dll\", 0)", "dll_symbol(module, \"es_acl_api_init_funcs\")"}));
}

TEST_F(PluginTest, InitialisationLoadsTheNameChosenBefore) {
  platform().dll_open.next(nullptr);
  EXPECT_EQ(es_acl_use_db_dll("chosen.dll"), 0xa6b18600);
  clear_log();
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 0U);
  EXPECT_THAT(log(), ::testing::Contains("dll_open(\"chosen.dll\", 0)"));
}

}  // namespace
