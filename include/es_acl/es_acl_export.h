/* Symbol visibility of the exported interface.
 *
 * The library is compiled with hidden visibility; what carries ES_ACL_API is the binary interface. */
#ifndef ES_ACL_EXPORT_H_
#define ES_ACL_EXPORT_H_

#ifdef __cplusplus
#define ES_ACL_EXTERN_C extern "C"
#define ES_ACL_BEGIN_DECLS extern "C" {
#define ES_ACL_END_DECLS }
#define ES_ACL_STATIC_ASSERT(expr, text) static_assert(expr, text)
#else
#define ES_ACL_EXTERN_C extern
#define ES_ACL_BEGIN_DECLS
#define ES_ACL_END_DECLS
#define ES_ACL_STATIC_ASSERT(expr, text) _Static_assert(expr, text)
#endif

#define ES_ACL_API __attribute__((visibility("default")))

#endif /* ES_ACL_EXPORT_H_ */
