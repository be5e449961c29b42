#include "messages.h"

#include <algorithm>
#include <cstring>

#include "es_acl/es_acl_digest.h"

namespace es_acl::producer {
namespace {

template <typename Header, typename Element = std::byte>
std::vector<std::byte> join(const Header& header, std::span<const Element> rest = {}) {
  std::vector<std::byte> message(sizeof header + rest.size_bytes());
  std::memcpy(message.data(), &header, sizeof header);
  if (!rest.empty()) std::memcpy(message.data() + sizeof header, rest.data(), rest.size_bytes());
  return message;
}

es_acl_pcx_res_query_req resource_header(uint32_t command, const std::string& acl_name, QuestionKey key) {
  es_acl_pcx_res_query_req header{};
  header.cmd = command;
  header.ver = ES_ACL_PCX_VERSION;
  header.req_origin = key.origin;
  header.req_num = key.number;
  es_acl_wire_set_name(header.acl_name, acl_name.c_str());
  return header;
}

}  // namespace

std::vector<std::byte> reseq_message(const std::string& acl_name, const Resequencing& series) {
  acl_pcx_reseq header{};
  header.cmd = ACL_PCX_RESEQ;
  header.ver = ES_ACL_PCX_VERSION;
  es_acl_wire_set_name(header.acl_name, acl_name.c_str());
  header.start_seq = series.start;
  header.step = series.step;
  header.num_skip_seqs = static_cast<uint32_t>(series.skip.size());
  es_acl_wire_reseq_order(&header);
  std::vector<uint32_t> skip = series.skip;
  std::ranges::transform(skip, skip.begin(), es_acl_wire_32);
  return join(header, std::span<const uint32_t>(skip));
}

std::vector<std::byte> usage_question(const std::string& acl_name) {
  acl_pcx_cons_req question{ACL_PCX_QUERY_CONS, ES_ACL_PCX_VERSION, {}, {}};
  es_acl_wire_set_name(question.acl_name, acl_name.c_str());
  es_acl_wire_cons_req_order(&question);
  return join(question);
}

std::vector<std::byte> held_question(const std::string& acl_name, QuestionKey key,
                                     std::span<const AceRecord> candidates) {
  es_acl_pcx_res_query_req header = resource_header(ACL_PCX_QUERY_RES_AVAIL, acl_name, key);
  header.num_aces = static_cast<uint32_t>(candidates.size());
  es_acl_wire_res_query_req_order(&header);
  return join(header, candidates);
}

std::vector<std::byte> resource_check(const std::string& acl_name, QuestionKey key) {
  es_acl_pcx_res_query_req header = resource_header(ACL_PCX_QUERY_RES_AVAIL, acl_name, key);
  es_acl_wire_res_query_req_order(&header);
  return join(header);
}

std::vector<std::byte> resource_withdrawal(const std::string& acl_name, QuestionKey key, bool release) {
  es_acl_pcx_res_query_req header = resource_header(ACL_PCX_CANCEL_QUERY_RES_AVAIL, acl_name, key);
  header.res_state = release ? 1 : 0;
  es_acl_wire_res_query_req_order(&header);
  return join(header);
}

std::vector<std::byte> digest_question() {
  es_acl_pcx_digest_req question{ES_ACL_PCX_DIGEST, ES_ACL_PCX_VERSION};
  es_acl_wire_digest_req_order(&question);
  return join(question);
}

std::optional<acl_pcx_cons_resp> parse_answer(std::span<const std::byte> bytes) {
  acl_pcx_cons_resp answer;
  if (bytes.size() != sizeof answer) return std::nullopt;
  std::memcpy(&answer, bytes.data(), sizeof answer);
  es_acl_wire_cons_resp_order(&answer);
  if (answer.ver != ACL_PCX_CONS_RESP_VERSION) return std::nullopt;
  answer.proc_name[sizeof answer.proc_name - 1] = '\0';
  answer.node_name[sizeof answer.node_name - 1] = '\0';
  return answer;
}

}  // namespace es_acl::producer
