// The frames of the local bus: what both ends put on a stream and how they check it.
//
// A frame is a 32-byte header in host byte order (both ends are on one host) and `length` bytes of payload.
// All frames but answers are padded with zeros to a multiple of 8, so that payloads are aligned wherever
// frames follow each other; an answer is alone on its connection and its bytes land in the caller's buffer,
// which has no room for padding. docs/bus.md has the conversation.
#ifndef ES_PLATFORM_SRC_BUS_FRAME_H_
#define ES_PLATFORM_SRC_BUS_FRAME_H_

#include <cstddef>
#include <cstdint>

namespace es_platform::bus {

enum class FrameKind : uint8_t {
  hello = 1,    // first on every connection; payload: Hello
  read,         // request to the producer's read operation; word: answer capacity
  lookup,       // is the name published? payload: the name; word: room for all published names
  ping,         // is anybody there?
  answer,       // to the three above; tag: the request's; word: status
  subscribe,    // tag: topic; word: 1 when it is renewed, else 0; payload: the name
  unsubscribe,  // tag: topic
  mark,         // nothing but its order
  push,         // tag: topic; word: message type
  sync,         // tag: topic; order: number of the synchronous request
  response,     // to sync and inquiry; order: the request's number
  beat,         // still here; the consumer answers each with one
  inquiry,      // a question beside the messages. tag: topic; order: number, as in sync
};

struct FrameHeader {
  uint16_t magic;
  uint8_t version;
  FrameKind kind;
  uint32_t length;  // of the payload, without padding
  uint32_t word;
  uint32_t reserved;  // 0
  uint64_t tag;
  // In subscribe, unsubscribe and mark: the consumer's changes up to this number are made when the frame has
  // been handled (0: says nothing). In read: changes that must have been made before it is answered.
  uint64_t order;
};
static_assert(sizeof(FrameHeader) == 32);

enum class Role : uint32_t { requests = 1, events = 2 };

struct Hello {
  uint64_t token;  // tells processes apart that had the same process id
  Role role;
  uint32_t reserved;  // 0
};
static_assert(sizeof(Hello) == 16);

// Message types that the bus itself tells apart.
inline constexpr uint32_t kWriteType = 6, kProducerRequestType = 17, kSyncRequestType = 18;

inline constexpr uint16_t kFrameMagic = 0x4553;
inline constexpr uint8_t kFrameVersion = 1;
inline constexpr size_t kMaxName = 255;
inline constexpr uint32_t kMaxMessage = 64U << 20;  // requests, pushes, responses
inline constexpr uint32_t kMaxAnswer = 1U << 30;

inline FrameHeader make_frame(FrameKind kind, size_t length, uint64_t tag = 0, uint32_t word = 0,
                              uint64_t order = 0) {
  return {kFrameMagic, kFrameVersion, kind, static_cast<uint32_t>(length), word, 0, tag, order};
}

inline constexpr size_t padded(size_t length) { return (length + 7) & ~size_t{7}; }

// A set of frame kinds, for what an end accepts.
using FrameKinds = uint32_t;
template <typename... Kinds>
constexpr FrameKinds frame_kinds(Kinds... kinds) {
  return ((1U << static_cast<unsigned>(kinds)) | ...);
}

// Longest payload that a frame of the kind may carry.
inline uint32_t frame_limit(FrameKind kind) {
  switch (kind) {
    case FrameKind::hello:
      return sizeof(Hello);
    case FrameKind::lookup:
    case FrameKind::subscribe:
      return kMaxName;
    case FrameKind::read:
    case FrameKind::push:
    case FrameKind::sync:
    case FrameKind::response:
    case FrameKind::inquiry:
      return kMaxMessage;
    case FrameKind::answer:
      return kMaxAnswer;
    case FrameKind::ping:
    case FrameKind::unsubscribe:
    case FrameKind::mark:
    case FrameKind::beat:
      return 0;
  }
  return 0;
}

// What is wrong with a header, null when nothing is.
inline const char* frame_fault(const FrameHeader& header, FrameKinds accepted) {
  if (header.magic != kFrameMagic) return "no frame starts here";
  if (header.version != kFrameVersion) return "unknown frame version";
  const auto kind = static_cast<unsigned>(header.kind);
  if (kind >= 32 || (accepted >> kind & 1U) == 0) return "frame kind not expected here";
  if (header.length > frame_limit(header.kind)) return "payload longer than its kind allows";
  if (header.kind == FrameKind::hello && header.length != sizeof(Hello)) return "hello of a wrong length";
  if (header.reserved != 0) return "reserved word set";
  return nullptr;
}

}  // namespace es_platform::bus

#endif  // ES_PLATFORM_SRC_BUS_FRAME_H_
