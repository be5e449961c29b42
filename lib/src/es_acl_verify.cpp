// Asking the producer who has what of an ACL.
//
// The request goes out under a name handle of its own, which is never registered as a consumer: whether the caller holds
// the ACL makes no difference. The producer does not keep a request waiting while it asks its clients, so it is asked again
// until it has the answer.
#include "es_acl/es_acl_verify.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_sync.h"
#include "es_acl_buffer.h"
#include "es_acl_refusal.h"
#include "es_acl_state.h"
#include "es_platform/dsv.h"
#include "es_platform/pcx.h"

namespace es_acl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint32_t kRoom = 1 << 20;  // for an answer: some 6700 clients
constexpr uint32_t kLongestDeadlineMs = 60000;
constexpr milliseconds kGrace{2000};  // that an answer may be late, before "busy" is believed
constexpr milliseconds kFirstPause{1}, kLongestPause{50};

// A handle of the name's for the time of the call.
class NameHandle {
 public:
  explicit NameHandle(const char* name) : status_(dsv_register(es_acl_dsv_class, name, &handle_)) {}
  ~NameHandle() {
    if (status_ == 0) pcx_unregister(handle_);
  }
  NameHandle(const NameHandle&) = delete;
  NameHandle& operator=(const NameHandle&) = delete;

  uint32_t status() const { return status_; }
  void* get() const { return handle_; }

 private:
  void* handle_ = nullptr;
  const uint32_t status_;
};

void pause_for(milliseconds pause) {
  const timespec time = {0, static_cast<long>(std::chrono::nanoseconds(pause).count())};
  nanosleep(&time, nullptr);
}

uint32_t ask(void* handle, const char* name, uint32_t deadline_ms, char* answer, uint32_t* length) {
  es_acl_pcx_verify_req request = {};
  request.cmd = ES_ACL_PCX_VERIFY;
  request.ver = ES_ACL_PCX_VERSION;
  es_acl_wire_set_name(request.acl_name, name);
  request.deadline_ms = deadline_ms;
  es_acl_wire_verify_req_order(&request);
  const auto end = Clock::now() + milliseconds(deadline_ms) + kGrace;
  milliseconds pause = kFirstPause;
  for (;;) {
    *length = kRoom;
    const uint32_t rc = pcx_read(handle, &request, sizeof request, answer, length);
    if (rc != EAGAIN || Clock::now() >= end) return rc;
    pause_for(pause);
    pause = std::min(2 * pause, kLongestPause);
  }
}

// An answer, in host byte order.
struct Answer {
  es_acl_pcx_verify_resp* producer;
  es_acl_pcx_verify_client* clients;

  es_acl_pcx_verify_client* begin() const { return clients; }
  es_acl_pcx_verify_client* end() const { return clients + producer->num_clients; }
};

uint32_t refuse(const char* name, const char* why, uint64_t value, uint32_t status) {
  return refuse_acl("es_acl_verify", name, why, value, status);
}

uint32_t convert(const char* name, char* bytes, uint32_t length, Answer* answer) {
  answer->producer = reinterpret_cast<es_acl_pcx_verify_resp*>(bytes);
  answer->clients = reinterpret_cast<es_acl_pcx_verify_client*>(bytes + sizeof *answer->producer);
  if (length < sizeof *answer->producer) return refuse(name, "answer of a wrong length", length, EINVAL);
  es_acl_wire_verify_resp_order(answer->producer);
  const auto& producer = *answer->producer;
  if (producer.ver != ES_ACL_PCX_VERSION)
    return refuse(name, "answer of a wrong version", producer.ver, ES_ACL_E_ANSWER_VERSION);
  if (length != sizeof producer + uint64_t{producer.num_clients} * sizeof(es_acl_pcx_verify_client))
    return refuse(name, "answer of a wrong length", length, EINVAL);
  for (es_acl_pcx_verify_client& client : *answer) es_acl_wire_verify_client_order(&client);
  std::sort(answer->begin(), answer->end(), [](const auto& a, const auto& b) { return a.pid < b.pid; });
  return 0;
}

es_acl_list_info producer_list(const es_acl_pcx_verify_resp& producer, uint32_t rules_only) {
  es_acl_list_info list = {};
  list.state = ES_ACL_IN_STEP;
  list.num_aces = producer.num_aces - (rules_only != 0 ? producer.num_remark_aces : 0);
  list.rules_only = rules_only;
  list.digest = es_acl_wire_digest(rules_only != 0 ? producer.rules_digest : producer.digest);
  list.equal = 1;
  return list;
}

es_acl_list_info client_list(const es_acl_pcx_verify_resp& producer, const es_acl_pcx_verify_client& client) {
  const es_acl_pcx_digest_resp& copy = client.copy;
  const es_acl_list_info wanted = producer_list(producer, copy.rules_only);
  es_acl_list_info list = {};
  list.pid = client.pid;
  list.state = copy.state;
  list.num_aces = copy.num_aces;
  list.rules_only = copy.rules_only;
  list.digest = es_acl_wire_digest(copy.digest);
  list.equal =
      copy.state < ES_ACL_READING && list.num_aces == wanted.num_aces && list.digest == wanted.digest;
  std::memcpy(list.program, client.proc_name, sizeof list.program - 1);
  return list;
}

void tell(const Answer& answer, es_acl_list_cb visit, void* context) {
  const auto tell_one = [&](const es_acl_list_info& list) { visit(&list, context); };
  const es_acl_pcx_verify_resp& producer = *answer.producer;
  const auto rules_only = [](const auto& client) { return client.copy.rules_only != 0; };
  tell_one(producer_list(producer, 0));
  if (producer.num_remark_aces != 0 && std::any_of(answer.begin(), answer.end(), rules_only))
    tell_one(producer_list(producer, 1));
  for (const es_acl_pcx_verify_client& client : answer) tell_one(client_list(producer, client));
}

}  // namespace
}  // namespace es_acl

using namespace es_acl;

es_acl_status es_acl_verify(const char* name, uint32_t deadline_ms, es_acl_list_cb visit, void* context) {
  DBG_INFO("Entering %s: acl name: %s", __func__, shown(name));
  if (name == nullptr || visit == nullptr || es_acl_dsv_class == 0) return EINVAL;
  uint32_t rc = es_acl_check_acl_name(name);
  if (rc != 0) return rc;
  const NameHandle handle(name);
  const Buffer<char> bytes = uninitialised<char>(kRoom);
  if (handle.status() != 0 || bytes == nullptr) return handle.status() != 0 ? handle.status() : ENOMEM;
  uint32_t length = 0;
  rc = ask(handle.get(), name, std::min(deadline_ms, kLongestDeadlineMs), bytes.get(), &length);
  if (rc != 0) return refuse(name, "no answer", rc, rc);
  Answer answer;
  rc = convert(name, bytes.get(), length, &answer);
  if (rc == 0) tell(answer, visit, context);
  return rc;
}
