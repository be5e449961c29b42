// The client reporting channel: per component, two blocks of counters that other processes can read, and a
// history.
#include <cerrno>
#include <map>
#include <mutex>
#include <string>

#include "diag_file.h"
#include "es_platform/diag.h"
#include "es_platform/process.h"
#include "guard.h"

namespace {

constexpr uint32_t kHistoryRecords = 64;

struct channel {
  es_platform::counters_body* blocks = nullptr;
  rlog_ctx* history = nullptr;
};

// Never destroyed: the blocks live as long as the process.
struct open_channels {
  std::mutex mutex;
  std::map<std::string, channel> by_component;

  static open_channels& instance() {
    static open_channels& all = *new open_channels;
    return all;
  }
};

// Completes the channel; what a failed attempt had made stays for the next. 0, or an errno value.
uint32_t open_channel(channel& opened, const std::string& component, const char* process_name) {
  if (opened.blocks == nullptr) {
    opened.blocks = static_cast<es_platform::counters_body*>(
        es_platform::diag_region_new(es_platform::diag_kind::counters, component.c_str(), process_name,
                                     sizeof(es_platform::counters_body)));
    if (opened.blocks == nullptr) return ENOMEM;
  }
  if (opened.history != nullptr) return 0;
  return acl_rlog_init(component.c_str(), "_history", 0, kHistoryRecords, &opened.history);
}

}  // namespace

uint32_t acl_client_relay_init(const char* component, const char* process_name,
                               acl_client_relay_entry** main_block, acl_client_relay_entry** error_block,
                               void** history) {
  if (component == nullptr || process_name == nullptr) return EINVAL;
  if (main_block == nullptr || error_block == nullptr || history == nullptr) return EINVAL;
  return es_platform::guarded([&]() -> uint32_t {
    open_channels& all = open_channels::instance();
    const std::lock_guard lock(all.mutex);
    channel& opened = all.by_component[component];
    const uint32_t error = open_channel(opened, component, process_name);
    if (error != 0) return error;
    *main_block = opened.blocks->main;
    *error_block = opened.blocks->error;
    *history = opened.history;
    return 0;
  });
}
