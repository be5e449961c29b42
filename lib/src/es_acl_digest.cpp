// The digest of this process's copy of an ACL, as of the inquiry's place among the pushed changes.
//
// Runs on the delivery thread: what was pushed before has been applied, what comes behind has not. The walk takes no lock,
// so the client's own threads are not held up; a change that they make meanwhile may be in the digest or not.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "es_acl/es_acl.h"
#include "es_acl/es_acl_digest.h"
#include "es_acl/es_acl_store.h"
#include "es_acl/es_acl_sync.h"
#include "es_acl_digest_private.h"
#include "es_acl_gate.h"
#include "es_acl_refusal.h"
#include "es_acl_sync_private.h"

namespace es_acl {
namespace {

constexpr char kInquiry[] = "es_acl_inquiry";

bool refuse(const char* name, const char* why, uint64_t value) {
  return refuse_acl(kInquiry, name, why, value, EINVAL) == 0;
}

bool asks_for_digest(const char* name, const void* question, uint32_t length) {
  es_acl_pcx_digest_req request;
  if (length != sizeof request) return refuse(name, "question of a wrong length", length);
  std::memcpy(&request, question, sizeof request);
  es_acl_wire_digest_req_order(&request);
  if (request.cmd != ES_ACL_PCX_DIGEST) return refuse(name, "unknown question", request.cmd);
  if (request.ver != ES_ACL_PCX_VERSION) return refuse(name, "question of a wrong version", request.ver);
  return true;
}

void digest_of(es_acl_head* head, es_acl_pcx_digest_resp* copy) {
  es_acl_digest digest;
  es_acl_digest_begin(&digest);
  for (es_acl_ace_node* node = es_get_first_ace(head); node != nullptr; node = es_get_next_ace(head, node)) {
    const es_acl_ace* const ace = es_get_ace_data(head, node);
    if (ace == nullptr) break;
    es_acl_digest_add_host(&digest, ace);
    ++copy->num_aces;
  }
  es_acl_wire_set_digest(copy->digest, es_acl_digest_end(&digest));
}

// What is being filled or has been let go of stays as it is: there is nothing to compare.
void look(const char* name, es_acl_pcx_digest_resp* copy) {
  const AclUse use(name, AclUse::Look());
  if (use.kept() || use.leaving()) return;
  es_acl_head* const head = es_acl_lookup_internal(name);
  Form form = Form::whole;
  if (head == nullptr || !sync_look(name, &copy->state, &form)) return;
  copy->rules_only = form == Form::rules ? 1 : 0;
  digest_of(head, copy);
}

}  // namespace

void answer_inquiry(const char* name, void* question, uint32_t length, void** response,
                    uint32_t* response_length) {
  if (!asks_for_digest(name, question, length)) return;
  auto* const copy = static_cast<es_acl_pcx_digest_resp*>(std::calloc(1, sizeof(es_acl_pcx_digest_resp)));
  if (copy == nullptr) {
    refuse(name, "no memory for an answer", ENOMEM);
    return;
  }
  copy->ver = ES_ACL_PCX_VERSION;
  copy->state = ES_ACL_READING;
  look(name, copy);
  trace_name(kInquiry, "digest", name, es_acl_wire_digest(copy->digest), copy->state);
  es_acl_wire_digest_resp_order(copy);
  *response = copy;
  *response_length = sizeof *copy;
}

}  // namespace es_acl
