// Start-up of a client and of a store owner: the order of the steps, and what every failing step leaves
// behind.
#include "es_acl/es_acl_status.h"
#include "library_fixture.h"

using namespace es_test;

namespace {

const Lines kMutex = {"pthread_mutexattr_init(ptr)", "pthread_mutexattr_settype(ptr, 1)",
                      "pthread_mutex_init(es_acl_hmutex, ptr)", "pthread_mutexattr_destroy()"};
const Lines kUpToUnique = lines(kMutex, "acl_rlog_init(\"/es/acl-dll/\", \"_un\", 256, 0, ptr)");
const Lines kUpToWrapping = lines(kUpToUnique, "acl_rlog_init(\"/es/acl-dll/\", \"_wr\", 0, 2048, ptr)");
const Lines kUpToDebug = lines(kUpToWrapping, "acl_debug_init(ptr, ctx, \"/debug/es_acl_dll/\", 6)");
const std::string kCompile = "regcomp(ptr, \"^[a-z0-9A-Z][-_.:a-z0-9A-Z]*$\", 1)";
const std::string kUse = "I: Entering : es_acl_use_db_dll: name: libes_acl_tree.dll";
const Lines kUpToOpen = lines(kUpToDebug, kCompile, kUse, "dll_open(\"libes_acl_tree.dll\", 0)");
const Lines kUpToSymbol = lines(kUpToOpen, "dll_symbol(module, \"es_acl_api_init_funcs\")");
const Lines kUpToStore =
    lines(kUpToSymbol, "es_acl_api_init_funcs(\"es_acl_apis\")", "trace w", "store.init(ctx)");
const Lines kOwnerDone = {"I: es_acl_db_owner_clib_init: Initialized (owner) successfully", "trace u"};
const Lines kOwner = lines(kUpToStore, kOwnerDone);
// Categories, plug-in and its name stay from the first time.
const Lines kOwnerAgain =
    lines(kUpToWrapping, kCompile, kUse, "D: es_acl_use_db_dll: DLL libes_acl_tree.dll is already open",
          "store.init(ctx)", kOwnerDone);
const Lines kReporting = {"procmgr_get_procname(\"es client lib\", cap 128)",
                          "acl_client_relay_init(\"es-acl\", \"test-process\", ptr, ptr, ptr)"};
const Lines kConsumer = lines(kConsumerUpToBus, "main[7]", kCreateClass, kSetContext);
const std::string kClientDone = "I: es_acl_clib_init: Initialized clib successfully";

// Each step fails in turn: nothing after it happens, and its status comes back.
const Case kOwnerFailures[] = {
    {"attribute", [] { platform().pthread_mutexattr_init.next(12); }, 12, {kMutex[0]}},
    {"attribute_type", [] { platform().pthread_mutexattr_settype.next(22); }, 22,
     lines(kMutex[0], kMutex[1], kMutex[3])},
    {"mutex", [] { platform().pthread_mutex_init.next(11); }, 11, kMutex},
    {"unique_trace", [] { platform().acl_rlog_init.next(12); }, 12,
     lines(kUpToUnique, "acl_rlog_close(null)")},
    {"wrapping_trace",
     [] {
       platform().acl_rlog_init.next(open_trace_buffer);
       platform().acl_rlog_init.next(28);
     },
     28, lines(kUpToWrapping, "acl_rlog_close(trace_un)", "acl_rlog_close(null)")},
    {"debug_categories", [] { platform().acl_debug_init.next(12); }, 12, lines(kUpToDebug, "trace w")},
    {"name_pattern", [] { platform().regcomp.next(13); }, 13,
     lines(kUpToDebug, kCompile, "E: es_acl_db_owner_clib_init: regcomp failed", "trace w")},
    {"plugin_open", [] { platform().dll_open.next(nullptr); }, 0xa6b18600,
     lines(kUpToOpen, "E: es_acl_use_db_dll: dlopen failed", "trace w",
           "E: es_acl_db_owner_clib_init: Could not Load DB DLL", "trace w")},
    {"plugin_symbol", [] { platform().dll_symbol.next(nullptr); }, 0xa6b18800,
     lines(kUpToSymbol, "E: es_acl_use_db_dll: dlsym failed", "trace w", "dll_close(module)",
           "E: es_acl_db_owner_clib_init: Could not Load DB DLL", "trace w")},
    {"plugin_init", [] { store().init.next(28); }, 28,
     lines(kUpToStore, "E: es_acl_db_owner_clib_init: Could not initialize DB DLL apis", "trace w")},
};

using InitTest = LibraryTest;
class OwnerFailure : public LibraryTest, public ::testing::WithParamInterface<Case> {};

TEST_P(OwnerFailure, EndsThere) {
  GetParam().arrange();
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), GetParam().status);
  EXPECT_EQ(take_log(), GetParam().expected);
  es_acl_use_db_dll(nullptr);
  EXPECT_EQ(log_of("trace closed"), Lines{});
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 0U) << "the next call starts again";
}

INSTANTIATE_CASES(OwnerFailure, kOwnerFailures);

TEST_F(InitTest, Owner) {
  EXPECT_EQ(es_acl_debug_get_event_handle(), nullptr);
  EXPECT_EQ(es_acl_db_owner_clib_init(nullptr), 22U);
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 0U);
  EXPECT_EQ(take_log(), kOwner);
  EXPECT_EQ(pointer_name(es_acl_rlog_u_ctx_get()), "trace_un");
  EXPECT_EQ(pointer_name(es_acl_rlog_w_ctx_get()), "trace_wr");
  EXPECT_EQ(es_acl_debug_get_event_handle(), platform().categories.data());
  EXPECT_EQ(acl_client_relay_hdl, nullptr);
  const std::map<uint32_t, std::string> texts = {
#define PAIR(name, value, text) {value, text},
      ES_ACL_STATUS_LIST(PAIR)
#undef PAIR
  };
  EXPECT_EQ(platform().error_texts, texts);

  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 0U);
  EXPECT_EQ(take_log(), kOwnerAgain);
  EXPECT_EQ(es_acl_check_acl_name("edge"), 0U);
  platform().acl_rlog_init.next(open_trace_buffer);
  platform().acl_rlog_init.next(28);
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 28U);
  es_acl_use_db_dll(nullptr);
  EXPECT_EQ(log_of("trace closed"), Lines{}) << "a buffer that was open before is forgotten, too";
}

TEST_F(InitTest, Client) {
  EXPECT_EQ(es_acl_clib_init(nullptr), 22U);
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  EXPECT_EQ(take_log(), lines(kOwner, kReporting, kConsumer, kClientDone));
  EXPECT_EQ(es_acl_classhandle, kClass);
  EXPECT_EQ(acl_client_relay_hdl, main_counters);
  EXPECT_EQ(acl_client_err_relay_hdl, error_counters);
  EXPECT_EQ(pointer_name(acl_client_relay_hist_hdl), "history");
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  EXPECT_EQ(take_log(), Lines{kClientDone});
  EXPECT_EQ(es_acl_clib_init(nullptr), 22U);
  EXPECT_EQ(log(), Lines{});
}

TEST_F(InitTest, ClientWithoutProcessNameAndReportingChannel) {
  platform().procmgr_get_procname.next(34);
  platform().acl_client_relay_init.next(12);
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  Lines consumer = kConsumer;
  std::erase_if(consumer, [](const std::string& line) { return line.starts_with("main["); });
  EXPECT_EQ(
      take_log(),
      lines(kOwner, kReporting[0], "acl_client_relay_init(\"es-acl\", \"es client lib\", ptr, ptr, ptr)",
            "E: es_acl_clib_init: init RELAY failed with error 12:<0xc>", consumer, kClientDone));
}

TEST_F(InitTest, FailedOwnerOrConsumerLeavesTheNextCallToStartAgain) {
  platform().pthread_mutexattr_init.next(12);
  EXPECT_EQ(es_acl_clib_init(ctx()), 12U);
  EXPECT_EQ(take_log(), Lines{kMutex[0]});
  platform().pcx_lr_init.next(5);
  EXPECT_EQ(es_acl_clib_init(ctx()), 5U);
  EXPECT_EQ(take_log(),
            lines(kOwner, kReporting, kConsumerUpToBus, "E: es_acl_pcx_consumer_init: pcx_lr_init failed",
                  "trace w", "error[10]", "E: es_acl_clib_init: Failed to initialize PCX: <0x5>", "trace w"));
  store().init.next(28);
  EXPECT_EQ(es_acl_clib_init(ctx()), 28U);
  EXPECT_EQ(log_of("E: es_acl_clib_init"),
            Lines{"E: es_acl_clib_init: Failed to initialize mgr_clib: <0x1c>"});
  clear_log();
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  EXPECT_EQ(log(), lines(kOwnerAgain, kReporting, kConsumer, kClientDone));
}

TEST_F(InitTest, DebugLinesOfADisabledCategoryOrAnUnsetHandle) {
  initialise();
  platform().categories[1].enabled = 0;
  es_acl_set_modify_mode(1);
  es_acl_get_modify_mode();
  es_acl_check_acl_name(nullptr);
  EXPECT_EQ(take_log(), (Lines{"D: es_acl_set_modify_mode: modify_mode = Add only",
                               "E: es_acl_check_acl_name: acl name is NULL"}));
  es_acl_dll_event_type = reinterpret_cast<debug_category*>(4095);
  es_acl_set_modify_mode(1);
  EXPECT_EQ(log(), Lines{});
}

TEST_F(InitTest, MemoryRunsOutAtEveryAllocationAndAtThoseOfTheCountQuery) {
  sweep_allocations([this] { return es_acl_clib_init(ctx()); }, [] {});
  EXPECT_EQ(es_acl_check_acl_name("edge"), 0U);
  platform().pcx_read.always(answer(count_answer(2, 1)));
  uint32_t aces = 0, remarks = 0;
  sweep_allocations([&] { return es_acl_get_ace_count("edge", &aces, &remarks); },
                    [&] { EXPECT_EQ(aces, 0U); });
  EXPECT_EQ(aces, 2U);
}

}  // namespace
