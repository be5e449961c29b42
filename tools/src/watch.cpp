// Two threads meet here. The bus's delivery thread calls the callbacks. This one fetches the ACLs, and calls the
// callbacks for what was pushed meanwhile; then it runs the event manager, and so calls the deferred notices.
// Whichever tells an event has it formatted and written under one mutex. Nothing of the library is called with
// the mutex held, so a release that waits for a callback cannot wait for itself.
#include "watch.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <mutex>

#include "commands.h"
#include "entry_text.h"
#include "es_acl/es_acl_callback.h"
#include "es_acl/es_acl_sync.h"
#include "es_platform/diag.h"
#include "event.h"
#include "stop.h"

namespace es_acl::tool {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Writes events, each at once and whole, until it is closed. Any thread.
class Teller {
 public:
  Teller(const Options& options, Output& out)
      : out_(out),
        json_(options.json),
        colour_(!options.json && colour_wanted()),
        left_(options.watch.count) {}

  // Something that is not counted.
  void tell(const Event& event) { write(event, false); }
  // The last event that was asked for, a failed write and a lack of memory end the watch.
  void happened(const Event& event) noexcept { write(event, true); }

  // Nothing is written afterwards. Throws what went wrong while telling. Whether all events were told.
  bool close();

 private:
  void write(const Event& event, bool counted) noexcept;
  void put(const Event& event);
  void end() {
    open_ = false;
    request_stop();
  }

  std::mutex mutex_;
  Output& out_;
  const bool json_;
  const bool colour_;
  bool open_ = true;
  uint64_t left_;  // events still to be told; 0 from the beginning: without end
  std::string line_;
  std::exception_ptr failure_;
};

void Teller::put(const Event& event) {
  const Moment now = std::chrono::system_clock::now();
  line_.clear();
  if (json_)
    append_json(line_, event, now);
  else
    append_text(line_, event, now, colour_);
  out_.put(line_);
  out_.flush();
}

void Teller::write(const Event& event, bool counted) noexcept {
  const std::lock_guard lock(mutex_);
  if (!open_) return;
  try {
    put(event);
  } catch (...) {
    failure_ = std::current_exception();
    end();
  }
  if (out_.failed()) end();
  if (counted && left_ != 0 && --left_ == 0) end();
}

bool Teller::close() {
  const std::lock_guard lock(mutex_);
  open_ = false;
  if (failure_ != nullptr) std::rethrow_exception(failure_);
  return left_ == 0;
}

// --- Callbacks. Two of the six kinds have no context that could hold a pointer, so what they use stands
// here. It is never destroyed: one may still be running when everything has been given back. ---

struct Watch {
  const Options options;
  Teller teller;
};
Watch* current;

uint32_t on_update(es_acl_head* acl, uint32_t action, uint32_t n, const ace_edit_info* batch, void*) {
  current->teller.happened(Update{es_acl_get_acl_name(acl), action, {batch, n}});
  return 0;
}

uint32_t on_resequence(es_acl_head* acl, uint32_t start, uint32_t step, uint32_t skips, const uint32_t* skip,
                       void*) {
  current->teller.happened(Resequencing{es_acl_get_acl_name(acl), start, step, {skip, skips}});
  return 0;
}

uint32_t on_resources(es_acl_head* acl, uint32_t n, const ace_edit_info* batch, int32_t cancel, void*) {
  const auto additional =
      std::count_if(batch, batch + n, [](const ace_edit_info& edit) { return edit.is_new != 0; });
  const uint64_t entries = count_entries(acl).aces + static_cast<uint64_t>(additional);
  const auto& limit = current->options.watch.refuse_above;
  const uint32_t answer = cancel == 0 && limit && entries > *limit ? ENOSPC : 0;
  current->teller.happened(
      ResourceQuestion{es_acl_get_acl_name(acl), {batch, n}, cancel != 0, entries, answer});
  return answer;
}

uint32_t on_usage() {
  const uint32_t answer = current->options.watch.in_use ? 1 : 0;
  current->teller.happened(UsageQuestion{answer});
  return answer;
}

void on_change(es_acl_head* acl, uint32_t) {
  current->teller.happened(Changed{es_acl_get_acl_name(acl), count_entries(acl)});
}

void on_sync(es_acl_head* acl, uint32_t state, void*) {
  current->teller.happened(Sync{es_acl_get_acl_name(acl), state});
}

es_acl_status register_callbacks() {
  es_acl_status status = es_acl_register_update_callback(on_update, nullptr);
  if (status == 0) status = es_acl_register_resequence_callback(on_resequence, nullptr);
  if (status == 0) status = es_acl_register_res_check_callback(on_resources, nullptr);
  if (status == 0) status = es_acl_register_check_usage_callback(on_usage);
  if (status == 0) status = es_acl_register_sync_callback(on_sync, nullptr);
  return status;
}

void unregister_callbacks() {
  es_acl_unregister_sync_callback(on_sync, nullptr);
  es_acl_unregister_check_usage_callback(on_usage);
  es_acl_unregister_res_check_callback(on_resources, nullptr);
  es_acl_unregister_resequence_callback(on_resequence, nullptr);
  es_acl_unregister_update_callback(on_update, nullptr);
}

struct DropNotices {
  void operator()(es_acl_head* acl) const {
    es_acl_unregister_callback(acl, on_change, 0);
    ReleaseAcl()(acl);
  }
};
// An ACL that is held, with its deferred notices.
using WatchedAcl = std::unique_ptr<es_acl_head, DropNotices>;

Problem not_registered(es_acl_status status) {
  return {State::kFailed, status, std::string("a callback cannot be registered: ") + errcode_string(status)};
}

void tell_problem(const std::string& name, const Problem& problem) {
  complain(name, problem);
  if (current->options.json)
    current->teller.tell(Unavailable{name.empty() ? nullptr : name.c_str(), problem});
}

Result<WatchedAcl> hold(Result<Acl> result) {
  if (const Problem* problem = std::get_if<Problem>(&result)) return *problem;
  Acl& acl = std::get<Acl>(result);
  const es_acl_status status = es_acl_register_callback(acl.head(), on_change, 0);
  if (status != 0) return not_registered(status);
  current->teller.tell(Held{es_acl_get_acl_name(acl.head()), count_entries(acl)});
  return WatchedAcl(acl.handle.release());
}

// What poll() is to wait: to the end of the time, or without end.
int remaining(const std::optional<steady_clock::time_point>& deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<milliseconds>(*deadline - steady_clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT32_MAX));
}

// Until a stop is requested, the reader of the output is gone, or the time is over; whether it was the time.
bool run(evm* events, const std::optional<double>& seconds) {
  std::optional<steady_clock::time_point> deadline;
  if (seconds)
    deadline =
        steady_clock::now() + std::chrono::round<milliseconds>(std::chrono::duration<double>(*seconds));
  pollfd wanted[] = {{evm_fd(events), POLLIN, 0}, {stop_descriptor(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
  for (;;) {
    const int ready = poll(wanted, std::size(wanted), remaining(deadline));
    if (ready == 0) return true;
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || wanted[1].revents != 0 || wanted[2].revents != 0) return false;
    evm_dispatch(events, 0);
  }
}

std::vector<WatchedAcl> hold_all(const Options& options, Client& client, Failures* failures) {
  std::vector<WatchedAcl> acls;
  client.get_all(options.names, [&](const std::string& name, Result<Acl> acl) {
    Result<WatchedAcl> result = hold(std::move(acl));
    if (const Problem* problem = std::get_if<Problem>(&result)) {
      failures->note(*problem);
      tell_problem(name, *problem);
    } else {
      acls.push_back(std::move(std::get<WatchedAcl>(result)));
    }
    return !stop_requested();
  });
  return acls;
}

}  // namespace

int watch(const Options& options, Client& client, Output& out) {
  prepare_stop();
  current = new Watch{options, Teller(options, out)};
  es_acl_set_modify_mode(options.watch.modify_mode);
  if (const es_acl_status status = register_callbacks(); status != 0) {
    tell_problem("", not_registered(status));
    return kExitNotInitialised;
  }
  Failures failures;
  const auto acls = hold_all(options, client, &failures);
  const bool time_over = !acls.empty() && run(client.events(), options.watch.timeout);
  const bool complete = current->teller.close();
  unregister_callbacks();
  return time_over && !complete ? kExitTimedOut : failures.exit_code();
}

void tell_failed_watch(const Options& options, const Problem& problem, Output& out) {
  complain("", problem);
  if (!options.json) return;
  std::string line;
  append_json(line, Unavailable{nullptr, problem}, std::chrono::system_clock::now());
  out.put(line);
}

}  // namespace es_acl::tool
