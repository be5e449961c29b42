/* Fixed records that clients, store plug-ins and the library share.
 *
 * All integers in these records are in host byte order. Sizes and offsets are part of the binary interface
 * and asserted below each record. The records carry no lock of their own: an ACE that a walk, a search or a
 * callback hands out is read-only for the client. */
#ifndef ES_ACL_TYPES_H_
#define ES_ACL_TYPES_H_

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "es_acl/es_acl_export.h"

#define ES_ACL_NAME_MAX 64        /* longest ACL name in characters, without its NUL */
#define ES_ACL_NAME_FIELD_SIZE 65 /* the name as a fixed field: 64 characters and a NUL */

/* One ACL's local copy; its record is described in es_acl_store.h. A client treats it as a handle. */
typedef struct es_acl_head es_acl_head;

/* es_acl_ace.kind */
enum {
  ES_ACL_KIND_RULE = 0,  /* matches frames */
  ES_ACL_KIND_REMARK = 1 /* a remark: keeps its place and sequence number, never matches */
};

/* es_acl_ace.match_mask, as the 64-bit number that es_acl_ace_match_mask() gives: a set bit means that the
 * frame's field is compared with the ACE's; a clear one, that any value matches. */
enum {
  ES_ACL_MATCH_SRC_ADDR = 0x001,
  ES_ACL_MATCH_DST_ADDR = 0x002,
  ES_ACL_MATCH_VLAN = 0x004,  /* outer tag's VLAN id, a range */
  ES_ACL_MATCH_IVLAN = 0x008, /* inner tag's VLAN id, a range */
  ES_ACL_MATCH_ETH_TYPE = 0x010,
  ES_ACL_MATCH_COS = 0x020,  /* outer tag's priority code point, 0 to 7 */
  ES_ACL_MATCH_DEI = 0x040,  /* outer tag's drop-eligible indicator, 0 or 1 */
  ES_ACL_MATCH_ICOS = 0x080, /* the inner tag's, likewise */
  ES_ACL_MATCH_IDEI = 0x100
};

/* es_acl_ace.grant */
enum { ES_ACL_DENY = 0, ES_ACL_PERMIT = 1 };

/* One access control entry, 80 bytes: an element of the rules pool before it is added, the store's
 * afterwards.
 *
 * Addresses and wildcard masks are three 16-bit words each, most significant word first: 00:11:22:33:44:55 is
 * {0x0011, 0x2233, 0x4455}. A set bit of a wildcard mask means "any value" for that bit of the address.
 * Two ACEs are equal exactly when all 80 bytes are. */
typedef struct es_acl_ace {
  uint32_t kind;         /*  0: ES_ACL_KIND_* */
  uint8_t match_mask[8]; /*  4: which fields are compared, most significant byte first */
  uint8_t reserved12[4]; /* 12: zero */
  uint32_t reserved16;   /* 16: zero */
  uint32_t seq;          /* 20: sequence number, the key within the ACL, 1 and up */
  uint16_t src_addr[3];  /* 24: source address */
  uint16_t src_wild[3];  /* 30: its wildcard mask */
  uint16_t dst_addr[3];  /* 36: destination address */
  uint16_t dst_wild[3];  /* 42: its wildcard mask */
  uint16_t vlan_first;   /* 48: outer VLAN range, both ends included */
  uint16_t vlan_last;    /* 50 */
  uint8_t cos;           /* 52: outer priority code point */
  uint8_t dei;           /* 53: outer drop-eligible indicator */
  uint16_t ivlan_first;  /* 54: inner VLAN range, both ends included */
  uint16_t ivlan_last;   /* 56 */
  uint8_t icos;          /* 58: inner priority code point */
  uint8_t idei;          /* 59: inner drop-eligible indicator */
  uint32_t capture;      /* 60: 1 when matching frames are to be captured, else 0 */
  uint16_t eth_type;     /* 64: EtherType */
  uint8_t grant;         /* 66: ES_ACL_DENY or ES_ACL_PERMIT */
  uint8_t log_option;    /* 67: 0 no logging, 1 log matches */
  uint8_t reserved68[4]; /* 68: zero */
  void* private_data; /* 72: means nothing outside the process; null in a stored ACE, of any value in one that
                            is about to be stored */
} es_acl_ace;

ES_ACL_STATIC_ASSERT(sizeof(es_acl_ace) == 80, "an ACE record is 80 bytes");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, match_mask) == 4, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, reserved16) == 16, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, seq) == 20, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, src_addr) == 24, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, src_wild) == 30, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, dst_addr) == 36, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, dst_wild) == 42, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, vlan_first) == 48, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, cos) == 52, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, ivlan_first) == 54, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, icos) == 58, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, capture) == 60, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, eth_type) == 64, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, grant) == 66, "layout");
ES_ACL_STATIC_ASSERT(offsetof(es_acl_ace, private_data) == 72, "layout");

/* The match mask as a number: the ES_ACL_MATCH_* bits. */
static inline uint64_t es_acl_ace_match_mask(const es_acl_ace* ace) {
  uint64_t mask = 0;
  for (int i = 0; i < 8; ++i) mask = mask << 8 | ace->match_mask[i];
  return mask;
}

/* Writes the match mask from the ES_ACL_MATCH_* bits. */
static inline void es_acl_ace_set_match_mask(es_acl_ace* ace, uint64_t mask) {
  for (int i = 7; i >= 0; --i, mask >>= 8) ace->match_mask[i] = (uint8_t)(mask & 0xff);
}

/* es_acl_match_key.tags: how many tags the frame carries. A frame without the tag never matches an ACE that
 * compares one of the tag's fields. */
enum { ES_ACL_KEY_UNTAGGED = 0, ES_ACL_KEY_TAGGED = 1, ES_ACL_KEY_DOUBLE_TAGGED = 2 };

/* The fields of one Ethernet header, as es_acl_match_complex() takes them. Addresses as in es_acl_ace. */
typedef struct es_acl_match_key {
  uint16_t src_addr[3];
  uint16_t dst_addr[3];
  uint16_t vlan;     /* outer tag, when tags >= 1 */
  uint16_t ivlan;    /* inner tag, when tags == 2 */
  uint16_t eth_type; /* the EtherType behind the tags */
  uint8_t cos;
  uint8_t dei;
  uint8_t icos;
  uint8_t idei;
  uint8_t tags; /* ES_ACL_KEY_* */
  uint8_t reserved;
} es_acl_match_key;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_match_key) == 24, "layout");

/* Result of es_acl_match_complex(). */
enum { ES_ACL_MATCH_NONE = 0, ES_ACL_MATCH_PERMIT = 1, ES_ACL_MATCH_DENY = 2 };

/* What the first matching ACE says, where the caller asked for it. */
typedef struct es_acl_match_hit {
  uint32_t seq;
  uint32_t capture;
  uint32_t log_option;
} es_acl_match_hit;

/* A list of names (input: `const char*` entries) or of ACL handles (output: `es_acl_head*` entries).
 * `entries` is an array of `count` pointers that belongs to the caller. */
typedef struct es_acl_handle_list {
  uint32_t count;
  void** entries;
} es_acl_handle_list;
ES_ACL_STATIC_ASSERT(offsetof(es_acl_handle_list, entries) == 8, "layout");

/* A position in an ACL's list, owned by the caller, read and updated by the store. Null is "no position yet".
 * A position belongs to one ACL; it stays safe to use, if no longer quick, when the list changes in between.
 */
typedef void* es_acl_iter;

/* A node of an ACL's list as the walk accessors hand it out (its first three words are described in
 * es_acl_store.h). */
typedef struct es_acl_ace_node es_acl_ace_node;

/* Called for each entry of a traversal, in list order, with a fresh copy of the caller's further arguments. A non-zero
 * result ends the traversal. The ACL's lock is held: call none of its locked operations. */
typedef uint32_t (*es_acl_visitor)(es_acl_head* acl, const es_acl_ace* ace, va_list* args);

/* How a pushed ACE that replaces another is to be reported. */
enum {
  ES_ACL_MODIFY_DELETE_AND_ADD = 0, /* as a removal and an addition */
  ES_ACL_MODIFY_ADD_ONLY = 1        /* as one addition that carries the ACE stored so far */
};

/* One element of a batch that a callback is shown, 32 bytes. The array and the records in it belong to the library and
 * may be read during the call only. What each callback finds in it: es_acl_callback.h. */
typedef struct ace_edit_info {
  uint32_t seq;        /*  0: the ACE's sequence number */
  es_acl_ace* ace;     /*  8: added: the new ACE; removed: the one stored */
  es_acl_ace* old_ace; /* 16: the ACE stored under `seq` so far, or null */
  uint32_t is_new;     /* 24: 1 when no ACE is stored under `seq` */
} ace_edit_info;
ES_ACL_STATIC_ASSERT(sizeof(ace_edit_info) == 32, "layout");
ES_ACL_STATIC_ASSERT(offsetof(ace_edit_info, ace) == 8, "layout");
ES_ACL_STATIC_ASSERT(offsetof(ace_edit_info, old_ace) == 16, "layout");
ES_ACL_STATIC_ASSERT(offsetof(ace_edit_info, is_new) == 24, "layout");

/* The configuration form of one ACE's match rules, 72 bytes, as described to the schema facility. Address
 * words as in es_acl_ace. */
typedef struct es_acl_config_ace {
  uint64_t config_mask;
  uint16_t SAddr[3];
  uint16_t SrcWildBits[3];
  uint16_t DstAddr[3];
  uint16_t DstWildBits[3];
  uint16_t Vlan1;
  uint16_t Vlan2;
  uint16_t IVlan1;
  uint16_t IVlan2;
  uint16_t EthType;
  uint8_t Grant;
  uint8_t Cos;
  uint8_t Dei;
  uint8_t Icos;
  uint8_t Idei;
  uint8_t padding47;
  uint32_t Capture; /* boolean, 0 or 1 */
  uint8_t LogOption;
  uint8_t padding53[3];
  char* Remark;
  char* SequenceStr;
} es_acl_config_ace;
ES_ACL_STATIC_ASSERT(sizeof(es_acl_config_ace) == 72, "a rules record is 72 bytes");

/* What the schema facility is told about es_acl_config_ace. */
typedef struct es_acl_schema_layout {
  uint64_t reserved;       /* 0 */
  uint64_t record_size;    /* bytes */
  const uint64_t* offsets; /* of the fields, in declaration order */
} es_acl_schema_layout;

typedef struct es_acl_schema_descriptor {
  uint64_t reserved;  /* 1 */
  const char* name;   /* the record's name */
  uint32_t flags[2];  /* 0, 1 */
  const char* parser; /* module that parses the descriptors */
  const es_acl_schema_layout* layout;
  const char* named_descriptor;
  const char* compact_descriptor;
} es_acl_schema_descriptor;

#endif /* ES_ACL_TYPES_H_ */
