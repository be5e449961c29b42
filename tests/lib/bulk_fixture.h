// A producer with ACLs of its own, for the tests of the operations on many ACLs.
#ifndef TESTS_LIB_BULK_FIXTURE_H_
#define TESTS_LIB_BULK_FIXTURE_H_

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

#include "library_fixture.h"

namespace es_test {

struct Kept {
  Numbers sequence;  // of its ACEs
  uint32_t remarks;  // that it has besides
};
using Acls = std::map<std::string, Kept>;

// The names in a bulk request, whose length and other words are as they must be.
inline Lines names_in(const Bytes& request, uint32_t command) {
  const uint32_t count = get_32(request, 8);
  EXPECT_EQ(request.size(), 16 + 65 * size_t{count});
  EXPECT_EQ(get_32(request, 0), command);
  EXPECT_EQ(get_32(request, 4), 1U);
  EXPECT_EQ(get_32(request, 12), 1U);
  Lines names;
  for (uint32_t i = 0; i < count; ++i) names.push_back(get_name(request, 16 + 65 * size_t{i}));
  return names;
}

inline Bytes& operator+=(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes;
}

inline Bytes answer_to(const Bytes& request, const Acls& acls) {
  const uint32_t command = get_32(request, 0);
  Bytes bytes;
  for (const std::string& name : names_in(request, command)) {
    const Kept& acl = acls.at(name);
    const auto aces = static_cast<uint32_t>(acl.sequence.size());
    if (command == 16) bytes += count_answer(aces + acl.remarks, acl.remarks);
    for (const uint32_t seq : command == 17 ? acl.sequence : Numbers()) {
      bytes += ace_record(seq);
      std::copy(name.begin(), name.end(),
                bytes.end() - sizeof(es_acl_pcx_acl_ace) + offsetof(es_acl_pcx_acl_ace, acl_name));
    }
  }
  return bytes;
}

// The producer as a step of pcx_read(), and as all of the bus behind the queued steps. Its address shows as "producer".
inline auto producer(const Acls& acls) {
  return [shared = std::make_shared<const Acls>(acls)](void* handle, const void* request, uint32_t length,
                                                       void* buffer, uint32_t* room) {
    const auto* const bytes = static_cast<const uint8_t*>(request);
    return answer(answer_to(Bytes(bytes, bytes + length), *shared))(handle, request, length, buffer, room);
  };
}
inline void serve(const Acls& acls) {
  static char address;
  name_pointer(&address, "producer");
  es_acl_global_handle = &address;
  platform().pcx_read.always(producer(acls));
  platform().dsv_lookup_data.always(
      [shared = std::make_shared<const Acls>(acls)](uint32_t, const char* name, void** found) {
        if (!shared->contains(name)) return DSV_NO_DATA;
        *found = &address;
        return 0U;
      });
}

// The names as the bus operations take them.
inline std::vector<char> fields(const Lines& names) {
  std::vector<char> bytes(65 * names.size() + 1);
  for (size_t i = 0; i < names.size(); ++i) strncpy(&bytes[65 * i], names[i].c_str(), 64);
  return bytes;
}

inline std::string hex(const void* pointer) {
  char text[32];
  snprintf(text, sizeof text, "%p", pointer);
  return text;
}

// "acl-0", "acl-1", ...
inline Lines numbered(uint32_t count) {
  Lines names;
  for (uint32_t i = 0; i < count; ++i) names.push_back("acl-" + std::to_string(i));
  return names;
}

}  // namespace es_test

#endif  // TESTS_LIB_BULK_FIXTURE_H_
