/* Being told of changes: four process-wide kinds of callbacks, and deferred notifications per ACL.
 *
 *     uint32_t on_update(es_acl_head* acl, uint32_t action, uint32_t n, const ace_edit_info* batch, void* context);
 *     void on_change(es_acl_head* acl, uint32_t context);
 *
 *     es_acl_register_update_callback(on_update, &my_table);  // before the first get: nothing is missed
 *     es_acl_get_acl(&names, &acls, results);
 *     es_acl_register_callback(acls_[0], on_change, 0);       // about a second after each change
 *     evm_run(events);                                        // or evm_fd() in a loop of your own
 *
 * Who calls: the four kinds are called by the bus's delivery thread, for one message at a time; for changes
 * that arrived while an ACL was first being read, by the thread of that get, before it returns. Notifications
 * are called by the thread that runs the event manager the library was initialised with.
 *
 * No lock is held around a callback. It may call every operation of the library: register and unregister
 * (also itself; a callback added during a walk is called from the next event on, one removed is not called
 * any more), search and walk the ACL, get ACLs, release them - the very ACL it is called for included, whose
 * local copy then goes when the callback has returned, unless it has been got again by then. Two exceptions: to
 * get an ACL that another thread is just releasing fails with 11 inside a callback (elsewhere it waits); and
 * while a get first reads an ACL nobody holds it, so that a callback for it may not release it then.
 *
 * A callback that blocks holds up all further messages (or notifications) of the process. It must not wait for
 * a thread that is releasing the same ACL, because es_acl_release() waits for the callbacks of the ACL that are
 * running on other threads.
 *
 * The callbacks of one kind are called in the order of their registration. Registering an equal pair again
 * makes it be called twice; each unregistration takes away one.
 *
 * Contexts are the client's, stored as given. When an unregistration returns, the callback may still be
 * running, or be about to, on the other thread; when an ACL's last es_acl_release() has returned, none is
 * running for that ACL (unless the release was called from inside one). */
#ifndef ES_ACL_CALLBACK_H_
#define ES_ACL_CALLBACK_H_

#include <stdint.h>

#include "es_acl/es_acl_export.h"
#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"

/* What an update callback is told about. */
enum { ACL_ADD_ACE = 0, ACL_REMOVE_ACE = 1 };

/* ACEs are about to be added or removed; the list is still as it was. A non-zero result refuses the batch: the
 * callbacks behind it are not asked, nothing is stored, and the copy then differs from the producer's list until what was
 * refused has been offered again and taken (es_acl_sync.h). The batch and the new ACEs in it are there until the callback
 * returns; stored ACEs stay as they are for a grace time after they have been removed, as for a walk (es_acl.h).
 *
 *   action   ACL_ADD_ACE or ACL_REMOVE_ACE
 *   batch    n elements. A removal: `seq` and `ace`, the stored ACE; remarks are removed without being shown. An
 *            addition: `seq` and `ace`, the new ACE; with ES_ACL_MODIFY_ADD_ONLY also `old_ace`, the ACE that it
 *            replaces, and `is_new` 0 if there is one; with ES_ACL_MODIFY_DELETE_AND_ADD the replaced ACEs were shown
 *            as a removal before, `old_ace` is null and `is_new` 1. ACEs stored already with equal bytes are not
 *            shown. Elements are in the order in which the producer sent them; the removal that goes before an
 *            addition, in the opposite one. */
typedef uint32_t (*es_acl_update_cb)(es_acl_head* acl, uint32_t action, uint32_t n,
                                     const ace_edit_info* batch, void* context);

/* The ACL's ACEs have been renumbered: start_seq, start_seq + step, ..., passing over the num_skip_seqs numbers of
 * skip_seqs. A non-zero result ends the walk over the callbacks and is logged; the list stays renumbered. */
typedef uint32_t (*es_acl_reseq_cb)(es_acl_head* acl, uint32_t start_seq, uint32_t step,
                                    uint32_t num_skip_seqs, const uint32_t* skip_seqs, void* context);

/* Are there resources for these ACEs, that differ from the copy? 0: yes; another status refuses, and reaches the
 * producer. With cancel non-zero the question is withdrawn, and what was set aside for it can be freed.
 * The batch has `seq`, `ace`, `old_ace` (the ACE stored under that number, or null) and `is_new`, and is there as long as
 * an update's. */
typedef uint32_t (*es_acl_res_check_cb)(es_acl_head* acl, uint32_t n, const ace_edit_info* batch,
                                        int32_t cancel, void* context);

/* Does this client use ACLs that it holds? The producer asks about one of them; which one is not told. 1: yes, and
 * nobody else is asked; any other value: ask the next. The last one's value is the answer, 0 means no. */
typedef uint32_t (*es_acl_check_usage_cb)(void);

/* The ACL has changed, once or more often, in the second that has passed. */
typedef void (*es_acl_notify_cb)(es_acl_head* acl, uint32_t context);

ES_ACL_BEGIN_DECLS

/* --- Registration. Any thread, also from inside a callback, also before the initialisation. ---
 *
 * 0; 22 for a null function; 12. Unregistering a pair that is not registered does nothing. */

ES_ACL_API es_acl_status es_acl_register_update_callback(es_acl_update_cb function, void* context);
ES_ACL_API void es_acl_unregister_update_callback(es_acl_update_cb function, void* context);

ES_ACL_API es_acl_status es_acl_register_resequence_callback(es_acl_reseq_cb function, void* context);
ES_ACL_API void es_acl_unregister_resequence_callback(es_acl_reseq_cb function, void* context);

ES_ACL_API es_acl_status es_acl_register_res_check_callback(es_acl_res_check_cb function, void* context);
ES_ACL_API void es_acl_unregister_res_check_callback(es_acl_res_check_cb function, void* context);

ES_ACL_API es_acl_status es_acl_register_check_usage_callback(es_acl_check_usage_cb function);
ES_ACL_API void es_acl_unregister_check_usage_callback(es_acl_check_usage_cb function);

/* 1 once a res_check callback has been registered in this process, also when it is gone again: from then on the
 * producer's resource questions are held and checked. Before, they are ignored or answered with 0. */
ES_ACL_API uint32_t es_acl_res_check_required(void);

/* Deferred notification of one ACL that the caller holds: the function is called with the context one second after the
 * last change, on the event manager's thread, once for however many changes. Registering an equal pair again only counts
 * it; as many unregistrations take it away. ES_ACL_E_INVALID: null ACL or function; ES_ACL_E_NO_MEMORY; or why the timer
 * could not be set up. Registrations still there at the ACL's last release are dropped. */
ES_ACL_API es_acl_status es_acl_register_callback(es_acl_head* acl, es_acl_notify_cb function,
                                                  uint32_t context);
ES_ACL_API void es_acl_unregister_callback(es_acl_head* acl, es_acl_notify_cb function, uint32_t context);

/* --- How the library calls them. For whoever feeds it by other means than the bus; a client needs none of it. ---
 *
 * Each walks its registry and returns what the first callback that fails returned, else 0. `acl` null: 22. With nothing
 * ever registered: 0, but 22 for a resequencing. */

ES_ACL_API es_acl_status es_acl_invoke_update_callback(es_acl_head* acl, uint32_t action, uint32_t n,
                                                       const ace_edit_info* batch);
ES_ACL_API es_acl_status es_acl_invoke_resequence_callback(es_acl_head* acl, uint32_t start_seq,
                                                           uint32_t step, uint32_t num_skip_seqs,
                                                           const uint32_t* skip_seqs);
ES_ACL_API es_acl_status es_acl_invoke_res_check_callback(es_acl_head* acl, uint32_t n,
                                                          const ace_edit_info* batch, int32_t cancel);
/* The first answer that is 1, else the last one, else 0. */
ES_ACL_API uint32_t es_acl_invoke_check_usage_callback(void);

/* Arms the ACL's timer for a full second from now, when there is somebody to notify. Takes no lock. */
ES_ACL_API void es_acl_start_cb_timer(es_acl_head* acl);
/* Notifies everybody now. A pair that a callback has unregistered meanwhile is left out. */
ES_ACL_API void es_acl_invoke_list(es_acl_head* acl);
/* Handler of the timers' event: notifies for each ACL whose second is over. The arguments are not used. */
ES_ACL_API void es_acl_cb_process_timer(int code, void* context);

ES_ACL_END_DECLS

#endif /* ES_ACL_CALLBACK_H_ */
