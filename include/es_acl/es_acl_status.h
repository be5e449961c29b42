/* Status codes.
 *
 * Every operation that can fail returns an unsigned 32-bit status, 0 for success. A status is one of
 *   - a plain POSIX errno value (2, 12, 22, ...), its Linux number;
 *   - one of the library's own codes below;
 *   - a code of the platform services (bus, name service), passed through unchanged.
 * A code whose top three bits are binary 100 is transient: it may pass. Class creation, the registration of a name and
 * the read of an ACL have retried it already when they return it.
 * errcode_string() of the platform (es_platform/diag.h) gives the text of all three.
 *
 * This list is the only place where a code's name, value and text stand. In C the names are objects, not constant
 * expressions: compare with `if`, they cannot label a `case`. */
#ifndef ES_ACL_STATUS_H_
#define ES_ACL_STATUS_H_

#include <stdint.h>

typedef uint32_t es_acl_status;

/* X(name, value, text) */
#define ES_ACL_STATUS_LIST(X)                                                                   \
  X(ES_ACL_E_DB_OPEN, 0xa6b18600u, "the store plug-in could not be opened")                     \
  X(ES_ACL_E_DB_SYMBOL, 0xa6b18800u, "the store plug-in does not export es_acl_api_init_funcs") \
  X(ES_ACL_E_NAME, 0xc6b18a00u, "invalid ACL name")                                             \
  X(ES_ACL_E_INVALID, 0x46b18400u, "invalid argument")                                          \
  X(ES_ACL_E_NO_MEMORY, 0x46b18200u, "out of memory for a notify entry")                        \
  X(ES_ACL_E_NOT_FOUND, 0x46b19a00u, "no such ACL")                                             \
  X(ES_ACL_E_NO_RULES, 0x26b19e00u, "the producer reports no ACEs other than remarks")          \
  X(ES_ACL_E_ANSWER_VERSION, 0x113u, "the producer's answer has a version this library does not know")

/* Typed constants rather than an enumeration: the values need all 32 bits. */
#ifdef __cplusplus
#define ES_ACL_STATUS_AS_CONSTANT(name, value, text) inline constexpr es_acl_status name = value;
#else
#define ES_ACL_STATUS_AS_CONSTANT(name, value, text) static const es_acl_status name = value;
#endif
ES_ACL_STATUS_LIST(ES_ACL_STATUS_AS_CONSTANT)
#undef ES_ACL_STATUS_AS_CONSTANT

#endif /* ES_ACL_STATUS_H_ */
