/* The store plug-in interface: what the author of a store, or of a process that owns one, needs.
 *
 * The library keeps its local copies of ACLs in a plug-in, a module loaded at run time that exports
 *
 *     void es_acl_api_init_funcs(es_acl_api_table* apis);
 *
 * and writes its operations into the table's slots there. A slot that it leaves alone keeps the library's
 * inert default. A minimal store fills get_header, acl_lookup, acl_release, freelist, add_acl_item_iter,
 * search_entry_iter and delete_entry_iter.
 *
 * Locks: the library holds the ACL's lock (es_acl_head.lock) around the slots marked [locked] and none around
 * the others; a store guards its own name index, for which the library offers es_acl_hmutex. The store
 * creates and destroys the lock, the library never does. No slot may call back into the library's locked
 * operations on the same ACL. Every slot may be called from any thread once init has returned. */
#ifndef ES_ACL_STORE_H_
#define ES_ACL_STORE_H_

#include <pthread.h>
#include <stdarg.h>

#include "es_acl/es_acl_status.h"
#include "es_acl/es_acl_types.h"

/* A node of an ACL's list. The walk accessors read these three words without the ACL's lock: a store
 * publishes `next` with release semantics and keeps a removed node readable (see es_get_first_ace() in
 * es_acl.h). For how long, es_acl_head.looks helps to tell. */
struct es_acl_ace_node {
  es_acl_ace_node* next;
  es_acl_ace_node* aux; /* the other link, the store's */
  void* element;        /* what the node holds; es_acl_head.ace_end in the sentinel */
};

/* The word of an element that points to its ACE record, counted from 0: the 21st. */
#define ES_ACL_ELEMENT_ACE_WORD 20

/* An embedded list: `first` points to the first entry, whose own first word is its link. All zero when empty.
 */
typedef struct es_acl_entry_queue {
  void* first;
  void* last;
} es_acl_entry_queue;

/* ACL head record. The store allocates it zero-filled (get_header); the fields named store_* are the store's,
 * the others the library's unless the comment says otherwise. */
struct es_acl_head {
  void* store_word[2];        /* the second is cleared in snapshots */
  es_acl_entry_queue cb_list; /* deferred notification entries; under `lock` */
  void* store_aux[2];
  es_acl_ace_node* ace_first;    /* store: the sentinel's next link, the first node */
  es_acl_ace_node* ace_list_aux; /* store: the sentinel's other link */
  void* ace_end;                 /* store: the sentinel's element word, which ends a walk */
  void* reg_handle;              /* name-service and bus registration, null while there is none */
  pthread_mutex_t lock;          /* store: initialised by get_header */
  void* store_mid[2];
  void* cb_registry_a; /* store side: callback-list registries that the library destroys on release */
  void* cb_registry_b;
  void* evm_ctx;       /* event manager that the library was initialised with */
  void* cb_timer_leaf; /* managed-timer leaf of the deferred notification; under `lock` */
  const char* name;    /* store: zero-terminated, at most 64 characters, lives as long as the head */
  void* store_word14;
  uint32_t ace_count; /* store: ACEs held, remarks included; changed under `lock` */
  uint32_t store_word16[3];
  int32_t refcount; /* holders of the handle; the store sets 1 */
  uint8_t created_by_get;
  uint8_t padding[3];
  /* Whether anybody looks at the list without the lock. Who follows a link of it so (es_get_first_ace() and
   * es_get_next_ace() do) makes the number odd before, if it is even, and follows the link again if the number has
   * changed after. The library makes it odd, too, before callbacks are shown what is stored. A store may make it even
   * again, under `lock`. All changes are atomic read-modify-writes, the number only grows, and a store reads it by a
   * read-modify-write as well. Found even, it says: nobody has followed a link since the store made it so, and whoever
   * does from now on does not get to what has been unlinked by now. It does not speak of those who had got to a node
   * before, nor of what the slots have given to their callers. */
  uint32_t looks;
  uint32_t padding_2;
  void* store_tail[4];
};

/* The three words from ace_first on are the list's sentinel node. */
ES_ACL_STATIC_ASSERT(offsetof(es_acl_head, ace_list_aux) - offsetof(es_acl_head, ace_first) ==
                         offsetof(es_acl_ace_node, aux),
                     "the sentinel has the shape of a node");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_head, ace_end) - offsetof(es_acl_head, ace_first) ==
                         offsetof(es_acl_ace_node, element),
                     "the sentinel has the shape of a node");

/* Directions of the iterator operations. */
enum { ES_ACL_BACKWARD = 0, ES_ACL_FORWARD = 1 };

/* Flags of the additions. */
enum {
  ES_ACL_ADD_KEEP =
      0, /* an ACE already stored under the number stays; the offered one goes back to the pool */
  ES_ACL_ADD_REPLACE = 1 /* an ACE already stored under the number gives way to the offered one */
};

/* The store API table, 17 slots. */
typedef struct es_acl_api_table {
  /*  0 Prepares the store. `ctx` is the context the library is initialised with. Called once per
   * initialisation, so possibly again. A non-zero status fails the initialisation. */
  es_acl_status (*init)(void* ctx);
  /*  1 The head of an ACL in the store, or null. Takes no reference. `name` may be null. */
  es_acl_head* (*acl_lookup)(const char* name);
  /*  2 A new head for the name, refcount 1, empty list, lock initialised, findable by acl_lookup; null when
   * it cannot be made (no memory, or the name is present already). */
  es_acl_head* (*get_header)(const char* name);
  /*  3 Removes the ACL of that name and frees its head, list and records. `name` may be the head's own. */
  void (*acl_release)(const char* name);
  /*  4 Like slot 5 without a position. The library does not call it. */
  es_acl_status (*add_acl_item)(es_acl_head* acl, es_acl_ace* ace, uint32_t seq, uint32_t flag);
  /*  5 [locked] Inserts the ACE under `seq`, in order. On 0 the record is the store's (which may give it back
   * to the pool with es_acl_free_rules() at once and keep a copy); on another status it stays the caller's.
   * `iter` may be null. */
  es_acl_status (*add_acl_item_iter)(es_acl_head* acl, es_acl_ace* ace, uint32_t seq, uint32_t flag,
                                     es_acl_iter* iter);
  /*  6 Like slot 7 without a position. The library does not call it. */
  void (*delete_entry)(es_acl_head* acl, uint32_t seq);
  /*  7 [locked] Removes the ACE with that number, if there is one. `iter` may be null. */
  void (*delete_entry_iter)(es_acl_head* acl, uint32_t seq, uint32_t direction, es_acl_iter* iter);
  /*  8 [locked] The ACE with that number, or null. It belongs to the store. */
  es_acl_ace* (*search_entry)(es_acl_head* acl, uint32_t seq);
  /*  9 [locked] The same, from the position and updating it. `iter` may be null. */
  es_acl_ace* (*search_entry_iter)(es_acl_head* acl, uint32_t seq, uint32_t direction, es_acl_iter* iter);
  /* 10 Discards a head that was never handed out: takes it out of the index, destroys its lock, frees it with its
   * list. *out, when non-null, receives a value that the library does not read. */
  void (*freelist)(es_acl_head* acl, uint32_t* out);
  /* 11 [locked] Evaluates a key. The library passes the arguments on as they are. */
  uint32_t (*match_complex)(es_acl_head* acl, const void* key, uint32_t value32, uint64_t value64);
  /* 12 [locked] The same with another reading of the arguments. */
  uint32_t (*match_complex_2)(es_acl_head* acl, const void* key, uint32_t value32, uint64_t value64);
  /* 13 Not called. */
  uint32_t (*reserved_13)(void);
  /* 14 [locked] Renumbers the ACEs in list order: start_seq, start_seq + step, ..., passing over the numbers
   * in the skip list. On a non-zero status nothing is changed. */
  es_acl_status (*resequence)(es_acl_head* acl, uint32_t start_seq, uint32_t step, uint32_t num_skip_seqs,
                              const uint32_t* skip_seqs);
  /* 15 The store's root object; the six arguments are passed through unchanged. */
  void* (*get_db_pointer)(void* a, void* b, void* c, void* d, void* e, void* f);
  /* 16 [locked] Calls the visitor for the entries in list order, each time with its own copy of *args. */
  void (*traverse_list)(es_acl_head* acl, es_acl_visitor visitor, va_list* args);
} es_acl_api_table;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_api_table) == 17 * sizeof(void (*)(void)), "17 slots and nothing else");

#define ES_ACL_STORE_INIT_SYMBOL "es_acl_api_init_funcs"
typedef void (*es_acl_api_init_funcs_fn)(es_acl_api_table* apis);

ES_ACL_BEGIN_DECLS

/* The table in force. Filled once, at the first successful load; read without a lock afterwards. */
ES_ACL_API extern es_acl_api_table* es_acl_apis;

/* Store-wide recursive mutex, offered to the store and to the owner process; the library never locks it.
 * Valid from the owner initialisation on. */
ES_ACL_API extern pthread_mutex_t es_acl_hmutex;

/* Loads the store plug-in `name` (a file name, looked for beside the library, then as dlopen() does; at most
 * 255 characters, a longer one is cut). Call it before the initialisation to choose another store; the
 * initialisation itself loads the default, libes_acl_tree.dll. Once a plug-in is loaded, further calls load
 * nothing and return 0. 22: null name. ES_ACL_E_DB_OPEN, ES_ACL_E_DB_SYMBOL: see their texts; a later call
 * tries again. Not thread-safe. */
ES_ACL_API es_acl_status es_acl_use_db_dll(const char* name);

/* --- Several ACEs with one call: what a store may offer beside its table --- */

/* How many ACEs one such call is for at most. */
#define ES_ACL_BATCH_MAX 32

/* One of them: its number, and what else the call takes or fills in. `mark` is a hint of the store's: a search gives each
 * item one, or null; an addition or removal of the same number of the same ACL brings back what one of the searches for
 * it gave, not always the latest, or null. Whatever happened to the list in between may have made it stale; it may never
 * come back. */
typedef struct es_acl_batch_item {
  uint32_t seq;
  uint32_t flag;        /* of an addition: see slot 5 */
  es_acl_ace* ace;      /* of a search, out: the stored ACE or null; of an addition: the ACE offered */
  void* mark;           /* of a search, out */
  es_acl_status status; /* of an addition, out */
} es_acl_batch_item;

/* [locked] Does for n items, 1 to ES_ACL_BATCH_MAX, what a slot does for one, in their order, so that the store may go
 * about them side by side where each one would wait for memory. The library uses it for pushed changes, unless
 * lines about single ACEs are printed; a store that offers nothing loses nothing but time. */
typedef void (*es_acl_batch_fn)(es_acl_head* acl, es_acl_batch_item* items, uint32_t n);

/* What a search finds while `looks` is odd may be shown to callbacks: it stays for as long as a removed node. */
typedef struct es_acl_batch_table {
  es_acl_batch_fn search; /* as slot 8, but what is found is good until the next batch is added or removed */
  es_acl_batch_fn add;    /* as slot 5, but the store copies the ACEs: they stay the caller's */
  es_acl_batch_fn remove; /* as slot 7 */
} es_acl_batch_table;

/* Called by a store from its es_acl_api_init_funcs(), with a table that is complete and stays. Null takes the offer back:
 * a plug-in that fills its table from another one's and puts itself in front of it does so. */
ES_ACL_API void es_acl_offer_batches(const es_acl_batch_table* batches);

/* --- ACE records: the rules pool. Any thread. --- */

/* A record of unspecified content, or null. Give it back with es_acl_free_rules() unless a store accepted it.
 */
ES_ACL_API es_acl_ace* es_acl_alloc_rules(void);
ES_ACL_API void es_acl_free_rules(es_acl_ace* rules);

/* --- Changing one ACL's list. Any thread; each takes the ACL's lock for one store call. --- */

/* Adds an ACE: see slot 5. 22 for a null ACL or ACE; the record then stays the caller's. */
ES_ACL_API es_acl_status es_acl_add_acl_item(es_acl_head* acl, es_acl_ace* ace, uint32_t seq, uint32_t flag);
ES_ACL_API es_acl_status es_acl_add_acl_item_common(es_acl_head* acl, es_acl_ace* ace, uint32_t seq,
                                                    uint32_t flag, es_acl_iter* iter);

/* Removes the ACE with that number. es_acl_delete_item() refuses number 0; the other one a null iterator. */
ES_ACL_API void es_acl_delete_item(es_acl_head* acl, uint32_t seq);
ES_ACL_API void es_acl_delete_item_common(es_acl_head* acl, uint32_t seq, uint32_t direction,
                                          es_acl_iter* iter);

/* Renumbers the list: see slot 14. 22 for a null ACL. */
ES_ACL_API es_acl_status es_acl_resequence(es_acl_head* acl, uint32_t start_seq, uint32_t step,
                                           uint32_t num_skip_seqs, const uint32_t* skip_seqs);

/* 1 when all 80 bytes of both are equal, else 0 (also for a null pointer). No lock. */
ES_ACL_API uint32_t es_acl_compare_ace(const es_acl_ace* ace, const es_acl_ace* rules);

/* --- Heads. No lock; see each. --- */

/* A new head from the store, or null. The caller owns its one reference. */
ES_ACL_API es_acl_head* es_acl_get_header(const char* name);
/* es_acl_lookup() without its counter. */
ES_ACL_API es_acl_head* es_acl_lookup_internal(const char* name);
/* Discards a head that was never handed out: see slot 10. */
ES_ACL_API void es_acl_freelist(es_acl_head* head, uint32_t* out);
/* Tears a head down without looking at its count and without withdrawing its bus registration. */
ES_ACL_API void es_acl_db_owner_release(es_acl_head* head);
/* The store's root object; what it is, and the arguments, are the store's. */
ES_ACL_API void* es_acl_get_db_pointer(void* a, void* b, void* c, void* d, void* e, void* f);

/* --- Describing the rules record to the schema facility --- */

ES_ACL_API extern const es_acl_schema_descriptor es_acl_config_ace_schema;
/* Registers it. The arguments are the facility's own (up to six words) and are passed on unchanged. */
ES_ACL_API es_acl_status schema_register_all_es_acl_parse_schemas(void* a, void* b, void* c, void* d, void* e,
                                                                  void* f);

ES_ACL_END_DECLS

#endif /* ES_ACL_STORE_H_ */
