#include "bulk.h"

#include <cerrno>
#include <chrono>
#include <thread>

namespace es_acl::tool {

namespace {

// The pauses between them, 150 ms in all, outlast any change but an endless row of them.
constexpr int kTries = 5;
constexpr std::chrono::milliseconds kFirstPause{10};

// An ACL has changed after it was counted, and has another size than expected, or is larger than there is room for.
bool is_outdated(uint32_t status) { return status == EINVAL || status == EMSGSIZE; }

// One call. When it fails as a whole each name has its status, and nothing is held.
es_acl_status try_to_get(std::span<std::string> names, std::vector<BulkAnswer>* answers) {
  std::vector<void*> name_entries, acl_entries(names.size());
  for (std::string& name : names) name_entries.push_back(name.data());
  std::vector<uint32_t> results(names.size());
  const auto count = static_cast<uint32_t>(names.size());
  const es_acl_handle_list wanted = {count, name_entries.data()};
  es_acl_handle_list got = {count, acl_entries.data()};
  const es_acl_status status = es_acl_get_definition(&wanted, &got, results.data());
  answers->clear();
  for (size_t i = 0; i < names.size(); ++i) {
    AclHandle acl(static_cast<es_acl_head*>(acl_entries[i]));
    if (status != 0) acl.reset();
    answers->push_back({std::move(acl), status != 0 ? status : results[i]});
  }
  return status;
}

}  // namespace

std::vector<BulkAnswer> get_in_bulk(std::span<std::string> names) {
  std::vector<BulkAnswer> answers;
  answers.reserve(names.size());
  auto pause = kFirstPause;
  for (int tries = 1; is_outdated(try_to_get(names, &answers)) && tries < kTries; ++tries) {
    std::this_thread::sleep_for(pause);
    pause *= 2;
  }
  return answers;
}

bool asks_for_own_get(uint32_t status) { return status == ES_ACL_E_NO_RULES || is_outdated(status); }

}  // namespace es_acl::tool
