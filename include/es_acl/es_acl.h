/* es-acl: local copies of Layer-2 access control lists. Start here.
 *
 *     evm* events;
 *     evm_create(&events);                                   // es_platform/evm.h
 *     if (es_acl_clib_init(events) != 0) ...
 *
 *     void* names_[] = {(void*)"edge-user-in"};
 *     void* acls_[1];
 *     uint32_t results[1];
 *     es_acl_handle_list names = {1, names_}, acls = {1, acls_};
 *     es_acl_get_acl(&names, &acls, results);
 *     if (acls_[0] != NULL) {
 *       es_acl_head* acl = acls_[0];
 *       for (es_acl_ace_node* n = es_get_first_ace(acl); n != NULL; n = es_get_next_ace(acl, n)) {
 *         const es_acl_ace* ace = es_get_ace_data(acl, n);
 *         if (ace == NULL) break;
 *         ...
 *       }
 *       es_acl_release(&acls);
 *     }
 *
 * Conventions
 *
 *  1. Status: 32 bits unsigned, 0 for success (es_acl_status.h).
 *  2. An ACL handle is got, shared and counted: every get that yields it takes one reference, es_acl_release()
 *     gives one back, and the last one removes the local copy. A handle may not be used after its release.
 *  3. Names are zero-terminated, at most 64 characters of [-_.:a-z0-9A-Z], the first a letter or digit.
 *  4. Sequence numbers are unsigned 32-bit and unique within an ACL; lists are in ascending order of them.
 *  5. Threads: initialise once, before anything else, on one thread. Afterwards any thread may call any
 *     operation. Operations on one ACL's list are serialised by its lock, one store call at a time; different
 *     ACLs do not wait for each other. Getting and releasing the same ACL is to be serialised by the client, and
 *     its last release may not run beside any operation that names it or uses its handle: a lookup, a count, a
 *     snapshot or a traversal takes no reference (and may show an ACL that another thread's get still fills).
 *  6. Once an ACL is held, what the producer changes is applied to the local copy by itself, on the bus's delivery
 *     thread; changes that come while a get first reads the ACL, by that get. es_acl_callback.h tells how to hear of
 *     them and how to refuse them. What is missed while the connection to the producer is down, and what a callback
 *     refuses, is made up for later: es_acl_sync.h tells how, and how to know whether a copy is the producer's list.
 *     es_acl_verify.h compares the copies of all clients with that list.
 *  7. No exception leaves the library; where memory runs out the status is 12.
 *  8. Null arguments are refused (22, null or 0) before any lock is taken, unless an operation says otherwise.
 *  9. Nothing is ever torn down: there is no shutdown operation.
 * 10. Blocking: the gets and count queries talk to the producer. Each exchange has the bus's deadline; what fails
 *     for a passing reason is tried four times, a second's sleep after each, so that a name may take four deadlines
 *     and four seconds for each of its exchanges. The initialisation may sleep four seconds. A release waits for a
 *     message of the ACL that is just being handled, callbacks included. Nothing else here blocks but for an ACL's lock.
 * 11. What an operation prints and traces is described in docs/diagnostics.md. */
#ifndef ES_ACL_H_
#define ES_ACL_H_

#include <stdarg.h>
#include <stdint.h>

#include "es_acl/es_acl_export.h"
#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"

struct acl_client_relay_entry; /* es_platform/process.h */
struct debug_category;         /* es_platform/diag.h */
struct rlog_ctx;               /* es_platform/diag.h */

ES_ACL_BEGIN_DECLS

/* --- Initialisation --- */

/* Makes this process a client: store, reporting channel, bus. `ctx` is the process's event manager (an
 * `evm*`), which must outlive the process's use of the library. After a success, further calls return 0 and
 * do nothing; after a failure the next call starts again. 22: null. Otherwise the failing step's status. */
ES_ACL_API es_acl_status es_acl_clib_init(void* ctx);

/* Only the store side of it, for a process that owns the store and is no bus consumer. Each call sets up
 * es_acl_hmutex and the trace buffers anew. */
ES_ACL_API es_acl_status es_acl_db_owner_clib_init(void* ctx);

/* --- Names. Any thread, once initialised. --- */

/* 0 when `name` can be an ACL's name, else ES_ACL_E_NAME (also for null); 12 when memory is too short to tell. */
ES_ACL_API es_acl_status es_acl_check_acl_name(const char* name);
/* 1 when `name` is one of the words that cannot name an ACL: standby, maximum, summary, trace, usage. */
ES_ACL_API uint32_t es_acl_is_name_reserved(const char* name);

/* --- Getting ACLs. Blocks; any client thread. --- */

/* For each name a handle, in the same order: shared when this process already holds the ACL, else fetched
 * from the producer.
 *
 *   names    names->entries[i] is a `const char*`
 *   handles  entries is the caller's array of at least names->count slots; count is set and every slot is written:
 *            the handle, or null
 *   results  results[i] is name i's status; may be null. 11: called from inside a callback, while another thread is just
 *            releasing the ACL, for which a callback does not wait
 *
 * Without a producer a valid name yields a handle to an empty ACL, out of touch (es_acl_sync.h): it is filled when there is
 * a producer. Returns the status of the last name processed: look at `results` and the
 * handles. es_acl_get_acl() refuses a null list with 22; es_acl_getlist_acl() does not check its pointers.
 *
 * check_count non-zero: the producer is asked for the ACL's size first, and a name without ACEs yields a null
 * handle and leaves its results entry unwritten. */
ES_ACL_API es_acl_status es_acl_get_acl(const es_acl_handle_list* names, es_acl_handle_list* handles,
                                        uint32_t* results);
ES_ACL_API es_acl_status es_acl_getlist_acl(const es_acl_handle_list* names, es_acl_handle_list* handles,
                                            uint32_t* results, uint32_t check_count);

/* Many ACLs in one call: what is not held yet is counted, registered and read together, in few messages.
 *
 *   in_data   in_data->entries[i] is a `const char*`, a name of at most 64 characters; the name rules are not checked
 *   out_data  entries is the caller's array of at least in_data->count slots, not in_data's; count is set, and every slot
 *             is written: the handle, or null
 *   ret_data  ret_data[i] is name i's status. 0: its slot has a handle and one reference. ES_ACL_E_NO_RULES: the producer
 *             has no ACEs but remarks under that name, or does not know it. 12: its head could not be created. 11: see
 *             es_acl_get_acl()
 *
 * The copies that it makes have no remarks; a copy that is held already is shared as it is. A name asked for twice takes
 * two references of one copy. Returns 0 when the call has succeeded as a whole. Otherwise 22: null arguments, or an answer
 * that does not fit; 90: one that would need more room (both also for an ACL that changed just between its count and its
 * read: try again); 12; or what the bus said.
 * Then nothing new is held, but slots with a handle are of ACLs that were held before, and are to be released. */
ES_ACL_API es_acl_status es_acl_get_definition(const es_acl_handle_list* in_data,
                                               es_acl_handle_list* out_data, uint32_t* ret_data);

/* The number of ACEs of an ACL, remarks included, and of its remarks. Initialise both: *num_remark_aces is written only
 * when the answer comes from the producer, not for an ACL held locally with ACEs, nor for a name that nobody registered
 * (which has 0 ACEs, status 0). On failure *num_aces is 0. 22: null arguments, which leave both unwritten, or an answer
 * of a wrong size. */
ES_ACL_API es_acl_status es_acl_get_ace_count(const char* name, uint32_t* num_aces,
                                              uint32_t* num_remark_aces);

/* Gives back one reference for each non-null handle in the list. The entries are left as they are. The last reference
 * takes the local copy away: waits until callbacks for the ACL that run on other threads have returned. Called from
 * inside a callback it does not wait; the copy then goes when the last callback for it has returned. */
ES_ACL_API void es_acl_release(const es_acl_handle_list* handles);

/* --- Walking. No lock, no call into the store; any thread that holds the handle. ---
 *
 * A walk may run while this process changes the list: each step sees the list as it then is. A node removed after a
 * walk has got to it keeps its links and its ACE for a grace time (docs/store.md); a walk that stands on it longer may
 * find another ACE of the same ACL there, but always valid memory, as long as the handle is held. */

/* First node, or null for an empty list. */
ES_ACL_API es_acl_ace_node* es_get_first_ace(es_acl_head* acl);
/* The node after `node`, which is one of this ACL's; after the last, a node that es_get_ace_data() and this operation
 * answer with null. */
ES_ACL_API es_acl_ace_node* es_get_next_ace(es_acl_head* acl, es_acl_ace_node* node);
/* The node's ACE, or null past the end. */
ES_ACL_API es_acl_ace* es_get_ace_data(es_acl_head* acl, es_acl_ace_node* node);
/* The ACL's name; it belongs to the ACL. */
ES_ACL_API const char* es_acl_get_acl_name(es_acl_head* acl);

/* --- Looking up and searching. Any thread. --- */

/* The ACL of that name if this process holds it, else null (also for a null name). Takes no reference: see 5. */
ES_ACL_API es_acl_head* es_acl_lookup(const char* name);

/* A copy of the head record (include es_acl_store.h for its fields), without its list, registries and timer.
 * Taken without a lock and without a reference: see 5. 2: not held. 22: held, but `out` is null. */
ES_ACL_API es_acl_status es_acl_lookup_read(const char* name, es_acl_head* out);

/* Calls the visitor for each ACE in order, under the ACL's lock, with the further arguments. `flags` must be
 * 0. ES_ACL_E_INVALID, ES_ACL_E_NOT_FOUND. */
ES_ACL_API es_acl_status es_acl_traverse_list(const char* name, uint32_t flags, es_acl_visitor visitor, ...);

/* The ACE with that sequence number, or null. With a position, a run of nearby searches is quick. */
ES_ACL_API es_acl_ace* es_acl_search_item(es_acl_head* acl, uint32_t seq);
ES_ACL_API es_acl_ace* es_acl_search_item_fiter(es_acl_head* acl, uint32_t seq, es_acl_iter* iter);
ES_ACL_API es_acl_ace* es_acl_search_item_biter(es_acl_head* acl, uint32_t seq, es_acl_iter* iter);

/* First match of a frame, in sequence order. With the store that comes with the library:
 *   key      an es_acl_match_key
 *   value64  0, or the address of an es_acl_match_hit, written when there is a match
 *   result   ES_ACL_MATCH_*; 0 also for null arguments */
ES_ACL_API uint32_t es_acl_match_complex(es_acl_head* acl, const void* key, uint32_t value32,
                                         uint64_t value64);

/* The same for `value32` keys in an array. value64 is 0 or the address of as many hit records; hit i is
 * written when key i matches, and its seq is set to 0 when it does not. The result is the number of keys that
 * matched. */
ES_ACL_API uint32_t es_acl_match_complex_2(es_acl_head* acl, const void* key, uint32_t value32,
                                           uint64_t value64);

/* How pushed ACEs that replace others are to be reported, ES_ACL_MODIFY_*; see es_acl_update_cb. Set it during
 * configuration: it is read again at each step of applying a batch. */
ES_ACL_API void es_acl_set_modify_mode(uint32_t mode);
ES_ACL_API uint32_t es_acl_get_modify_mode(void);

/* --- Diagnostics --- */

ES_ACL_API struct rlog_ctx* es_acl_rlog_w_ctx_get(void);
ES_ACL_API struct rlog_ctx* es_acl_rlog_u_ctx_get(void);
/* The library's debug categories, or null before the initialisation. */
ES_ACL_API struct debug_category* es_acl_debug_get_event_handle(void);

/* --- Process-wide state. Read only for clients. --- */

ES_ACL_API extern struct rlog_ctx* es_acl_rlog_u_ctx; /* trace buffer of rare events */
ES_ACL_API extern struct rlog_ctx* es_acl_rlog_w_ctx; /* trace buffer of most events, wrapping */
ES_ACL_API extern struct debug_category* es_acl_dll_event_type;
ES_ACL_API extern uint32_t es_acl_classhandle; /* name-service class of ACL names */
ES_ACL_API extern void* es_acl_global_handle;  /* bus address that the last count query found */
ES_ACL_API extern struct acl_client_relay_entry* acl_client_relay_hdl;
ES_ACL_API extern struct acl_client_relay_entry* acl_client_err_relay_hdl;
ES_ACL_API extern void* acl_client_relay_hist_hdl;
ES_ACL_API extern void* es_acl_cb_timer_tree; /* timers of the deferred notifications */
/* Belongs to the timer interface; the library does not use it. */
ES_ACL_API extern uint32_t es_acl_lib_timer_type;

ES_ACL_END_DECLS

#endif /* ES_ACL_H_ */
