#include <cstdio>
#include <ctime>

#include "entry_json.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_sync.h"
#include "event.h"

namespace es_acl::tool {

namespace {

using std::chrono::microseconds;

std::string timestamp(Moment moment) {
  const auto since_epoch = std::chrono::floor<microseconds>(moment.time_since_epoch());
  const time_t seconds = std::chrono::floor<std::chrono::seconds>(since_epoch).count();
  tm parts;
  gmtime_r(&seconds, &parts);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%06dZ",
                static_cast<int>(since_epoch.count() % 1000000));
  return text;
}

void put_change(std::string& out, uint32_t sequence, const es_acl_ace* old_ace, const es_acl_ace* new_ace) {
  Members change(out);
  change.number("sequence", sequence);
  if (old_ace != nullptr) put_ace(change.name("old"), *old_ace);
  if (new_ace != nullptr) put_ace(change.name("new"), *new_ace);
  change.end();
}

// Calls put(element) for each, with what an array has around and between them.
template <typename Elements, typename Put>
void put_array(std::string& out, const Elements& elements, Put put) {
  const char* separator = "[";
  for (const auto& element : elements) {
    out += separator;
    separator = ",";
    put(element);
  }
  out += *separator == '[' ? "[]" : "]";
}

class Json {
 public:
  Json(std::string& out, Moment moment) : out_(out), members_(out), moment_(moment) {}

  void operator()(const Held& held) {
    begin("held", held.acl);
    put_counts(members_, held.counts);
  }

  void operator()(const Update& update) {
    const bool removal = update.action == ACL_REMOVE_ACE;
    begin(removal ? "remove" : "add", update.acl);
    changes(update.batch, removal);
  }

  void operator()(const Resequencing& resequencing) {
    begin("resequence", resequencing.acl);
    members_.number("start", resequencing.start);
    members_.number("step", resequencing.step);
    put_array(members_.name("skip"), resequencing.skipped,
              [&](uint32_t number) { append_number(out_, number); });
  }

  void operator()(const ResourceQuestion& question) {
    begin(question.withdrawn ? "resources-withdrawn" : "resources", question.acl);
    if (!question.withdrawn) {
      append_number(members_.name("entries"), question.entries);
      members_.number("answer", question.answer);
    }
    changes(question.batch, false);
  }

  void operator()(const UsageQuestion& question) {
    begin("usage", nullptr);
    members_.number("answer", question.answer);
  }

  void operator()(const Changed& changed) {
    begin("changed", changed.acl);
    put_counts(members_, changed.counts);
  }

  void operator()(const Sync& sync) {
    begin("sync", sync.acl);
    members_.word("state", sync.state == ES_ACL_IN_STEP       ? "in-step"
                           : sync.state == ES_ACL_CATCHING_UP ? "catching-up"
                                                              : "out-of-touch");
  }

  void operator()(const Unavailable& unavailable) {
    begin(unavailable.acl != nullptr ? "unavailable" : "error", unavailable.acl);
    members_.word("state", state_name(unavailable.problem.state));
    members_.number("status", unavailable.problem.status);
    members_.name("text") += quoted(unavailable.problem.text);
  }

  void end() {
    members_.end();
    out_ += '\n';
  }

 private:
  void begin(const char* event, const char* acl) {
    members_.word("event", event);
    members_.word("time", timestamp(moment_).c_str());
    if (acl != nullptr) members_.name("acl") += quoted(acl);
  }

  void changes(Batch batch, bool removal) {
    put_array(members_.name("changes"), batch, [&](const ace_edit_info& edit) {
      if (removal)
        put_change(out_, edit.seq, edit.ace, nullptr);
      else
        put_change(out_, edit.seq, edit.old_ace, edit.ace);
    });
  }

  std::string& out_;
  Members members_;
  const Moment moment_;
};

}  // namespace

void append_json(std::string& out, const Event& event, Moment moment) {
  Json json(out, moment);
  std::visit(json, event);
  json.end();
}

}  // namespace es_acl::tool
