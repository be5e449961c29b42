// How far each ACL that was got from a producer is from its list: a table by name, and what happens when it changes.
//
// The table has a small mutex of its own, under which nothing else runs. Who changes an ACL's record is at the ACL (a use
// or a fill, es_acl_gate.h), so that nobody takes it down meanwhile.
#ifndef ES_ACL_SRC_SYNC_PRIVATE_H_
#define ES_ACL_SRC_SYNC_PRIVATE_H_

#include <cstdint>

#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"
#include "es_acl_catch_up.h"

namespace es_acl {

// A fill is at its end: the copy is the producer's list as read behind that connection (pcx_generation(); 0: there was
// no producer). 0 or 12.
es_acl_status sync_enter(es_acl_head* head, Form form, uint64_t generation);
// The fill has ended: sees to it that what has happened to the link meanwhile is made good.
void sync_filled(es_acl_head* head, uint64_t generation, bool link_changed, bool link_lost);
// The ACL is being taken down.
void sync_leave(const char* name);

// A callback, or want of memory, has refused a change: the copy differs from the producer's list until it has caught up.
void sync_refused(es_acl_head* head);
// So it does when a message was not one that can be applied, or the store has not taken what it says. Of no ACL that was
// got, no effect. The caller is at the ACL.
void sync_missed(const char* name);
// False while what is pushed for the ACL belongs to a list that the copy does not have yet.
bool sync_takes_pushes(const char* name);

// The state as of this moment on the delivery thread, and what the copy has of its ACL. False: it came from no producer.
bool sync_look(const char* name, uint32_t* state, Form* form);

// Handler of the bus's link events (es_platform/pcx.h).
void sync_link_changed(void* reg_handle, const char* name, uint32_t event, uint64_t generation);

}  // namespace es_acl

#endif  // ES_ACL_SRC_SYNC_PRIVATE_H_
