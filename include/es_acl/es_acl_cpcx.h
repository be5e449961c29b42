/* The consumer's side of the bus protocol: what the retrieval operations are made of. A client needs none of
 * it. */
#ifndef ES_ACL_CPCX_H_
#define ES_ACL_CPCX_H_

#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"
#include "es_acl/es_acl_wire.h"

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

/* The same two for many ACLs, in messages of as many names as travel well in one (pcx_get_optimum_msg_size()). Arrays of
 * `count` elements: `acl_names` has fields of 65 bytes, each a name of at most 64 characters and its NUL, back to back;
 * num_aces counts an ACL's ACEs, remarks included, and num_rem_aces its remarks. Block; any client thread.
 *
 * The count query writes both counts: 0 and 0 for a name that nobody has registered. On failure they are unspecified.
 * The read takes the counts of a query just before it, and asks the producer that the latest query of this process has
 * found: nothing else may count in between. It stores the ACEs that are not remarks in aclhead_type[i], a head that the
 * caller has created and registered. ACEs stored before a failure stay. What was pushed meanwhile is applied at its end.
 *
 * 0; 22: null arrays, an optimum size with no room for a name, an answer of a wrong size or version, an ACE of another
 * ACL than is due by the counts, more remarks than ACEs; 12; else what the bus or the store said. es_acl_get_definition()
 * does all of it. */
ES_ACL_API es_acl_status es_acl_cpcx_query_acl_count_bulk(const char* acl_names, uint32_t* num_aces,
                                                          uint32_t* num_rem_aces, uint32_t count);
ES_ACL_API es_acl_status es_acl_cpcx_read_acl_bulk(es_acl_head* const* aclhead_type, const char* acl_names,
                                                   const uint32_t* num_aces, const uint32_t* num_rem_aces,
                                                   uint32_t count);

/* Takes everything that the producer sends; registered with the bus for each ACL. Runs on the delivery thread, one
 * message at a time; the ACL's lock is taken for single store calls, none is held around a callback. `payload` may be
 * written to and is not kept; it must be aligned to 8 bytes. A synchronous request that can be answered sets *response to
 * an acl_pcx_cons_resp from malloc(), the caller's from then on, and *response_length to 176; otherwise both stay as they
 * are. A message that is shorter than what it says, or of a wrong version, is logged and dropped. */
ES_ACL_API void es_acl_cpcx_handler(uint64_t context, uint32_t mtype, void* payload, uint32_t length,
                                    void** response, uint32_t* response_length);

/* Applies one pushed batch of n records (1 and up) in host byte order, all of the first one's ACL: command
 * ACL_PCX_ADD_ACE or ACL_PCX_REMOVE_ACE. Reports to the update callbacks first, then changes the list, ACE by ACE.
 * Records whose ACE is stored already, byte for byte, get sequence number 0 (with ES_ACL_MODIFY_DELETE_AND_ADD), and
 * the `private_data` of those that are added may be cleared.
 *
 *   head     receives the ACL as soon as it is found; stays as it was otherwise
 *   changed  set to 1 when an addition was reported and made; may be null
 *
 * 0, also when the store refused some of the ACEs; 22: the ACL is not held; 12; or the status with which an update
 * callback refused, and then nothing is stored. As for threads, see es_acl_cpcx_handler(): one batch at a time. */
ES_ACL_API es_acl_status es_acl_cpcx_handle_pcx_update_ace(uint32_t command, es_acl_pcx_acl_ace* records,
                                                           uint32_t n, es_acl_head** head, uint32_t* changed);

ES_ACL_END_DECLS

#endif /* ES_ACL_CPCX_H_ */
