// Whether this is built for AddressSanitizer, which g++ and clang say in different ways: ES_PLATFORM_ASAN, 1 or 0.
#ifndef ES_PLATFORM_SRC_ASAN_H_
#define ES_PLATFORM_SRC_ASAN_H_

#if defined(__SANITIZE_ADDRESS__)
#define ES_PLATFORM_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ES_PLATFORM_ASAN 1
#endif
#endif
#ifndef ES_PLATFORM_ASAN
#define ES_PLATFORM_ASAN 0
#endif

#endif  // ES_PLATFORM_SRC_ASAN_H_
