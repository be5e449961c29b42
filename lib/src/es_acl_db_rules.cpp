// ACE records from the rules pool, and the description of the rules record for the schema facility.
#include "es_acl/es_acl_store.h"
#include "es_acl_state.h"
#include "es_platform/pool.h"
#include "es_platform/schema.h"

namespace es_acl {

pool* es_acl_rules_pool;

namespace {

#define OFFSET(field) offsetof(es_acl_config_ace, field)
const uint64_t kFieldOffsets[] = {OFFSET(config_mask), OFFSET(SAddr),   OFFSET(SrcWildBits), OFFSET(DstAddr),
                                  OFFSET(DstWildBits), OFFSET(Vlan1),   OFFSET(Vlan2),       OFFSET(IVlan1),
                                  OFFSET(IVlan2),      OFFSET(EthType), OFFSET(Grant),       OFFSET(Cos),
                                  OFFSET(Dei),         OFFSET(Icos),    OFFSET(Idei),        OFFSET(Capture),
                                  OFFSET(LogOption),   OFFSET(Remark),  OFFSET(SequenceStr)};
#undef OFFSET

// Other processes read the record by these numbers.
static_assert(offsetof(es_acl_config_ace, SAddr) == 8 && offsetof(es_acl_config_ace, SrcWildBits) == 14);
static_assert(offsetof(es_acl_config_ace, DstAddr) == 20 && offsetof(es_acl_config_ace, DstWildBits) == 26);
static_assert(offsetof(es_acl_config_ace, Vlan1) == 32 && offsetof(es_acl_config_ace, Vlan2) == 34);
static_assert(offsetof(es_acl_config_ace, IVlan1) == 36 && offsetof(es_acl_config_ace, IVlan2) == 38);
static_assert(offsetof(es_acl_config_ace, EthType) == 40 && offsetof(es_acl_config_ace, Grant) == 42);
static_assert(offsetof(es_acl_config_ace, Cos) == 43 && offsetof(es_acl_config_ace, Dei) == 44);
static_assert(offsetof(es_acl_config_ace, Icos) == 45 && offsetof(es_acl_config_ace, Idei) == 46);
static_assert(offsetof(es_acl_config_ace, Capture) == 48 && offsetof(es_acl_config_ace, LogOption) == 52);
static_assert(offsetof(es_acl_config_ace, Remark) == 56 && offsetof(es_acl_config_ace, SequenceStr) == 64);

const es_acl_schema_layout kLayout = {0, sizeof(es_acl_config_ace), kFieldOffsets};

}  // namespace
}  // namespace es_acl

const es_acl_schema_descriptor es_acl_config_ace_schema = {
    1,
    "es_acl_config_ace",
    {0, 1},
    "es_acl_parse_descr_schema.dll",
    &es_acl::kLayout,
    "$1={config_mask}H{SAddr}3A(I){SrcWildBits}3A(I){DstAddr}3A(I){DstWildBits}3A(I){Vlan1}I{Vlan2}I{IVlan1}I"
    "{IVlan2}I{EthType}I{Grant}C{Cos}C{Dei}C{Icos}C{Idei}C{Capture}b{LogOption}C{Remark}s{SequenceStr}s;",
    "$1=H3A(I)3A(I)3A(I)3A(I)IIIIICCCCCbCss;"};

es_acl_ace* es_acl_alloc_rules() { return static_cast<es_acl_ace*>(pool_take(es_acl::es_acl_rules_pool)); }

void es_acl_free_rules(es_acl_ace* rules) { pool_give(es_acl::es_acl_rules_pool, rules); }

es_acl_status schema_register_all_es_acl_parse_schemas(void* a, void* b, void* c, void* d, void* e, void* f) {
  uint32_t rc = schema_register_start(a, b, c, d, e, f);
  if (rc != 0) return rc;
  rc = schema_register(&es_acl_config_ace_schema);
  if (rc != 0) {
    schema_register_abort();
    return rc;
  }
  return schema_register_end();
}
