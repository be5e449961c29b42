// What `es-acl watch` tells: one event, as people read it or as one line of JSON. Pure functions.
//
// An event points into what a callback was shown and lives no longer than that call.
#ifndef ES_ACL_TOOLS_EVENT_H_
#define ES_ACL_TOOLS_EVENT_H_

#include <chrono>
#include <span>
#include <string>
#include <variant>

#include "client.h"

namespace es_acl::tool {

using Moment = std::chrono::system_clock::time_point;
using Batch = std::span<const ace_edit_info>;

struct Held {
  const char* acl;
  Counts counts;
};

// About to happen.
struct Update {
  const char* acl;
  uint32_t action;  // ACL_ADD_ACE or ACL_REMOVE_ACE
  Batch batch;
};

struct Resequencing {
  const char* acl;
  uint32_t start;
  uint32_t step;
  std::span<const uint32_t> skipped;
};

struct ResourceQuestion {
  const char* acl;
  Batch batch;
  bool withdrawn;
  uint64_t entries;  // that the ACL would hold
  uint32_t answer;   // 0 or a status
};

struct UsageQuestion {
  uint32_t answer;  // 1 for yes
};

// The deferred notice.
struct Changed {
  const char* acl;
  Counts counts;
};

// Whether the copy is the producer's list is another thing now.
struct Sync {
  const char* acl;
  uint32_t state;  // ES_ACL_IN_STEP, ...
};

struct Unavailable {
  const char* acl;  // null: nothing at all can be had
  const Problem& problem;
};

using Event =
    std::variant<Held, Update, Resequencing, ResourceQuestion, UsageQuestion, Changed, Sync, Unavailable>;

// One line, and an indented one for each entry of a batch. The time is the local time of day.
void append_text(std::string& out, const Event& event, Moment moment, bool colour);
// One line, one object; docs/es-acl.md describes it.
void append_json(std::string& out, const Event& event, Moment moment);

}  // namespace es_acl::tool

#endif  // ES_ACL_TOOLS_EVENT_H_
