/* The consumer's side of the bus protocol: what the retrieval operations are made of. A client needs none of
 * it. */
#ifndef ES_ACL_CPCX_H_
#define ES_ACL_CPCX_H_

#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"

ES_ACL_BEGIN_DECLS

/* Rules pool, name service, bus and class. After a success, further calls return 0 and write nothing. *class_handle
 * is written as soon as the class exists. `flag` is not used. Once, early, on one thread; may block for four seconds. */
ES_ACL_API es_acl_status es_acl_pcx_consumer_init(void* ctx, uint32_t* class_handle, uint32_t flag);

/* See es_acl_get_ace_count(). Blocks; any client thread. 22: null arguments, or an answer of a wrong size; 12;
 * ES_ACL_E_ANSWER_VERSION; else what the name service or the bus said. */
ES_ACL_API es_acl_status es_acl_cpcx_query_acl_count(const char* acl_name, uint32_t* num_aces,
                                                     uint32_t* num_remark_aces);

/* Fills a registered, empty head from the producer. 0 also when there is no producer or the head has ACEs already.
 * ACEs stored before a failure stay in the head, except where an ACE record could not be had or the store refused an
 * ACE: then the head itself has been released, and the status is 12. The batch's buffer and the bus may give 12 too,
 * and leave the head: whoever must tell them apart uses es_acl_get_acl(). Blocks. */
ES_ACL_API es_acl_status es_acl_cpcx_read_acl(es_acl_head* head);

/* Takes everything that the producer sends; registered with the bus for each ACL. Runs on the delivery
 * thread, one message at a time. This release tells message types apart and logs them: it reads no payload and
 * sets no response, so that a synchronous request gets none. */
ES_ACL_API void es_acl_cpcx_handler(uint64_t context, uint32_t mtype, void* payload, uint32_t length,
                                    void** response, uint32_t* response_length);

ES_ACL_END_DECLS

#endif /* ES_ACL_CPCX_H_ */
