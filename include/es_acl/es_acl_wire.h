/* The records that cross the bus, for whoever writes a producer.
 *
 * Every 16- and 32-bit integer is big-endian on the wire, in both directions; one-byte and character fields
 * are as they stand. A sender builds a record in host order and converts it just before sending; a receiver
 * converts in place before use. The es_acl_wire_*_order() functions below do both: conversion is its own
 * inverse. A name field is 65 bytes, at most 64 characters and a NUL; what follows the NUL, and all padding,
 * means nothing.
 *
 * Requests of the library and pushes of the producer begin with the words `cmd` and `ver`.
 * docs/wire_format.md has the exchange and a worked example. */
#ifndef ES_ACL_WIRE_H_
#define ES_ACL_WIRE_H_

#include <string.h>

#include "es_acl/es_acl_types.h"

/* Class of the name service under which ACL names are registered. */
#define ES_ACL_DSV_CLASS_NAME "DSV_CLASS_ACL_ES_NAME"

/* Message types: how the bus delivers. */
enum {
  PCX_CMD_WRITE = 6,          /* pushed write, no response */
  PCX_CMD_PROD_REQ = 17,      /* producer request, logged and otherwise ignored */
  PCX_CMD_PROD_SYNC_REQ = 18, /* synchronous request, answered with an acl_pcx_cons_resp */
};

/* Sub-commands: the first word of a payload. */
enum {
  ACL_PCX_ADD_ACE = 0,
  ACL_PCX_REMOVE_ACE = 1,
  ACL_PCX_QUERY_ACE_COUNT = 4,
  ACL_PCX_READ_ACES = 5,
  ACL_PCX_RESEQ = 10,
  ACL_PCX_QUERY_CONS = 13,
  ACL_PCX_QUERY_RES_AVAIL = 14,
  ACL_PCX_CANCEL_QUERY_RES_AVAIL = 15,
  ACL_PCX_QUERY_ACE_COUNT_BULK = 16,
  ACL_PCX_READ_ACES_BULK = 17,
};

enum {
  ES_ACL_PCX_VERSION = 1,         /* of every record but the response */
  ACL_PCX_CONS_RESP_VERSION = 2,  /* of acl_pcx_cons_resp */
  ACL_PCX_CONS_REQ_MIN_SIZE = 73, /* acl_pcx_cons_req up to its name's end */
  ACL_PCX_RESP_PROC_NAME_SIZE = 128,
  ACL_PCX_RESP_NODE_NAME_SIZE = 32,
};

/* How many ACEs an ACL has (library to producer, sub-command 4), 76 bytes. */
typedef struct acl_pcx_query_req {
  uint32_t cmd;
  uint32_t ver;
  char acl_name[ES_ACL_NAME_FIELD_SIZE];
  uint8_t padding[3];
} acl_pcx_query_req;
ES_ACL_STATIC_ASSERT(sizeof(acl_pcx_query_req) == 76, "wire size");
ES_ACL_STATIC_ASSERT(offsetof(acl_pcx_query_req, acl_name) == 8, "wire layout");

/* The answer, 16 bytes; for sub-command 16 one for each name, in order. */
typedef struct acl_pcx_query_resp {
  uint32_t ver;
  uint32_t acl_type;        /* carried, not read by the library */
  uint32_t num_aces;        /* remarks included */
  uint32_t num_remark_aces; /* how many of them are remarks */
} acl_pcx_query_resp;
ES_ACL_STATIC_ASSERT(sizeof(acl_pcx_query_resp) == 16, "wire size");

/* A batch of an ACL's ACEs (sub-command 5), 84 bytes. The answer is an array of es_acl_pcx_acl_ace, at most
 * max_entries of them, in ascending order, each numbered above start_seq; fewer than max_entries end the ACL.
 */
typedef struct acl_pcx_read_req {
  uint32_t cmd;
  uint32_t ver;
  char acl_name[ES_ACL_NAME_FIELD_SIZE];
  uint8_t padding[3];
  uint32_t start_seq; /* 0 at first, then the last number received */
  uint32_t max_entries;
} acl_pcx_read_req;
ES_ACL_STATIC_ASSERT(sizeof(acl_pcx_read_req) == 84, "wire size");
ES_ACL_STATIC_ASSERT(offsetof(acl_pcx_read_req, start_seq) == 76, "wire layout");

/* Header of the bulk requests (sub-commands 16 and 17), 16 bytes; num_entries name fields follow back to
 * back. */
typedef struct acl_pcx_bulk_req {
  uint32_t cmd;
  uint32_t ver;
  uint32_t num_entries;
  uint32_t one; /* always 1 */
} acl_pcx_bulk_req;
ES_ACL_STATIC_ASSERT(sizeof(acl_pcx_bulk_req) == 16, "wire size");

/* One ACE, 160 bytes: element of read answers, of pushed batches and of resource queries. */
typedef struct es_acl_pcx_acl_ace {
  uint32_t cmd; /* ACL_PCX_ADD_ACE or ACL_PCX_REMOVE_ACE in a pushed batch; not read in answers */
  uint32_t ver;
  char acl_name[ES_ACL_NAME_FIELD_SIZE];
  uint8_t padding[7];
  es_acl_ace ace; /* integers big-endian; private_data means nothing */
} es_acl_pcx_acl_ace;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_pcx_acl_ace) == 160, "wire size");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_pcx_acl_ace, ace) == 80, "wire layout");

/* Header of a resequencing (sub-command 10), 88 bytes; num_skip_seqs numbers follow. */
typedef struct acl_pcx_reseq {
  uint32_t cmd;
  uint32_t ver;
  char acl_name[ES_ACL_NAME_FIELD_SIZE];
  uint8_t padding[3];
  uint32_t start_seq; /* first new number */
  uint32_t step;      /* from one new number to the next */
  uint32_t num_skip_seqs;
} acl_pcx_reseq;
ES_ACL_STATIC_ASSERT(sizeof(acl_pcx_reseq) == 88, "wire size");
ES_ACL_STATIC_ASSERT(offsetof(acl_pcx_reseq, start_seq) == 76, "wire layout");

/* Does this consumer use the ACL (synchronous, sub-command 13)? The padding need not be sent. */
typedef struct acl_pcx_cons_req {
  uint32_t cmd;
  uint32_t ver;
  char acl_name[ES_ACL_NAME_FIELD_SIZE];
  uint8_t padding[3];
} acl_pcx_cons_req;
ES_ACL_STATIC_ASSERT(offsetof(acl_pcx_cons_req, acl_name) + ES_ACL_NAME_FIELD_SIZE ==
                         ACL_PCX_CONS_REQ_MIN_SIZE,
                     "wire layout");

/* Header of the resource queries (sub-commands 14 and 15), 88 bytes. As a write num_aces es_acl_pcx_acl_ace
 * records follow, the candidates; the synchronous forms are the header alone and mean the held write with the
 * same key. */
typedef struct es_acl_pcx_res_query_req {
  uint32_t cmd;
  uint32_t ver;
  int32_t res_state;   /* in a withdrawal 0 means that there is nothing to release */
  uint16_t req_origin; /* first half of the request's key */
  uint16_t req_num;    /* second half */
  uint32_t num_aces;
  char acl_name[ES_ACL_NAME_FIELD_SIZE];
  uint8_t padding[3];
} es_acl_pcx_res_query_req;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_pcx_res_query_req) == 88, "wire size");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_pcx_res_query_req, req_origin) == 12, "wire layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_pcx_res_query_req, acl_name) == 20, "wire layout");

/* The library's answer to every synchronous request, 176 bytes. */
typedef struct acl_pcx_cons_resp {
  uint32_t ver; /* ACL_PCX_CONS_RESP_VERSION */
  uint32_t rc;
  int32_t pid;
  int32_t in_use;
  char proc_name[ACL_PCX_RESP_PROC_NAME_SIZE];
  char node_name[ACL_PCX_RESP_NODE_NAME_SIZE];
} acl_pcx_cons_resp;
ES_ACL_STATIC_ASSERT(sizeof(acl_pcx_cons_resp) == 176, "wire size");

/* --- Byte order --- */

static inline uint16_t es_acl_wire_16(uint16_t value) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  return __builtin_bswap16(value);
#else
  return value;
#endif
}

static inline uint32_t es_acl_wire_32(uint32_t value) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  return __builtin_bswap32(value);
#else
  return value;
#endif
}

static inline void es_acl_wire_words16(uint16_t* words, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) words[i] = es_acl_wire_16(words[i]);
}

static inline void es_acl_wire_words32(uint32_t* words, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) words[i] = es_acl_wire_32(words[i]);
}

/* The 80-byte block: the integer fields only, the carried bytes stay. */
static inline void es_acl_wire_ace_block_order(es_acl_ace* ace) {
  ace->kind = es_acl_wire_32(ace->kind);
  ace->reserved16 = es_acl_wire_32(ace->reserved16);
  ace->seq = es_acl_wire_32(ace->seq);
  es_acl_wire_words16(ace->src_addr, 3);
  es_acl_wire_words16(ace->src_wild, 3);
  es_acl_wire_words16(ace->dst_addr, 3);
  es_acl_wire_words16(ace->dst_wild, 3);
  ace->vlan_first = es_acl_wire_16(ace->vlan_first);
  ace->vlan_last = es_acl_wire_16(ace->vlan_last);
  ace->ivlan_first = es_acl_wire_16(ace->ivlan_first);
  ace->ivlan_last = es_acl_wire_16(ace->ivlan_last);
  ace->capture = es_acl_wire_32(ace->capture);
  ace->eth_type = es_acl_wire_16(ace->eth_type);
}

static inline void es_acl_wire_acl_ace_order(es_acl_pcx_acl_ace* record) {
  record->cmd = es_acl_wire_32(record->cmd);
  record->ver = es_acl_wire_32(record->ver);
  es_acl_wire_ace_block_order(&record->ace);
}

static inline void es_acl_wire_query_req_order(acl_pcx_query_req* record) {
  record->cmd = es_acl_wire_32(record->cmd);
  record->ver = es_acl_wire_32(record->ver);
}

static inline void es_acl_wire_query_resp_order(acl_pcx_query_resp* record) {
  record->ver = es_acl_wire_32(record->ver);
  record->acl_type = es_acl_wire_32(record->acl_type);
  record->num_aces = es_acl_wire_32(record->num_aces);
  record->num_remark_aces = es_acl_wire_32(record->num_remark_aces);
}

static inline void es_acl_wire_read_req_order(acl_pcx_read_req* record) {
  record->cmd = es_acl_wire_32(record->cmd);
  record->ver = es_acl_wire_32(record->ver);
  record->start_seq = es_acl_wire_32(record->start_seq);
  record->max_entries = es_acl_wire_32(record->max_entries);
}

static inline void es_acl_wire_bulk_req_order(acl_pcx_bulk_req* record) {
  record->cmd = es_acl_wire_32(record->cmd);
  record->ver = es_acl_wire_32(record->ver);
  record->num_entries = es_acl_wire_32(record->num_entries);
  record->one = es_acl_wire_32(record->one);
}

/* The header; the numbers that follow are es_acl_wire_words32()'s. */
static inline void es_acl_wire_reseq_order(acl_pcx_reseq* record) {
  record->cmd = es_acl_wire_32(record->cmd);
  record->ver = es_acl_wire_32(record->ver);
  record->start_seq = es_acl_wire_32(record->start_seq);
  record->step = es_acl_wire_32(record->step);
  record->num_skip_seqs = es_acl_wire_32(record->num_skip_seqs);
}

static inline void es_acl_wire_cons_req_order(acl_pcx_cons_req* record) {
  record->cmd = es_acl_wire_32(record->cmd);
  record->ver = es_acl_wire_32(record->ver);
}

/* The header; the records that follow are es_acl_wire_acl_ace_order()'s. */
static inline void es_acl_wire_res_query_req_order(es_acl_pcx_res_query_req* record) {
  record->cmd = es_acl_wire_32(record->cmd);
  record->ver = es_acl_wire_32(record->ver);
  record->res_state = (int32_t)es_acl_wire_32((uint32_t)record->res_state);
  record->req_origin = es_acl_wire_16(record->req_origin);
  record->req_num = es_acl_wire_16(record->req_num);
  record->num_aces = es_acl_wire_32(record->num_aces);
}

static inline void es_acl_wire_cons_resp_order(acl_pcx_cons_resp* record) {
  record->ver = es_acl_wire_32(record->ver);
  record->rc = es_acl_wire_32(record->rc);
  record->pid = (int32_t)es_acl_wire_32((uint32_t)record->pid);
  record->in_use = (int32_t)es_acl_wire_32((uint32_t)record->in_use);
}

/* Bounded copy into a name field: at most 64 characters, always terminated, zero-filled behind. `name` is
 * read up to its NUL or its 64th character. */
static inline void es_acl_wire_set_name(char field[ES_ACL_NAME_FIELD_SIZE], const char* name) {
  size_t length = 0;
  while (length < ES_ACL_NAME_MAX && name[length] != '\0') ++length;
  memset(field, 0, ES_ACL_NAME_FIELD_SIZE);
  memcpy(field, name, length);
}

#endif /* ES_ACL_WIRE_H_ */
