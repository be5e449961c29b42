// Bus records built and read byte by byte, from their offsets alone: the tests' own view of the wire, which
// shares nothing with the conversions that the library uses.
#ifndef TESTS_SUPPORT_WIRE_BYTES_H_
#define TESTS_SUPPORT_WIRE_BYTES_H_

#include <cstdint>
#include <initializer_list>
#include <string>

#include "scripted_platform.h"

namespace es_test {

inline void put_32(Bytes& bytes, size_t offset, uint32_t value) {
  for (int i = 3; i >= 0; --i, value >>= 8)
    bytes.at(offset + static_cast<size_t>(i)) = static_cast<uint8_t>(value);
}

inline uint32_t get_32(const Bytes& bytes, size_t offset) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | bytes.at(offset + i);
  return value;
}

// The name in a field of 65 bytes, up to its NUL; "(no NUL)" when there is none.
inline std::string get_name(const Bytes& bytes, size_t offset) {
  const std::string field(bytes.begin() + static_cast<long>(offset),
                          bytes.begin() + static_cast<long>(offset) + 65);
  const size_t end = field.find('\0');
  return end == std::string::npos ? "(no NUL)" : field.substr(0, end);
}

// One 160-byte ACE record.
inline Bytes ace_record(uint32_t seq, uint32_t version = 1) {
  Bytes bytes(160, 0);
  put_32(bytes, 4, version);
  put_32(bytes, 100, seq);
  return bytes;
}

inline Bytes ace_records(std::initializer_list<uint32_t> sequence) {
  Bytes bytes;
  for (const uint32_t seq : sequence) {
    const Bytes record = ace_record(seq);
    bytes.insert(bytes.end(), record.begin(), record.end());
  }
  return bytes;
}

// The 16-byte answer to a count query.
inline Bytes count_answer(uint32_t aces, uint32_t remarks, uint32_t version = 1) {
  Bytes bytes(16, 0);
  put_32(bytes, 0, version);
  put_32(bytes, 8, aces);
  put_32(bytes, 12, remarks);
  return bytes;
}

}  // namespace es_test

#endif  // TESTS_SUPPORT_WIRE_BYTES_H_
