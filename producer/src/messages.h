// The messages that the producer sends of its own accord, and the answers to its questions, in wire byte order.
#ifndef ES_ACL_PRODUCER_MESSAGES_H_
#define ES_ACL_PRODUCER_MESSAGES_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "difference.h"

namespace es_acl::producer {

std::vector<std::byte> reseq_message(const std::string& acl_name, const Resequencing& series);

// Does this consumer use the ACL?
std::vector<std::byte> usage_question(const std::string& acl_name);

// Tells one resource question from another. A consumer lets go of what it holds under one origin when it is asked
// under the same origin with another number.
struct QuestionKey {
  uint16_t origin;
  uint16_t number;
};

// The candidates, to be held by the consumer.
std::vector<std::byte> held_question(const std::string& acl_name, QuestionKey key,
                                     std::span<const AceRecord> candidates);
// Is there room for the candidates that are held under the key?
std::vector<std::byte> resource_check(const std::string& acl_name, QuestionKey key);
// Let go of them; `release`: and of what has been set aside for them.
std::vector<std::byte> resource_withdrawal(const std::string& acl_name, QuestionKey key, bool release);

// What does this consumer have of the ACL to which the question is addressed?
std::vector<std::byte> digest_question();

// A consumer's answer, in host byte order and with its texts terminated; nothing when it is not one.
std::optional<acl_pcx_cons_resp> parse_answer(std::span<const std::byte> bytes);

}  // namespace es_acl::producer

#endif  // ES_ACL_PRODUCER_MESSAGES_H_
