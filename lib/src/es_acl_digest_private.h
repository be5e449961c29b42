// Answering what the producer asks about this process's copies beside its messages.
#ifndef ES_ACL_SRC_DIGEST_PRIVATE_H_
#define ES_ACL_SRC_DIGEST_PRIVATE_H_

#include <cstdint>

namespace es_acl {

// Handler of the bus's inquiries (es_platform/pcx.h).
void answer_inquiry(const char* name, void* question, uint32_t length, void** response,
                    uint32_t* response_length);

}  // namespace es_acl

#endif  // ES_ACL_SRC_DIGEST_PRIVATE_H_
