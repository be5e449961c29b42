// Records that others read by their offsets: the schema descriptor and the ACE conversion.
#include <algorithm>
#include <cstring>

#include "es_acl/es_acl_wire.h"
#include "library_fixture.h"

using namespace es_test;

namespace {

using RecordsTest = LibraryTest;

TEST_F(RecordsTest, SchemaDescriptor) {
  uint64_t words[7], layout[3];
  static_assert(sizeof es_acl_config_ace_schema == sizeof words);
  memcpy(words, &es_acl_config_ace_schema, sizeof words);
  const auto text = [&words](size_t i) { return reinterpret_cast<const char*>(words[i]); };
  EXPECT_EQ(words[0], 1U);
  EXPECT_STREQ(text(1), "es_acl_config_ace");
  EXPECT_EQ(es_acl_config_ace_schema.flags[0], 0U);
  EXPECT_EQ(es_acl_config_ace_schema.flags[1], 1U);
  EXPECT_STREQ(text(3), "es_acl_parse_descr_schema.dll");
  EXPECT_STREQ(
      text(5),
      "$1={config_mask}H{SAddr}3A(I){SrcWildBits}3A(I){DstAddr}3A(I){DstWildBits}3A(I){Vlan1}I{Vlan2}I"
      "{IVlan1}I{IVlan2}I{EthType}I{Grant}C{Cos}C{Dei}C{Icos}C{Idei}C{Capture}b{LogOption}C{Remark}s"
      "{SequenceStr}s;");
  EXPECT_STREQ(text(6), "$1=H3A(I)3A(I)3A(I)3A(I)IIIIICCCCCbCss;");
  memcpy(layout, text(4), sizeof layout);
  EXPECT_EQ(layout[0], 0U);
  EXPECT_EQ(layout[1], 72U);
  const uint64_t offsets[19] = {0, 8, 14, 20, 26, 32, 34, 36, 38, 40, 42, 43, 44, 45, 46, 48, 52, 56, 64};
  EXPECT_EQ(memcmp(reinterpret_cast<const void*>(layout[2]), offsets, sizeof offsets), 0);
}

TEST_F(RecordsTest, SchemaRegistration) {
  name_pointer(&es_acl_config_ace_schema, "schema");
  char words[6];
  for (char& word : words) name_pointer(&word, "w" + std::to_string(&word - words));
  const Lines steps = {"schema_register_start(w0, w1, w2, w3, w4, w5)", "schema_register(schema)",
                       "schema_register_end()"};
  const Case rows[] = {
      {"succeeds", [] {}, 0, steps},
      {"end", [] { platform().schema_register_end.next(5); }, 5, steps},
      {"descriptor",
       [] { platform().schema_register.next(17); },
       17,
       {steps[0], steps[1], "schema_register_abort()"}},
      {"start", [] { platform().schema_register_start.next(11); }, 11, {steps[0]}},
  };
  for (const Case& row : rows) {
    row.arrange();
    EXPECT_EQ(schema_register_all_es_acl_parse_schemas(words, words + 1, words + 2, words + 3, words + 4,
                                                       words + 5),
              row.status);
    EXPECT_EQ(take_log(), row.expected) << row.name;
  }
}

// The converted positions of a 160-byte ACE record, against the bytes themselves; every other byte is carried.
TEST_F(RecordsTest, AceConversionTouchesExactlyItsPositions) {
  const std::pair<size_t, size_t> positions[] = {{0, 4},   {4, 4},   {80, 4},  {96, 4},  {100, 4}, {104, 2},
                                                 {106, 2}, {108, 2}, {110, 2}, {112, 2}, {114, 2}, {116, 2},
                                                 {118, 2}, {120, 2}, {122, 2}, {124, 2}, {126, 2}, {128, 2},
                                                 {130, 2}, {134, 2}, {136, 2}, {140, 4}, {144, 2}};
  uint8_t wire[160], expected[160];
  for (size_t i = 0; i < sizeof wire; ++i) wire[i] = static_cast<uint8_t>(i + 1);
  memcpy(expected, wire, sizeof expected);
  if (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__)
    for (const auto& [offset, width] : positions) std::reverse(expected + offset, expected + offset + width);

  es_acl_pcx_acl_ace record;
  memcpy(&record, wire, sizeof record);
  es_acl_wire_acl_ace_order(&record);
  EXPECT_EQ(memcmp(&record, expected, sizeof expected), 0);
  es_acl_wire_acl_ace_order(&record);
  EXPECT_EQ(memcmp(&record, wire, sizeof wire), 0) << "conversion is its own inverse";
}

}  // namespace
