// Start-up of a client and of a store owner: the order of the steps, and what every failing step leaves
// behind.
#include <functional>
#include <thread>

#include "es_acl/es_acl_status.h"
#include "library_fixture.h"

using namespace es_test;

namespace {

const Lines kMutexSteps = {"pthread_mutexattr_init()", "pthread_mutexattr_settype(\"recursive\")",
                           "pthread_mutex_init(es_acl_hmutex)", "pthread_mutexattr_destroy()"};
const std::string kOpenUnique = "acl_rlog_init(\"/es/acl-dll/\", \"_un\", 256, 0)";
const std::string kOpenWrapping = "acl_rlog_init(\"/es/acl-dll/\", \"_wr\", 0, 2048)";
const std::string kOpenDebug = "acl_debug_init(ctx, \"/debug/es_acl_dll/\", 6)";
const std::string kCompile = "regcomp(\"^[a-z0-9A-Z][-_.:a-z0-9A-Z]*$\", 1)";
const Lines kLoad = {"I: Entering : es_acl_use_db_dll: name: libes_acl_tree.dll",
                     "dll_open(\"libes_acl_tree.dll\", 0)", "dll_symbol(module, \"es_acl_api_init_funcs\")",
                     "es_acl_api_init_funcs(\"es_acl_apis\")", "trace w"};
const Lines kOwnerDone = {"store.init(ctx)", "I: es_acl_db_owner_clib_init: Initialized (owner) successfully",
                          "trace u"};
const Lines kReporting = {"procmgr_get_procname(cap 128)",
                          "acl_client_relay_init(\"es-acl\", \"test-process\")"};
const Lines kConsumer = {"I: Entering es_acl_pcx_consumer_init",
                         "pool_create(\"ES ACL RULES CHUNK\", 80, 100, 257, 0, 0)",
                         "main[5]",
                         "dsv_init(ctx, 1)",
                         "main[10]",
                         "pcx_lr_init(ctx)",
                         "main[7]",
                         "dsv_create_class(\"DSV_CLASS_ACL_ES_NAME\", 0, 1)",
                         "pcx_set_context(ctx, 793173)"};
const std::string kClientDone = "I: es_acl_clib_init: Initialized clib successfully";

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}
Lines operator+(Lines left, const std::string& right) { return std::move(left) + Lines{right}; }

Lines owner_sequence() {
  return kMutexSteps + kOpenUnique + kOpenWrapping + kOpenDebug + kCompile + kLoad + kOwnerDone;
}

class InitTest : public LibraryTest {};

struct FailingStep {
  const char* name;
  std::function<void()> arrange;
  uint32_t status;
  Lines expected;
};

void PrintTo(const FailingStep& step, std::ostream* out) { *out << step.name; }

const Lines kUpToDebug = kMutexSteps + kOpenUnique + kOpenWrapping + kOpenDebug;

// Each step fails in turn: nothing after it happens, and its status comes back.
const FailingStep kOwnerFailures[] = {
    {"attribute_type",
     [] { platform().pthread_mutexattr_settype.next(22); },
     22,
     {kMutexSteps[0], kMutexSteps[1], kMutexSteps[3]}},
    {"mutex",
     [] { platform().pthread_mutex_init.next(11); },
     11,
     {kMutexSteps[0], kMutexSteps[1], kMutexSteps[2], kMutexSteps[3]}},
    {"debug_categories", [] { platform().acl_debug_init.next(12); }, 12, kUpToDebug + "trace w"},
    {"name_pattern", [] { platform().regcomp.next(13); }, 13,
     kUpToDebug + kCompile + "E: es_acl_db_owner_clib_init: regcomp failed" + "trace w"},
    {"plugin_open", [] { platform().dll_open.next(nullptr); }, 0xa6b18600,
     kUpToDebug + kCompile +
         Lines{kLoad[0], kLoad[1], "E: es_acl_use_db_dll: dlopen failed", "trace w",
               "E: es_acl_db_owner_clib_init: Could not Load DB DLL", "trace w"}},
    {"plugin_symbol", [] { platform().dll_symbol.next(nullptr); }, 0xa6b18800,
     kUpToDebug + kCompile +
         Lines{kLoad[0], kLoad[1], kLoad[2], "E: es_acl_use_db_dll: dlsym failed", "trace w",
               "dll_close(module)", "E: es_acl_db_owner_clib_init: Could not Load DB DLL", "trace w"}},
    {"plugin_init", [] { store().init.next(28); }, 28,
     kUpToDebug + kCompile + kLoad +
         Lines{"store.init(ctx)", "E: es_acl_db_owner_clib_init: Could not initialize DB DLL apis",
               "trace w"}},
};

class OwnerFailure : public InitTest, public ::testing::WithParamInterface<FailingStep> {};

TEST_P(OwnerFailure, EndsThere) {
  GetParam().arrange();
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), GetParam().status);
  EXPECT_EQ(log(), GetParam().expected);
  // Whatever stopped the first call, the next one starts again and succeeds.
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 0U);
}

TEST_P(OwnerFailure, FailsTheClientInitialisation) {
  GetParam().arrange();
  EXPECT_EQ(es_acl_clib_init(ctx()), GetParam().status);
  Lines expected = GetParam().expected;
  if (es_acl_debug_get_event_handle() != nullptr) {
    char text[128];
    snprintf(text, sizeof text, "E: es_acl_clib_init: Failed to initialize mgr_clib: <%#x>",
             GetParam().status);
    expected = expected + std::string(text);
  }
  EXPECT_EQ(log(), expected);
}

INSTANTIATE_TEST_SUITE_P(Steps, OwnerFailure, ::testing::ValuesIn(kOwnerFailures),
                         [](const auto& instance) { return instance.param.name; });

TEST_F(InitTest, OwnerSequence) {
  EXPECT_EQ(es_acl_debug_get_event_handle(), nullptr);
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 0U);
  EXPECT_EQ(log(), owner_sequence());
  EXPECT_EQ(pointer_name(es_acl_rlog_u_ctx_get()), "trace_un");
  EXPECT_EQ(pointer_name(es_acl_rlog_w_ctx_get()), "trace_wr");
  EXPECT_EQ(es_acl_debug_get_event_handle(), platform().categories.data());
  EXPECT_EQ(acl_client_relay_hdl, nullptr);
}

TEST_F(InitTest, OwnerMutexIsRecursive) {
  initialise_owner();
  EXPECT_EQ(pthread_mutex_lock(&es_acl_hmutex), 0);
  EXPECT_EQ(pthread_mutex_lock(&es_acl_hmutex), 0);
  int other = 0;
  std::thread([&other] { other = pthread_mutex_trylock(&es_acl_hmutex); }).join();
  EXPECT_EQ(other, EBUSY);
  EXPECT_EQ(pthread_mutex_unlock(&es_acl_hmutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&es_acl_hmutex), 0);
}

TEST_F(InitTest, OwnerAgainKeepsCategoriesAndPlugin) {
  initialise_owner();
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 0U);
  EXPECT_EQ(log(), kMutexSteps + kOpenUnique + kOpenWrapping + kCompile + kLoad[0] +
                       "D: es_acl_use_db_dll: DLL libes_acl_tree.dll is already open" + kOwnerDone);
  EXPECT_EQ(es_acl_check_acl_name("edge"), 0U);
}

TEST_F(InitTest, UniqueTraceBufferFails) {
  platform().acl_rlog_init.next(12);
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 12U);
  EXPECT_EQ(log(), kMutexSteps + kOpenUnique + "acl_rlog_close(null)");
}

TEST_F(InitTest, WrappingTraceBufferFailsAndBothAreClosed) {
  platform().acl_rlog_init.next(open_trace_buffer);
  platform().acl_rlog_init.next(28);
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 28U);
  const Lines expected =
      kMutexSteps + kOpenUnique + kOpenWrapping + "acl_rlog_close(trace_un)" + "acl_rlog_close(null)";
  EXPECT_THAT(log(), ::testing::UnorderedElementsAreArray(expected));
  clear_log();
  es_acl_use_db_dll(nullptr);
  EXPECT_EQ(log(), (Lines{})) << "a closed buffer was written to";
}

TEST_F(InitTest, ReopenedTraceBufferFailsAndBothAreClosed) {
  initialise_owner();
  platform().acl_rlog_init.next(open_trace_buffer);
  platform().acl_rlog_init.next(28);
  EXPECT_EQ(es_acl_db_owner_clib_init(ctx()), 28U);
  clear_log();
  es_acl_use_db_dll(nullptr);
  EXPECT_THAT(log(kTrace), ::testing::Not(::testing::Contains("trace closed")));
}

TEST_F(InitTest, ErrorTextsAreAdded) {
  initialise_owner();
  const std::map<uint32_t, std::string> expected = {
#define PAIR(name, value, text) {value, text},
      ES_ACL_STATUS_LIST(PAIR)
#undef PAIR
  };
  EXPECT_EQ(platform().error_texts, expected);
}

TEST_F(InitTest, ClientSequence) {
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  EXPECT_EQ(log(), owner_sequence() + kReporting + kConsumer + kClientDone);
  EXPECT_EQ(es_acl_classhandle, kClass);
  EXPECT_EQ(acl_client_relay_hdl, main_counters());
  EXPECT_EQ(acl_client_err_relay_hdl, error_counters());
  EXPECT_EQ(pointer_name(acl_client_relay_hist_hdl), "history");
}

TEST_F(InitTest, ClientAgainOnlySaysSo) {
  initialise();
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  EXPECT_EQ(log(), (Lines{kClientDone}));
}

TEST_F(InitTest, NullContextIsRefusedBeforeAndAfter) {
  EXPECT_EQ(es_acl_clib_init(nullptr), 22U);
  EXPECT_EQ(es_acl_db_owner_clib_init(nullptr), 22U);
  EXPECT_EQ(log(), (Lines{}));
  initialise();
  EXPECT_EQ(es_acl_clib_init(nullptr), 22U);
  EXPECT_EQ(es_acl_db_owner_clib_init(nullptr), 22U);
  EXPECT_EQ(log(), (Lines{}));
}

TEST_F(InitTest, UnknownProcessNameIsReplaced) {
  platform().procmgr_get_procname.next(34);
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  EXPECT_THAT(log(), ::testing::Contains("acl_client_relay_init(\"es-acl\", \"es client lib\")"));
}

TEST_F(InitTest, WithoutReportingChannelNothingIsCounted) {
  platform().acl_client_relay_init.next(12);
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  Lines consumer = kConsumer;
  std::erase_if(consumer, [](const std::string& line) { return line.starts_with("main["); });
  EXPECT_EQ(log(), owner_sequence() + kReporting +
                       "E: es_acl_clib_init: init RELAY failed with error 12:<0xc>" + consumer + kClientDone);
  es_acl_lookup("edge");
  EXPECT_EQ(log(kCount), (Lines{}));
}

TEST_F(InitTest, FailedConsumerLeavesTheNextCallToStartAgain) {
  platform().pcx_lr_init.next(5);
  EXPECT_EQ(es_acl_clib_init(ctx()), 5U);
  Lines consumer(kConsumer.begin(), kConsumer.begin() + 6);
  EXPECT_EQ(log(), owner_sequence() + kReporting + consumer +
                       "E: es_acl_pcx_consumer_init: pcx_lr_init failed" + "trace w" + "error[10]" +
                       "E: es_acl_clib_init: Failed to initialize PCX: <0x5>" + "trace w");
  clear_log();
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  EXPECT_EQ(log(), kMutexSteps + kOpenUnique + kOpenWrapping + kCompile + kLoad[0] +
                       "D: es_acl_use_db_dll: DLL libes_acl_tree.dll is already open" + kOwnerDone +
                       kReporting + kConsumer + kClientDone);
}

// --- Debug lines ---

TEST_F(InitTest, DisabledCategoryPrintsNothing) {
  initialise();
  platform().categories[1].enabled = 0;
  es_acl_set_modify_mode(1);
  es_acl_get_modify_mode();
  es_acl_check_acl_name(nullptr);
  EXPECT_EQ(log(kLine), (Lines{"D: es_acl_set_modify_mode: modify_mode = Add only",
                               "E: es_acl_check_acl_name: acl name is NULL"}));
}

TEST_F(InitTest, UnsetDebugHandlePrintsNothing) {
  platform().acl_debug_init.next([](debug_category** handle, void*, const char*, uint32_t) {
    *handle = reinterpret_cast<debug_category*>(4095);
    return 0U;
  });
  EXPECT_EQ(es_acl_clib_init(ctx()), 0U);
  EXPECT_EQ(log(kLine), (Lines{}));
}

}  // namespace
