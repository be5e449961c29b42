/* Who has what of an ACL: the producer's list and its clients' copies, compared.
 *
 *     static void tell(const es_acl_list_info* list, void* context) { ... }
 *     es_acl_verify("edge-in", 3000, tell, NULL);
 *
 * The producer asks each client process that has registered the ACL for the digest (es_acl_digest.h) of its copy, behind
 * every change that it has pushed so far, and takes the digest of its own list as of the same moment. So a client that is
 * in step has the producer's digest, however many changes are under way; one that is in step and has another holds
 * something else: it has edited its copy, or a promise of docs/guarantees.md is broken.
 *
 * The process that asks need not hold the ACL. */
#ifndef ES_ACL_VERIFY_H_
#define ES_ACL_VERIFY_H_

#include <stddef.h>
#include <stdint.h>

#include "es_acl/es_acl_digest.h"
#include "es_acl/es_acl_export.h"
#include "es_acl/es_acl_status.h"

/* One list. The record belongs to the library and may be read during the call only. */
typedef struct es_acl_list_info {
  int32_t pid;         /*  0: the client process; 0: this is the producer's list */
  uint32_t state;      /*  4: ES_ACL_IN_STEP, ... (es_acl_sync.h), ES_ACL_READING, ES_ACL_NO_ANSWER */
  uint32_t num_aces;   /*  8: 0, like the digest, in the last two states */
  uint32_t rules_only; /* 12: 1: the list is without remarks */
  uint64_t digest;     /* 16 */
  uint32_t
      equal; /* 24: 1: the same entries as the producer's list, which is taken without remarks for this if need be */
  uint32_t reserved28; /* 28 */
  char program
      [ACL_PCX_RESP_PROC_NAME_SIZE]; /* 32: the client's name; empty when it is not known, and the producer's */
} es_acl_list_info;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_list_info) == 160, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_list_info, digest) == 16, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_list_info, program) == 32, "layout");

typedef void (*es_acl_list_cb)(const es_acl_list_info* list, void* context);

ES_ACL_BEGIN_DECLS

/* Tells the lists to `visit` when all are known: the producer's, once more without its remarks when it has some and a
 * client has none, and the clients' in ascending order of their process ids. On the calling thread, with no lock held;
 * `visit` may call anything.
 *
 * Any thread but one that runs a callback for a change: the client that is asked may be this one. Blocks, for deadline_ms
 * (at most 60000) at most when all is well, and as long as a request may take when the producer is silent. A client that
 * has not answered by then is told as such.
 *
 * 0; 22: null arguments, or the library is not initialised; ES_ACL_E_NAME; 3: no producer, or it went away; 11: too many
 * ask at the same time; 12; 22 also: the producer knows no such question; 62: the producer is silent; 90: more clients
 * than an answer holds, some thousands; ES_ACL_E_ANSWER_VERSION. `visit` is called only with 0. An ACL
 * that the producer does not have is an empty list there. */
ES_ACL_API es_acl_status es_acl_verify(const char* name, uint32_t deadline_ms, es_acl_list_cb visit,
                                       void* context);

ES_ACL_END_DECLS

#endif /* ES_ACL_VERIFY_H_ */
