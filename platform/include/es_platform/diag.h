/* Diagnostics: debug lines, binary trace buffers, error texts, assertions, blocked-thread marks.
 *
 * Debug categories, trace buffers and the reporting channel's counters (process.h) of every process live in
 * files under the diagnostics directory (environment ES_DIAG_DIR, else $XDG_RUNTIME_DIR/es-acl/diag, else
 * /run/es-acl/diag), where the command `es-diag` reads them, and switches categories on and off, from
 * outside. Where that directory cannot be made they live in private memory: nothing fails for want of it. */
#ifndef ES_PLATFORM_DIAG_H_
#define ES_PLATFORM_DIAG_H_

#include "es_platform/platform.h"

/* --- Debug lines --- */

/* One debug category. `enabled` may be changed at any time from outside. */
typedef struct debug_category {
  volatile uint32_t enabled;
  uint32_t index;
  char name[24]; /* "error", "info", "detail", ... */
  char text[96]; /* what it prints */
} debug_category;

/* Handles below this value count as unset. */
#define DEBUG_HANDLE_MIN 4096

/* --- Trace records --- */

typedef struct rlog_ctx rlog_ctx;

PLATFORM_BEGIN_DECLS

/* Registers `category_count` (1 to 16) categories under `path` and hands out the array. Categories named in
 * the environment variable ES_DEBUG (comma-separated names, "path/name" for those of one path only, or "all")
 * start enabled, the others disabled. `ctx` is the process's event manager and is not used. The array lives
 * as long as the process; the same path again gives the same array. 0, 12, or 22 (also for more categories
 * than the path has). */
PLATFORM_API uint32_t acl_debug_init(debug_category** handle, void* ctx, const char* path,
                                     uint32_t category_count);

/* Prints one line: time, process, category, text. Printed whatever `enabled` says: the caller looks at it
 * first, so that an unprinted line costs a load and a branch and its arguments are not evaluated. The two
 * numbers are 0 and 1. Lines go to standard error, or to the end of the file that the environment variable
 * ES_DEBUG_FILE names; each is one write. */
PLATFORM_API void debug_printf(const debug_category* category, uint32_t reserved, uint32_t level,
                               const char* format, ...) __attribute__((format(printf, 4, 5)));

/* Opens a trace buffer called path + suffix, for instance "/es/acl-dll/_wr". `unique` non-zero: a buffer of
 * that many records in which a record equal to an earlier one (same operation, event and values) only counts
 * up there, and which keeps its first records; `wrapping` non-zero: a ring of that many records, rounded up
 * to a power of two. Opening a name that is open already gives the same buffer. 0, 12 or 22. */
PLATFORM_API uint32_t acl_rlog_init(const char* path, const char* suffix, uint32_t unique, uint32_t wrapping,
                                    rlog_ctx** ctx);
/* Closes the buffer; the context is gone when it was opened once. Null is allowed. */
PLATFORM_API void acl_rlog_close(rlog_ctx* ctx);

/* Write one record: the operation's name, an event (both are copied, 39 and 31 characters at most) and up to
 * four values, or a string (64 characters at most, so that an ACL's name fits) and two values. A null context
 * writes nothing; null strings write "(null)". Lock-free, tens of nanoseconds, no allocation, any thread;
 * errno stays as it was. A record for which there is no place (a full unique buffer; a ring that a whole
 * round of records has run through meanwhile) is counted and dropped. */
PLATFORM_API void _rlog_str(rlog_ctx* ctx, const char* operation, const char* event, const char* text,
                            uint64_t a, uint64_t b);
PLATFORM_API void _rlog_1(rlog_ctx* ctx, const char* operation, const char* event, uint64_t a);
PLATFORM_API void _rlog_2(rlog_ctx* ctx, const char* operation, const char* event, uint64_t a, uint64_t b);
PLATFORM_API void _rlog_3(rlog_ctx* ctx, const char* operation, const char* event, uint64_t a, uint64_t b,
                          uint64_t c);
PLATFORM_API void _rlog_4(rlog_ctx* ctx, const char* operation, const char* event, uint64_t a, uint64_t b,
                          uint64_t c, uint64_t d);

/* --- Error texts --- */

typedef struct errcode_text {
  uint32_t code;
  const char* text; /* static */
} errcode_text;

/* The text of a status: the platform's own codes, those of the added tables, else the POSIX text. Never null;
 * an unknown code's text names its number and stays valid until the thread's fourth such call after it. */
PLATFORM_API const char* errcode_string(uint32_t code);
/* Adds a table of static texts. 0 or 12. */
PLATFORM_API uint32_t errcode_add_table(const errcode_text* table, size_t count);

/* --- Assertions and blocked threads --- */

/* Prints "FILE:LINE: FUNCTION: assertion `TEXT' failed" and ends the process with SIGABRT. */
PLATFORM_API void assert_fail(const char* text, const char* file, int line, const char* function)
    __attribute__((noreturn));

/* Marks this thread as about to block on a mutex, for `es-diag threads`. The name is copied, 31 characters at
 * most. A second mark before the unmark changes nothing. errno stays as it was. */
PLATFORM_API void thread_mark_mutex_block(const void* mutex, const char* name, uint32_t number);
PLATFORM_API void thread_unmark_mutex_block(void);

PLATFORM_END_DECLS

#endif /* ES_PLATFORM_DIAG_H_ */
