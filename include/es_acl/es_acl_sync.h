/* Is the copy the producer's list?
 *
 *     es_acl_sync_info info;
 *     es_acl_get_sync_info(acl, &info);
 *     if (info.state != ES_ACL_IN_STEP) ...      // since info.since_ns the copy may be behind
 *
 * What is pushed reaches a copy only while the connection to the producer stands. When it is lost - the producer has gone,
 * or fell silent, or gave this process up because its queue was full - the ACL is out of touch. As soon as there is a
 * producer again the library reads the ACL anew, on the bus's delivery thread, and makes the copy equal to what it has
 * read, by ordinary changes: removals first, then additions and replacements, each told to the update callbacks before and
 * notified after. What has not changed is not touched and not told. An ACL that the producer no longer has becomes
 * empty. Then the ACL is in step again.
 *
 * A step that an update callback refuses leaves the copy as it was before that step; it is tried again after a tenth of a
 * second, and then after twice as long each time, up to five seconds. So is what an update callback has refused of an
 * ordinary push. Further pushes are offered meanwhile as ever. */
#ifndef ES_ACL_SYNC_H_
#define ES_ACL_SYNC_H_

#include <stdint.h>

#include "es_acl/es_acl_export.h"
#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"

enum {
  ES_ACL_IN_STEP =
      0, /* the producer's list, as of some moment, and every change since then that has arrived */
  ES_ACL_CATCHING_UP = 1, /* being made so: read anew, or a step was refused and will be tried again */
  ES_ACL_OUT_OF_TOUCH = 2 /* nobody tells of changes: no producer, or nothing heard of it for three beats */
};

typedef struct es_acl_sync_info {
  uint32_t state;    /* ES_ACL_IN_STEP, ... */
  uint32_t refusals; /* changes that callbacks, or want of memory, have refused since the ACL was got */
  uint64_t since_ns; /* when the state began: nanoseconds of CLOCK_REALTIME */
} es_acl_sync_info;

/* The ACL's state is another one now. On the delivery thread, in the order of the changes, with no lock held; on the
 * thread of a get for what happened while it first read the ACL. The same rules as for the other callbacks
 * (es_acl_callback.h). That nothing has been heard for three beats (a beat is a second, unless ES_PCX_BEAT_MS in the
 * environment says otherwise) while this process
 * itself holds the delivery thread up is not told here; es_acl_get_sync_info() says it. */
typedef void (*es_acl_sync_cb)(es_acl_head* acl, uint32_t state, void* context);

ES_ACL_BEGIN_DECLS

/* Any thread that holds the ACL. 0; 22: null arguments; ES_ACL_E_NOT_FOUND: not an ACL that was got from a producer. */
ES_ACL_API es_acl_status es_acl_get_sync_info(es_acl_head* acl, es_acl_sync_info* info);

/* Any thread, also from inside a callback, also before the initialisation. 0; 22: null function; 12. */
ES_ACL_API es_acl_status es_acl_register_sync_callback(es_acl_sync_cb function, void* context);
ES_ACL_API void es_acl_unregister_sync_callback(es_acl_sync_cb function, void* context);

ES_ACL_END_DECLS

#endif /* ES_ACL_SYNC_H_ */
