/* The digest of a list, and the records by which a producer compares its clients' lists with its own. For whoever writes a
 * producer; a client calls es_acl_verify() (es_acl_verify.h).
 *
 * The digest of a list is XXH64, with seed 0, of the bytes that its entries have on the wire (es_acl_wire.h), in ascending
 * order and one behind the other: of each the first 72 bytes of the block, without private_data. It tells mistakes, not
 * forgers.
 *
 *     es_acl_digest digest;
 *     es_acl_digest_begin(&digest);
 *     for (...) es_acl_digest_add(&digest, &record->ace);      // in wire byte order
 *     es_acl_digest_end(&digest)
 *
 * The records follow the rules of es_acl_wire.h; 64-bit numbers are two words, the more significant one first. They
 * travel beside the messages there: ES_ACL_PCX_VERIFY is a request to the producer, and ES_ACL_PCX_DIGEST its inquiry to
 * the clients (pcx_producer_inquire()). docs/wire_format.md has the exchange and a worked example. */
#ifndef ES_ACL_DIGEST_H_
#define ES_ACL_DIGEST_H_

#include <string.h>

#include "es_acl/es_acl_types.h"
#include "es_acl/es_acl_wire.h"

/* --- The digest --- */

enum { ES_ACL_DIGEST_WORDS = 9 }; /* of 64 bits, of each entry */
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, private_data) == 8 * ES_ACL_DIGEST_WORDS, "whole words");

#define ES_ACL_DIGEST_P1 UINT64_C(0x9e3779b185ebca87)
#define ES_ACL_DIGEST_P2 UINT64_C(0xc2b2ae3d27d4eb4f)
#define ES_ACL_DIGEST_P3 UINT64_C(0x165667b19e3779f9)
#define ES_ACL_DIGEST_P4 UINT64_C(0x85ebca77c2b2ae63)
#define ES_ACL_DIGEST_P5 UINT64_C(0x27d4eb2f165667c5)

typedef struct es_acl_digest {
  uint64_t lanes[4];
  uint64_t stripe[4]; /* words that do not fill a stripe yet */
  uint64_t words;     /* so far */
} es_acl_digest;

static inline uint64_t es_acl_digest_rotate(uint64_t value, int bits) {
  return value << bits | value >> (64 - bits);
}

static inline uint64_t es_acl_digest_round(uint64_t lane, uint64_t word) {
  return es_acl_digest_rotate(lane + word * ES_ACL_DIGEST_P2, 31) * ES_ACL_DIGEST_P1;
}

/* The eight bytes as a little-endian number. */
static inline uint64_t es_acl_digest_word(const unsigned char* bytes) {
  uint64_t word;
  memcpy(&word, bytes, sizeof word);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  word = __builtin_bswap64(word);
#endif
  return word;
}

static inline void es_acl_digest_begin(es_acl_digest* digest) {
  memset(digest, 0, sizeof *digest);
  digest->lanes[0] = ES_ACL_DIGEST_P1 + ES_ACL_DIGEST_P2;
  digest->lanes[1] = ES_ACL_DIGEST_P2;
  digest->lanes[3] = 0 - ES_ACL_DIGEST_P1;
}

/* The list's next entry, in wire byte order. */
static inline void es_acl_digest_add(es_acl_digest* digest, const es_acl_ace* ace) {
  const unsigned char* bytes = (const unsigned char*)ace;
  for (int i = 0; i < ES_ACL_DIGEST_WORDS; ++i) {
    digest->stripe[digest->words % 4] = es_acl_digest_word(bytes + 8 * i);
    if (++digest->words % 4 != 0) continue;
    for (int lane = 0; lane < 4; ++lane)
      digest->lanes[lane] = es_acl_digest_round(digest->lanes[lane], digest->stripe[lane]);
  }
}

/* The same in host byte order. */
static inline void es_acl_digest_add_host(es_acl_digest* digest, const es_acl_ace* ace) {
  es_acl_ace on_wire = *ace;
  es_acl_wire_ace_block_order(&on_wire);
  es_acl_digest_add(digest, &on_wire);
}

static inline uint64_t es_acl_digest_end(const es_acl_digest* digest) {
  static const int rotations[4] = {1, 7, 12, 18};
  uint64_t hash = digest->words == 0 ? ES_ACL_DIGEST_P5 : 0;
  if (digest->words != 0) {
    for (int i = 0; i < 4; ++i) hash += es_acl_digest_rotate(digest->lanes[i], rotations[i]);
    for (int i = 0; i < 4; ++i)
      hash = (hash ^ es_acl_digest_round(0, digest->lanes[i])) * ES_ACL_DIGEST_P1 + ES_ACL_DIGEST_P4;
  }
  hash += 8 * digest->words;
  for (uint64_t i = 0; i < digest->words % 4; ++i) {
    hash ^= es_acl_digest_round(0, digest->stripe[i]);
    hash = es_acl_digest_rotate(hash, 27) * ES_ACL_DIGEST_P1 + ES_ACL_DIGEST_P4;
  }
  hash = (hash ^ hash >> 33) * ES_ACL_DIGEST_P2;
  hash = (hash ^ hash >> 29) * ES_ACL_DIGEST_P3;
  return hash ^ hash >> 32;
}

/* --- The records --- */

/* Sub-commands. */
enum { ES_ACL_PCX_VERIFY = 256, ES_ACL_PCX_DIGEST = 257 };

/* States of a client's copy, beside those of es_acl_sync.h. */
enum {
  ES_ACL_READING = 3,  /* it is just reading the list, or has let go of it: there is nothing to compare */
  ES_ACL_NO_ANSWER = 4 /* it has not answered in time */
};

/* Who has what of this ACL (to the producer), 80 bytes. Status 11: the clients are being asked, ask again; the answer is
 * there when all have answered or deadline_ms have passed since it was first asked. */
typedef struct es_acl_pcx_verify_req {
  uint32_t cmd;
  uint32_t ver;
  char acl_name[ES_ACL_NAME_FIELD_SIZE];
  uint8_t padding[3];
  uint32_t deadline_ms;
} es_acl_pcx_verify_req;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_pcx_verify_req) == 80, "wire size");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_pcx_verify_req, deadline_ms) == 76, "wire layout");

/* The answer: the producer's own list, 32 bytes, and num_clients es_acl_pcx_verify_client. */
typedef struct es_acl_pcx_verify_resp {
  uint32_t ver;
  uint32_t num_clients;
  uint32_t num_aces; /* remarks included */
  uint32_t num_remark_aces;
  uint32_t digest[2];
  uint32_t rules_digest[2]; /* without the remarks */
} es_acl_pcx_verify_resp;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_pcx_verify_resp) == 32, "wire size");

/* What the library answers to the inquiry, 24 bytes. */
typedef struct es_acl_pcx_digest_resp {
  uint32_t ver;
  uint32_t state;
  uint32_t rules_only; /* 1: the copy is without remarks, as one that came with others is */
  uint32_t num_aces;
  uint32_t digest[2];
} es_acl_pcx_digest_resp;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_pcx_digest_resp) == 24, "wire size");

/* One client process, 156 bytes. */
typedef struct es_acl_pcx_verify_client {
  int32_t pid;
  es_acl_pcx_digest_resp copy;
  char proc_name[ACL_PCX_RESP_PROC_NAME_SIZE]; /* empty when it is not known */
} es_acl_pcx_verify_client;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_pcx_verify_client) == 156, "wire size");

/* The producer's inquiry to a client, about the name to which it is addressed, 8 bytes. */
typedef struct es_acl_pcx_digest_req {
  uint32_t cmd;
  uint32_t ver;
} es_acl_pcx_digest_req;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_pcx_digest_req) == 8, "wire size");

static inline void es_acl_wire_verify_req_order(es_acl_pcx_verify_req* record) {
  record->cmd = es_acl_wire_32(record->cmd);
  record->ver = es_acl_wire_32(record->ver);
  record->deadline_ms = es_acl_wire_32(record->deadline_ms);
}

static inline void es_acl_wire_verify_resp_order(es_acl_pcx_verify_resp* record) {
  record->ver = es_acl_wire_32(record->ver);
  record->num_clients = es_acl_wire_32(record->num_clients);
  record->num_aces = es_acl_wire_32(record->num_aces);
  record->num_remark_aces = es_acl_wire_32(record->num_remark_aces);
  es_acl_wire_words32(record->digest, 2);
  es_acl_wire_words32(record->rules_digest, 2);
}

static inline void es_acl_wire_digest_req_order(es_acl_pcx_digest_req* record) {
  record->cmd = es_acl_wire_32(record->cmd);
  record->ver = es_acl_wire_32(record->ver);
}

static inline void es_acl_wire_digest_resp_order(es_acl_pcx_digest_resp* record) {
  record->ver = es_acl_wire_32(record->ver);
  record->state = es_acl_wire_32(record->state);
  record->rules_only = es_acl_wire_32(record->rules_only);
  record->num_aces = es_acl_wire_32(record->num_aces);
  es_acl_wire_words32(record->digest, 2);
}

static inline void es_acl_wire_verify_client_order(es_acl_pcx_verify_client* record) {
  record->pid = (int32_t)es_acl_wire_32((uint32_t)record->pid);
  es_acl_wire_digest_resp_order(&record->copy);
}

static inline void es_acl_wire_set_digest(uint32_t words[2], uint64_t digest) {
  words[0] = (uint32_t)(digest >> 32);
  words[1] = (uint32_t)digest;
}

static inline uint64_t es_acl_wire_digest(const uint32_t words[2]) {
  return (uint64_t)words[0] << 32 | words[1];
}

#endif /* ES_ACL_DIGEST_H_ */
