// The library's frame: process-wide state and the two initialisations.
//
// Initialisation runs early, on one thread. Nothing is torn down again; what a failed initialisation had set
// up stays (but for trace buffers that could not both be opened), and the next call builds on it.
#include <locale.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_store.h"
#include "es_acl_diag.h"
#include "es_acl_state.h"

pthread_mutex_t es_acl_hmutex;
rlog_ctx* es_acl_rlog_u_ctx;
rlog_ctx* es_acl_rlog_w_ctx;
debug_category* es_acl_dll_event_type;
uint32_t es_acl_classhandle;
void* es_acl_global_handle;
acl_client_relay_entry* acl_client_relay_hdl;
acl_client_relay_entry* acl_client_err_relay_hdl;
void* acl_client_relay_hist_hdl;
uint32_t es_acl_lib_timer_type;

namespace es_acl {

void* es_acl_lib_ctx;
regex_t es_acl_name_regex;

namespace {

constexpr uint32_t kDebugCategories = 6;
constexpr char kTracePath[] = "/es/acl-dll/";

std::atomic<uint32_t> es_acl_clib_initialised;
bool name_regex_compiled;

// Status texts of the library's own codes, known to errcode_string() as soon as the library is loaded.
const errcode_text kStatusTexts[] = {
#define ES_ACL_STATUS_AS_TEXT(name, value, text) {value, text},
    ES_ACL_STATUS_LIST(ES_ACL_STATUS_AS_TEXT)
#undef ES_ACL_STATUS_AS_TEXT
};
[[maybe_unused]] const uint32_t status_texts_added =
    errcode_add_table(kStatusTexts, sizeof kStatusTexts / sizeof kStatusTexts[0]);

uint32_t init_store_mutex() {
  std::memset(&es_acl_hmutex, 0, sizeof es_acl_hmutex);
  pthread_mutexattr_t attributes;
  int rc = pthread_mutexattr_init(&attributes);
  if (rc != 0) return static_cast<uint32_t>(rc);
  rc = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  if (rc == 0) rc = pthread_mutex_init(&es_acl_hmutex, &attributes);
  const int destroyed = pthread_mutexattr_destroy(&attributes);
  return static_cast<uint32_t>(rc != 0 ? rc : destroyed);
}

// A closed context may not be written to any more: forget it.
void close_trace(rlog_ctx*& context) {
  acl_rlog_close(context);
  context = nullptr;
}

uint32_t open_traces() {
  uint32_t status = acl_rlog_init(kTracePath, "_un", 256, 0, &es_acl_rlog_u_ctx);
  if (status != 0) {
    close_trace(es_acl_rlog_u_ctx);
    return status;
  }
  status = acl_rlog_init(kTracePath, "_wr", 0, 2048, &es_acl_rlog_w_ctx);
  if (status != 0) {
    close_trace(es_acl_rlog_u_ctx);
    close_trace(es_acl_rlog_w_ctx);
  }
  return status;
}

// A letter of a name is an ASCII letter, whatever the client's locale takes for one.
class PlainLocale {
 public:
  PlainLocale() : plain_(newlocale(LC_ALL_MASK, "C", nullptr)), before_(nullptr) {
    if (plain_ != nullptr) before_ = uselocale(plain_);
  }
  ~PlainLocale() {
    if (plain_ == nullptr) return;
    uselocale(before_);
    freelocale(plain_);
  }
  PlainLocale(const PlainLocale&) = delete;
  PlainLocale& operator=(const PlainLocale&) = delete;

  bool in_force() const { return plain_ != nullptr; }

 private:
  locale_t plain_;
  locale_t before_;
};

// Compiles aside, so that the pattern in force is replaced by a good one or not at all.
uint32_t compile_name_pattern() {
  const PlainLocale locale;
  if (!locale.in_force()) return ENOMEM;
  regex_t fresh;
  const int rc = regcomp(&fresh, "^[a-z0-9A-Z][-_.:a-z0-9A-Z]*$", REG_EXTENDED);
  if (rc != 0) return static_cast<uint32_t>(rc);
  if (name_regex_compiled) regfree(&es_acl_name_regex);
  es_acl_name_regex = fresh;
  name_regex_compiled = true;
  return 0;
}

uint32_t init_debug(void* ctx) {
  if (es_acl_dll_event_type != nullptr) return 0;
  return acl_debug_init(&es_acl_dll_event_type, ctx, "/debug/es_acl_dll/", kDebugCategories);
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_db_owner_clib_init(void* ctx) {
  if (ctx == nullptr) return EINVAL;
  uint32_t rc = init_store_mutex();
  if (rc != 0) return rc;
  rc = open_traces();
  if (rc != 0) return rc;
  rc = init_debug(ctx);
  if (rc != 0) {
    trace(__func__, "acl_debug_init failed", rc);
    return rc;
  }
  rc = compile_name_pattern();
  if (rc != 0) {
    DBG_ERR("%s: regcomp failed", __func__);
    trace(__func__, "regcomp failed", rc);
    return rc;
  }
  rc = es_acl_use_db_dll(es_acl_db_dll_name);
  if (rc != 0) {
    DBG_ERR("%s: Could not Load DB DLL", __func__);
    trace(__func__, "store plug-in not loaded", rc);
    return rc;
  }
  rc = es_acl_apis->init(ctx);
  if (rc != 0) {
    DBG_ERR("%s: Could not initialize DB DLL apis", __func__);
    trace(__func__, "store init failed", rc);
    return rc;
  }
  es_acl_lib_ctx = ctx;
  DBG_INFO("%s: Initialized (owner) successfully", __func__);
  _rlog_1(es_acl_rlog_u_ctx, __func__, "initialised", 0);
  return 0;
}

namespace es_acl {
namespace {

// The channel is a convenience of the operator's: initialisation goes on without it.
void open_reporting_channel(const char* operation, const char* process_name) {
  const uint32_t rc = acl_client_relay_init("es-acl", process_name, &acl_client_relay_hdl,
                                            &acl_client_err_relay_hdl, &acl_client_relay_hist_hdl);
  if (rc != 0)
    DBG_ERR("%s: init RELAY failed with error %d:%s", operation, static_cast<int>(rc), errcode_string(rc));
}

uint32_t init_client(const char* operation, void* ctx) {
  uint32_t rc = es_acl_db_owner_clib_init(ctx);
  if (rc != 0) {
    DBG_ERR("%s: Failed to initialize mgr_clib: %s", operation, errcode_string(rc));
    return rc;
  }
  char process_name[128] = "es client lib";
  uint32_t length = sizeof process_name;
  procmgr_get_procname(process_name, &length);
  open_reporting_channel(operation, process_name);
  rc = es_acl_pcx_consumer_init(ctx, &es_acl_classhandle, 1);
  if (rc != 0) {
    DBG_ERR("%s: Failed to initialize PCX: %s", operation, errcode_string(rc));
    trace(operation, "bus not initialised", rc);
  }
  return rc;
}

}  // namespace
}  // namespace es_acl

es_acl_status es_acl_clib_init(void* ctx) {
  if (ctx == nullptr) return EINVAL;
  if (es_acl_clib_initialised.load(std::memory_order_relaxed) == 0) {
    const uint32_t rc = init_client(__func__, ctx);
    if (rc != 0) return rc;
  }
  es_acl_clib_initialised.store(1, std::memory_order_relaxed);
  DBG_INFO("%s: Initialized clib successfully", __func__);
  return 0;
}

rlog_ctx* es_acl_rlog_w_ctx_get() { return es_acl_rlog_w_ctx; }

rlog_ctx* es_acl_rlog_u_ctx_get() { return es_acl_rlog_u_ctx; }

debug_category* es_acl_debug_get_event_handle() { return es_acl_dll_event_type; }
