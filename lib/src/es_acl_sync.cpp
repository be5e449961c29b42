// How far each copy is from its producer's list, and the way back.
//
// The bus's link events drive it, on the delivery thread: LOST puts an ACL out of touch; RENEWED makes it catch up, unless
// it has been read behind that very connection. What fails, or is refused, is tried again by asking the bus for one more
// RENEWED, later and later. An ACL that another thread is just filling is that thread's: its fill notes the event.
//
// Pushes that arrive for a copy that is behind belong on top of a list that it does not have; they are dropped, since the
// next read shows what they would have done.
#include "es_acl/es_acl_sync.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>

#include "es_acl/es_acl_store.h"
#include "es_acl_cb_private.h"
#include "es_acl_diag.h"
#include "es_acl_gate.h"
#include "es_acl_state.h"
#include "es_acl_sync_private.h"
#include "es_platform/pcx.h"

namespace es_acl {
namespace {

constexpr char kSync[] = "es_acl_sync";
constexpr uint32_t kFirstRetryMs = 100, kLongestRetryMs = 5000, kPauseMs = 1000;

struct Record {
  es_acl_sync_info info = {};
  Form form = Form::whole;
  bool behind = false;      // it has missed something: what is pushed is not for this list
  uint64_t generation = 0;  // connection behind which the copy was read
  uint64_t as_of_ns = 0;    // the copy is not older than that, as info.since_ns
  uint32_t retry_ms = 0;
};

// So that a name is found without a copy of it.
struct Hash {
  using is_transparent = void;
  size_t operator()(std::string_view name) const { return std::hash<std::string_view>()(name); }
};

// Never destroyed: the delivery thread may be at work while the process ends.
struct Table {
  std::mutex mutex;
  std::unordered_map<std::string, Record, Hash, std::equal_to<>> records;
  std::atomic<uint32_t> behind = 0;  // how many of them

  static Table& instance() {
    static Table& table = *new Table;
    return table;
  }
  Record* find_locked(std::string_view name) {
    const auto found = records.find(name);
    return found != records.end() ? &found->second : nullptr;
  }
  void set_behind_locked(Record& record, bool is_behind) {
    if (record.behind != is_behind) is_behind ? ++behind : --behind;
    record.behind = is_behind;
  }
};

constinit CallbackRegistry sync_notify;

uint64_t wall_clock_ns() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

bool set_state_locked(Record& record, uint32_t state) {
  if (record.info.state == state) return false;
  record.info.state = state;
  record.info.since_ns = wall_clock_ns();
  return true;
}

void report(es_acl_head* head, uint32_t state) {
  trace_name(kSync, "state", head->name, state);
  list_registry* const registry = sync_notify.get();
  if (registry == nullptr) return;
  walk<es_acl_sync_cb>(
      registry, [](uint32_t) { return false; },
      [&](es_acl_sync_cb function, void* context) {
        function(head, state, context);
        return 0u;
      });
}

// Calls `change` with the ACL's record under the table's lock, and reports the state that it returns if that is another
// one. Does nothing without a record.
template <typename Change>
void change_record(es_acl_head* head, Change change) {
  Table& table = Table::instance();
  uint32_t state;
  bool is_new;
  {
    const std::lock_guard lock(table.mutex);
    Record* const record = table.find_locked(head->name);
    if (record == nullptr) return;
    state = change(table, *record);
    is_new = set_state_locked(*record, state);
  }
  if (is_new) report(head, state);
}

// When to try again. Later each time.
uint32_t next_retry(Record& record) {
  record.retry_ms = std::clamp(record.retry_ms * 2, kFirstRetryMs, kLongestRetryMs);
  return record.retry_ms;
}

// No answer came, or not in time.
bool is_silent(const CatchUp& result) { return result.status == ETIME && !result.refused; }

void settle(es_acl_head* head, const CatchUp& result) {
  uint32_t retry_ms = 0;
  change_record(head, [&](Table& table, Record& record) -> uint32_t {
    if (result.refused) ++record.info.refusals;
    if (result.status == 0 || result.refused) {
      record.generation = result.generation;
      table.set_behind_locked(record, false);
    }
    if (result.status != 0) {
      retry_ms = next_retry(record) + (is_silent(result) ? kPauseMs : 0);
      return result.status == ESRCH && !result.refused ? ES_ACL_OUT_OF_TOUCH : ES_ACL_CATCHING_UP;
    }
    record.retry_ms = 0;
    record.as_of_ns = result.as_of_ns;
    return ES_ACL_IN_STEP;
  });
  if (retry_ms != 0) pcx_renew_later(head->reg_handle, retry_ms);
}

// A producer that has just let a request run into its deadline is not asked for every other ACL at once: that would hold
// the delivery thread up for as many deadlines. The others come right after the pause, and the one that was asked for
// behind them: who is always slow does not keep others from their turn.
class Pause {
 public:
  // 0 when there is none.
  uint32_t left_ms() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now());
    return left.count() > 0 ? static_cast<uint32_t>(left.count()) : 0;
  }
  void begin() { end_ = Clock::now() + std::chrono::milliseconds(kPauseMs); }

 private:
  using Clock = std::chrono::steady_clock;

  Clock::time_point end_;
};
constinit Pause pause_of_producer;  // the delivery thread's

CatchUp catch_up_or_pause(es_acl_head* head, Form form) {
  const uint64_t begin_ns = wall_clock_ns();
  CatchUp result = catch_up(head, form, nullptr);
  result.as_of_ns = begin_ns;
  if (is_silent(result)) pause_of_producer.begin();
  return result;
}

void renewed(es_acl_head* head, uint64_t generation) {
  Form form = Form::whole;
  bool needed = false;
  change_record(head, [&](Table& table, Record& record) -> uint32_t {
    needed = record.generation != generation || record.info.state != ES_ACL_IN_STEP;
    if (!needed) return record.info.state;
    form = record.form;
    table.set_behind_locked(record, true);
    return ES_ACL_CATCHING_UP;
  });
  if (!needed) return;
  if (const uint32_t pause_ms = pause_of_producer.left_ms(); pause_ms != 0)
    pcx_renew_later(head->reg_handle, pause_ms);
  else
    settle(head, catch_up_or_pause(head, form));
}

void lost(es_acl_head* head) {
  change_record(head, [](Table&, Record&) -> uint32_t { return ES_ACL_OUT_OF_TOUCH; });
}

void diverged(es_acl_head* head, uint32_t refusals) {
  uint32_t retry_ms = 0;
  change_record(head, [&](Table&, Record& record) -> uint32_t {
    record.info.refusals += refusals;
    if (record.info.state != ES_ACL_IN_STEP) return record.info.state;  // it is being seen to already
    retry_ms = next_retry(record);
    return ES_ACL_CATCHING_UP;
  });
  if (retry_ms != 0) pcx_renew_later(head->reg_handle, retry_ms);
}

// An ACL that came to be in step has been heard of at that time.
void regard_silence(uint64_t as_of_ns, es_acl_sync_info* info) {
  constexpr uint64_t kMillisecond = 1000000;
  const uint64_t now = wall_clock_ns();
  const uint64_t silence_ns = std::min(pcx_silence_ms(es_acl_dsv_class) * kMillisecond, now - as_of_ns);
  if (silence_ns <= pcx_silence_limit_ms(es_acl_dsv_class) * kMillisecond) return;
  info->state = ES_ACL_OUT_OF_TOUCH;
  info->since_ns = now - silence_ns;
}

}  // namespace

es_acl_status sync_enter(es_acl_head* head, Form form, uint64_t generation) try {
  Table& table = Table::instance();
  const std::lock_guard lock(table.mutex);
  Record& record = table.records[head->name];
  table.set_behind_locked(record, false);
  record = {};
  record.form = form;
  record.generation = generation;
  record.info.state = generation != 0 ? ES_ACL_IN_STEP : ES_ACL_OUT_OF_TOUCH;
  record.info.since_ns = record.as_of_ns = wall_clock_ns();
  return 0;
} catch (const std::bad_alloc&) {
  DBG_ERR("%s: no memory for acl %s", kSync, head->name);
  return ENOMEM;
}

void sync_filled(es_acl_head* head, uint64_t generation, bool link_changed, bool link_lost) {
  if (link_lost) lost(head);
  if (head->reg_handle == nullptr) return;
  if (generation == 0)
    pcx_renew_later(head->reg_handle, kFirstRetryMs);
  else if (link_changed)
    pcx_renew_later(head->reg_handle, 0);
}

void sync_leave(const char* name) {
  Table& table = Table::instance();
  const std::lock_guard lock(table.mutex);
  const auto found = table.records.find(std::string_view(name));
  if (found == table.records.end()) return;
  table.set_behind_locked(found->second, false);
  table.records.erase(found);
}

void sync_refused(es_acl_head* head) { diverged(head, 1); }

void sync_missed(const char* name) {
  {
    Table& table = Table::instance();
    const std::lock_guard lock(table.mutex);
    if (table.find_locked(name) == nullptr) return;
  }
  if (es_acl_head* const head = es_acl_lookup_internal(name)) diverged(head, 0);
}

bool sync_takes_pushes(const char* name) {
  Table& table = Table::instance();
  if (table.behind.load(std::memory_order_relaxed) == 0) return true;
  const std::lock_guard lock(table.mutex);
  const Record* const record = table.find_locked(name);
  return record == nullptr || !record->behind;
}

bool sync_look(const char* name, uint32_t* state, Form* form) {
  Table& table = Table::instance();
  const std::lock_guard lock(table.mutex);
  const Record* const record = table.find_locked(name);
  if (record == nullptr) return false;
  *state = record->info.state;
  *form = record->form;
  return true;
}

void sync_link_changed(void*, const char* name, uint32_t event, uint64_t generation) {
  const AclUse use(name, AclUse::LinkEvent{event == PCX_LINK_LOST});
  if (use.kept() || use.leaving()) return;
  es_acl_head* const head = es_acl_lookup_internal(name);
  if (head == nullptr) return;
  if (event == PCX_LINK_RENEWED) renewed(head, generation);
  if (event == PCX_LINK_LOST) lost(head);
}

}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_get_sync_info(es_acl_head* acl, es_acl_sync_info* info) {
  if (acl == nullptr || info == nullptr) return EINVAL;
  Table& table = Table::instance();
  uint64_t as_of_ns = 0;
  {
    const std::lock_guard lock(table.mutex);
    const Record* const record = table.find_locked(acl->name);
    if (record == nullptr) return ES_ACL_E_NOT_FOUND;
    *info = record->info;
    as_of_ns = record->as_of_ns;
  }
  if (info->state == ES_ACL_IN_STEP) regard_silence(as_of_ns, info);
  return 0;
}

es_acl_status es_acl_register_sync_callback(es_acl_sync_cb function, void* context) {
  if (function == nullptr) return EINVAL;
  list_registry* const registry = sync_notify.get_or_create();
  if (registry == nullptr) return ENOMEM;
  return list_registry_add(registry, reinterpret_cast<list_registry_function>(function), context);
}

void es_acl_unregister_sync_callback(es_acl_sync_cb function, void* context) {
  if (list_registry* const registry = sync_notify.get())
    list_registry_delete(registry, reinterpret_cast<list_registry_function>(function), context);
}
