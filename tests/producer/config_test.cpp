// Configurations in, databases or refusals out.
#include "config_file.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "ace_values.h"
#include "support.h"

namespace es_acl::producer {
namespace {

using test::TempDir;

std::string json_acl(const std::string& name, const std::string& entries) {
  return "{\"es-acl:acls\": {\"acl\": [\n{\"name\": \"" + name + "\", \"aces\": {\"ace\": [\n" + entries +
         "\n]}}]}}";
}

std::string json_rule(const std::string& eth) {
  return R"({"sequence": 10, "matches": {"eth": {)" + eth + R"(}}, "actions": {"forwarding": "accept"}})";
}

struct Refused {
  std::string text;
  const char* words;  // each in the message, separated by '|'
};

std::vector<Refused> refused_configurations() {
  const auto acl = [](const std::string& entries) { return json_acl("a", entries); };
  const auto rule = [&](const std::string& eth) { return acl(json_rule(eth)); };
  const std::string remark = R"({"sequence": 10, "remark": "x"})";
  const std::string xml = "<acls xmlns=\"urn:es-acl:configuration\"><acl>\n<name>a</name><aces><ace>";
  const std::string xml_seven = "<sequence>7</sequence><remark>x</remark></ace>";
  const std::string with_source = R"("source-mac-address": "00:11:22:33:44:55", )";
  return {
      {"", "is empty"},
      {" \n ", "is empty"},
      {"acl a", "neither|\"a\""},
      {std::string("{}\0{}", 5), "NUL"},
      {"{}", "contains no \"acls\""},
      {acl(remark).substr(0, 70), ":3|name='a'"},
      {acl(R"({"sequence": 10, "remark": "x",})"), ":3:|expected a JSON object's member"},
      {acl(remark) + "\n{", ":5:|behind the end"},
      {xml, ":2|name='a'"},
      {"<acls/>", ":1|namespace"},
      {"<acls xmlns=\"urn:es-acl:configuration\"/><b/>", ":1"},
      {R"({"es-acl:acls":{"acl":[{"name":"a"}]},"es-acl:acls":{"acl":[{"name":"b"}]}})", "Duplicate|acls"},
      {rule(R"("colour": 3)"), ":3:|sequence='10'|\"colour\" not found"},
      {acl(R"({"sequence": 10, "actions": {"forwarding": "reject"}})"), ":3:|\"reject\""},
      {acl(remark + "," + remark), "acl 'a'|sequence number 10|twice"},
      {xml + xml_seven + "<ace>" + xml_seven + "</aces></acl></acls>", "acl 'a'|sequence number 7|twice"},
      {R"({"es-acl:acls":{"acl":[{"name":"b"},{"name":"b"}]}})", "acl 'b'|name stands twice"},
      {acl(R"({"sequence": 0, "remark": "x"})"), ":3:|name='a'|1 to 4294967295"},
      {acl(R"({"sequence": 4294967296, "remark": "x"})"), ":3:|\"4294967296\""},
      {acl(R"({"remark": "x"})"), ":3:|missing its key \"sequence\""},
      {acl(R"({"sequence": 10})"), "name='a'|sequence='10'|needs a remark, or actions"},
      {acl(R"({"sequence": 10, "actions": {"capture": true}})"), "sequence='10'|forwarding"},
      {acl(R"({"sequence": 10, "remark": "x", "actions": {"forwarding": "drop"}})"), ":3:|both cases"},
      {acl(R"({"sequence": 10, "remark": ")" + std::string(256, 'x') + "\"}"), ":3:|1 to 255"},
      {json_acl("-a", remark), ":2:|starts with a letter or digit"},
      {json_acl("a/b", remark), ":2:|starts with a letter or digit"},
      {json_acl("", remark), ":2:|1 to 64"},
      {json_acl(std::string(65, 'a'), remark), ":2:|1 to 64"},
      {json_acl("standby", remark), ":2:|reserved"},
      {json_acl("usage", remark), ":2:|reserved"},
      {rule(R"("source-mac-address": "00:11:22:33:44")"), ":3:|sequence='10'|source-mac-address|six pairs"},
      {rule(R"("destination-mac-address": "00:11:22:33:44:5g")"), ":3:|six pairs"},
      {rule(with_source + R"("source-mac-address-mask": "ff:ff")"), ":3:|six pairs"},
      {rule(R"("source-mac-address-mask": "ff:ff:ff:00:00:00")"),
       "sequence='10'|source-mac-address is missing"},
      {rule(with_source + R"("source-mac-address-mask": "ff:ff:ff:00:00:00",)" +
            R"("source-mac-address-wildcard": "00:00:00:ff:ff:ff")"),
       "sequence='10'|both cases"},
      {rule(R"("ethertype": "ipx")"), ":3:|EtherType is hexadecimal"},
      {rule(R"("ethertype": "0x10000")"), ":3:|EtherType is hexadecimal"},
      {rule(R"("outer-vlan": {"id": 4095})"), ":3:|outer-vlan/id|0 to 4094"},
      {rule(R"("inner-vlan": {"id": 1, "last-id": 4095})"), ":3:|inner-vlan/last-id|0 to 4094"},
      {rule(R"("outer-vlan": {"id": 20, "last-id": 19})"), "sequence='10'|outer-vlan|upside down"},
      {rule(R"("inner-vlan": {"last-id": 19})"), "sequence='10'|inner-vlan|both id and last-id"},
      {rule(R"("outer-vlan": {"pcp": 8})"), ":3:|outer-vlan/pcp|0 to 7"},
      {rule(R"("inner-vlan": {"dei": 2})"), ":3:|inner-vlan/dei"},
  };
}

void expect_refusal(const YangModel& model, const std::string& file, const std::string& words) {
  try {
    model.load(file);
    ADD_FAILURE() << "was taken";
  } catch (const ConfigError& error) {
    const std::string message = error.what();
    EXPECT_TRUE(message.starts_with(file + ":")) << message;
    EXPECT_EQ(message.find('\n'), message.npos) << message;
    std::istringstream list(words);
    for (std::string word; std::getline(list, word, '|');) {
      EXPECT_NE(message.find(word, file.size()), message.npos) << message << "\nlacks " << word;
    }
  }
}

TEST(Configuration, RefusesWhatIsWrongAndSaysWhere) {
  const TempDir directory;
  const YangModel model;
  for (const Refused& refused : refused_configurations()) {
    SCOPED_TRACE(refused.text);
    expect_refusal(model, directory.write("bad.conf", refused.text), refused.words);
  }
  expect_refusal(model, directory.path("missing"), "No such file");
  expect_refusal(model, directory.path(), "Is a directory");
}

struct Taken {
  std::string eth;
  std::function<void(es_acl_ace&)> expect;  // beside what every rule here has
};

void set_words(uint16_t (&words)[3], uint16_t a, uint16_t b, uint16_t c) {
  words[0] = a, words[1] = b, words[2] = c;
}

TEST(Configuration, EveryLeafReachesItsField) {
  const Taken table[] = {
      {"", [](es_acl_ace&) {}},
      {R"("source-mac-address": "00:11:22:AA:bb:CC")",
       [](es_acl_ace& ace) {
         set_words(ace.src_addr, 0x0011, 0x22aa, 0xbbcc);
         es_acl_ace_set_match_mask(&ace, ES_ACL_MATCH_SRC_ADDR);
       }},
      {R"("source-mac-address": "00:11:22:33:44:55", "source-mac-address-wildcard": "00:00:00:00:ff:0f")",
       [](es_acl_ace& ace) {  // ignored bits of the address are cleared
         set_words(ace.src_addr, 0x0011, 0x2233, 0x0050);
         set_words(ace.src_wild, 0, 0, 0xff0f);
         es_acl_ace_set_match_mask(&ace, ES_ACL_MATCH_SRC_ADDR);
       }},
      {R"("destination-mac-address-mask": "ff:ff:ff:00:00:00", "destination-mac-address": "00:11:22:33:44:55")",
       [](es_acl_ace& ace) {
         set_words(ace.dst_addr, 0x0011, 0x2200, 0);
         set_words(ace.dst_wild, 0, 0x00ff, 0xffff);
         es_acl_ace_set_match_mask(&ace, ES_ACL_MATCH_DST_ADDR);
       }},
      {R"("ethertype": "0x88Cc")",
       [](es_acl_ace& ace) {
         ace.eth_type = 0x88cc;
         es_acl_ace_set_match_mask(&ace, ES_ACL_MATCH_ETH_TYPE);
       }},
      {R"("outer-vlan": {"last-id": 4094, "id": 0, "dei": true})",
       [](es_acl_ace& ace) {
         ace.vlan_last = 4094;
         ace.dei = 1;
         es_acl_ace_set_match_mask(&ace, ES_ACL_MATCH_VLAN | ES_ACL_MATCH_DEI);
       }},
      {R"("outer-vlan": {"pcp": 0, "id": 7}, "inner-vlan": {"id": 9, "pcp": 7, "dei": false})",
       [](es_acl_ace& ace) {
         ace.vlan_first = ace.vlan_last = 7;
         ace.ivlan_first = ace.ivlan_last = 9;
         ace.icos = 7;
         es_acl_ace_set_match_mask(&ace, ES_ACL_MATCH_VLAN | ES_ACL_MATCH_COS | ES_ACL_MATCH_IVLAN |
                                             ES_ACL_MATCH_ICOS | ES_ACL_MATCH_IDEI);
       }},
  };
  const TempDir directory;
  const YangModel model;
  const std::string longest(64, 'n');
  for (const Taken& taken : table) {
    SCOPED_TRACE(taken.eth);
    const auto database = model.load(directory.write("good.json", json_acl(longest, json_rule(taken.eth))));
    const AclPtr acl = database->find(longest);
    ASSERT_TRUE(acl && acl->size() == 1);
    es_acl_ace expected{};
    expected.seq = 10;
    expected.grant = ES_ACL_PERMIT;
    taken.expect(expected);
    const AceRecord record = wire_record(longest, expected);
    EXPECT_EQ(std::memcmp(&record, acl->records().data(), sizeof record), 0);
  }
}

// The module's pattern and the table of numbers name the same EtherTypes.
TEST(Configuration, EveryEtherTypeNameHasItsNumber) {
  const std::string module = kYangModuleText;
  const size_t begin = module.find("{1,4}|") + 6;
  std::istringstream names(module.substr(begin, module.find('\'', begin) - begin));
  size_t count = 0;
  for (std::string name; std::getline(names, name, '|'); ++count) {
    EXPECT_TRUE(parse_ethertype(name).has_value()) << name;
  }
  EXPECT_GE(count, 15u);
  EXPECT_EQ(parse_ethertype("ipv6"), 0x86dd);
  EXPECT_EQ(parse_ethertype("0x"), std::nullopt);
}

TEST(Configuration, JsonAndXmlOfOneAclAreTheSame) {
  const TempDir directory;
  const YangModel model;
  const auto json = model.load(directory.write(
      "a",
      json_acl("a", R"({"sequence": 30, "actions": {"forwarding": "drop", "capture": true, "logging": true}},
                            {"sequence": 5, "remark": "first"},)" +
                        json_rule(R"("ethertype": "arp", "inner-vlan": {"id": 1, "last-id": 2})"))));
  const auto xml = model.load(directory.write("b", R"(<?xml version="1.0"?>
      <acls xmlns="urn:es-acl:configuration"><acl><name>a</name><aces>
        <ace><sequence>5</sequence><remark>other words</remark></ace>
        <ace><sequence>10</sequence>
          <matches><eth><inner-vlan><id>1</id><last-id>2</last-id></inner-vlan><ethertype>0x806</ethertype></eth></matches>
          <actions><forwarding>accept</forwarding></actions></ace>
        <ace><sequence>30</sequence>
          <actions><logging>true</logging><capture>true</capture><forwarding>drop</forwarding></actions></ace>
      </aces></acl></acls>)"));
  const auto a = json->find("a")->records();
  const auto b = xml->find("a")->records();
  ASSERT_EQ(a.size(), 3u);
  ASSERT_EQ(b.size(), 3u);
  EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size_bytes()), 0);
  EXPECT_EQ(json->remark_count(), 1u);
  EXPECT_EQ(es_acl_wire_32(a[0].ace.kind), uint32_t{ES_ACL_KIND_REMARK});
  EXPECT_EQ(es_acl_wire_32(a[2].ace.capture), 1u);
  EXPECT_EQ(a[2].ace.log_option, 1u);
  EXPECT_EQ(a[2].ace.grant, ES_ACL_DENY);
}

TEST(Configuration, ExamplesLoad) {
  const YangModel model;
  const std::tuple<const char*, size_t, size_t, size_t> table[] = {{"campus-edge.json", 3, 22, 6},
                                                                   {"q-in-q.xml", 2, 11, 3},
                                                                   {"datacenter.json", 4, 16, 3},
                                                                   {"large.json", 1, 10000, 100}};
  for (const auto& [file, acls, aces, remarks] : table) {
    const auto database = model.load(std::string(ES_ACL_EXAMPLES_DIR "/") + file);
    EXPECT_EQ(database->acls().size(), acls) << file;
    EXPECT_EQ(database->ace_count(), aces) << file;
    EXPECT_EQ(database->remark_count(), remarks) << file;
  }
}

}  // namespace
}  // namespace es_acl::producer
