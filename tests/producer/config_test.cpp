// Configurations in, databases or refusals out.
#include "config_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "ace_values.h"
#include "support.h"

namespace es_acl::producer {

std::string acl(const std::string& entries, const std::string& name = "a") {
  return "{\"es-acl:acls\": {\"acl\": [\n{\"name\": \"" + name + "\", \"aces\": {\"ace\": [\n" + entries +
         "\n]}}]}}";
}

std::string rule(const std::string& eth) {
  return acl(R"({"sequence": 10, "matches": {"eth": {)" + eth +
             R"(}}, "actions": {"forwarding": "accept"}})");
}

// The words, separated by '|', that the message must contain beside the file's name.
void expect_refusal(const YangModel& model, const std::string& file, const std::string& words) {
  try {
    model.load(file);
    ADD_FAILURE() << "was taken";
  } catch (const ConfigError& error) {
    const std::string message = error.what();
    EXPECT_TRUE(message.starts_with(file + ":")) << message;
    EXPECT_EQ(message.find('\n'), message.npos) << message;
    std::istringstream list(words);
    for (std::string word; std::getline(list, word, '|');)
      EXPECT_NE(message.find(word, file.size()), message.npos) << message << "\nlacks " << word;
  }
}

TEST(Configuration, RefusesWhatIsWrongAndSaysWhere) {
  const std::string remark = R"({"sequence": 10, "remark": "x"})";
  const std::string xml = "<acls xmlns=\"urn:es-acl:configuration\"><acl>\n<name>a</name><aces><ace>";
  const std::string xml_seven = "<sequence>7</sequence><remark>x</remark></ace>";
  const std::string source = R"("source-mac-address": "00:11:22:33:44:55", )";
  const std::string mask = R"("source-mac-address-mask": "ff:ff:ff:00:00:00")";
  const std::pair<std::string, const char*> table[] = {
      {" \n ", "is empty"},
      {"acl a", "neither|\"a\""},
      {std::string("{}\0{}", 5), "NUL"},
      {"{}", "contains no \"acls\""},
      {acl(remark).substr(0, 70), ":3|name='a'"},
      {acl(R"({"sequence": 10, "remark": "x",})"), ":3:|expected a JSON object's member"},
      {acl(remark) + "\n{", ":5:|behind the end"},
      {xml, ":2|name='a'"},
      {"<acls/>", ":1|namespace"},
      {R"({"es-acl:acls":{"acl":[{"name":"a"}]},"es-acl:acls":{"acl":[{"name":"b"}]}})", "Duplicate|acls"},
      {R"({"es-acl:acls":{"acl":[{"name":"b"},{"name":"b"}]}})", "acl 'b'|name stands twice"},
      {acl(remark + "," + remark), "acl 'a'|sequence number 10|twice"},
      {xml + xml_seven + "<ace>" + xml_seven + "</aces></acl></acls>", "acl 'a'|sequence number 7|twice"},
      {rule(R"("colour": 3)"), ":3:|sequence='10'|\"colour\" not found"},
      {acl(R"({"sequence": 0, "remark": "x"})"), ":3:|name='a'|1 to 4294967295"},
      {acl(R"({"remark": "x"})"), ":3:|missing its key \"sequence\""},
      {acl(R"({"sequence": 10})"), "name='a'|sequence='10'|needs a remark, or actions"},
      {acl(R"({"sequence": 10, "actions": {"capture": true}})"), "sequence='10'|forwarding"},
      {acl(R"({"sequence": 10, "remark": "x", "actions": {"forwarding": "drop"}})"), ":3:|both cases"},
      {acl(remark, "a/b"), ":2:|starts with a letter or digit"},
      {acl(remark, std::string(65, 'a')), ":2:|1 to 64"},
      {acl(remark, "standby"), ":2:|reserved"},
      {rule(R"("source-mac-address": "00:11:22:33:44")"), ":3:|sequence='10'|source-mac-address|six pairs"},
      {rule(mask), "sequence='10'|source-mac-address is missing"},
      {rule(source + mask + R"(, "source-mac-address-wildcard": "00:00:00:ff:ff:ff")"), "both cases"},
      {rule(R"("ethertype": "ipx")"), ":3:|EtherType is hexadecimal"},
      {rule(R"("outer-vlan": {"id": 4095})"), ":3:|outer-vlan/id|0 to 4094"},
      {rule(R"("outer-vlan": {"id": 20, "last-id": 19})"), "sequence='10'|outer-vlan|upside down"},
      {rule(R"("inner-vlan": {"last-id": 19})"), "sequence='10'|inner-vlan|both id and last-id"},
      {rule(R"("outer-vlan": {"pcp": 8})"), ":3:|outer-vlan/pcp|0 to 7"},
  };
  const test::TempDir directory;
  const YangModel model;
  for (const auto& [text, words] : table) {
    SCOPED_TRACE(text);
    expect_refusal(model, directory.write("bad.conf", text), words);
  }
  expect_refusal(model, directory.path("missing"), "No such file");
  expect_refusal(model, directory.path("."), "Is a directory");
}

// As the documented example's wildcard is; and the bits that are ignored are cleared.
TEST(Configuration, AMaskIsAWildcard) {
  const test::TempDir directory;
  const auto database = YangModel().load(directory.write(
      "mask.json",
      rule(
          R"("destination-mac-address": "00:11:2F:33:44:55", "destination-mac-address-mask": "ff:ff:ff:00:00:00")")));
  es_acl_ace expected{};
  expected.seq = 10;
  expected.grant = ES_ACL_PERMIT;
  es_acl_ace_set_match_mask(&expected, ES_ACL_MATCH_DST_ADDR);
  std::ranges::copy(MacWords{0x0011, 0x2f00, 0}, expected.dst_addr);
  std::ranges::copy(MacWords{0, 0x00ff, 0xffff}, expected.dst_wild);
  const AceRecord wanted = wire_record("a", expected);
  EXPECT_EQ(std::memcmp(database->find("a")->records().data(), &wanted, sizeof wanted), 0);
}

// The module's pattern and the table of numbers name the same EtherTypes.
TEST(Configuration, EveryEtherTypeNameHasItsNumber) {
  const std::string module = kYangModuleText;
  const size_t begin = module.find("{1,4}|") + 6;
  std::istringstream names(module.substr(begin, module.find('\'', begin) - begin));
  std::string name;
  while (std::getline(names, name, '|')) EXPECT_TRUE(parse_ethertype(name).has_value()) << name;
  EXPECT_FALSE(name.empty());
}

// The text of the page's first block of that kind.
std::string fenced(const std::string& page, const std::string& kind) {
  const std::string fence = "```" + kind + "\n";
  const size_t begin = page.find(fence) + fence.size();
  return page.substr(begin, page.find("```", begin) - begin);
}

// docs/wire_format.md shows one entry as configuration and as bytes. A line of them is "OFFSET: XX XX ...
// words", the bytes in columns 5 to 51.
TEST(Configuration, TheDocumentedExampleIsWhatIsSent) {
  std::ifstream file(ES_ACL_DOCS_DIR "/wire_format.md");
  const std::string page{std::istreambuf_iterator<char>(file), {}};
  const test::TempDir directory;
  const auto database = YangModel().load(directory.write("example.json", acl(fenced(page, "json"), "edge")));
  const auto* sent = reinterpret_cast<const uint8_t*>(database->find("edge")->records().data());
  size_t at = 0;
  std::istringstream lines(fenced(page, "wire"));
  for (std::string line; std::getline(lines, line);) {
    EXPECT_EQ(std::stoul(line), at) << line;
    std::istringstream columns(line.substr(5, 47));
    for (unsigned byte; at < sizeof(AceRecord) && columns >> std::hex >> byte; ++at)
      EXPECT_EQ(sent[at], byte) << "at offset " << at;
  }
  EXPECT_EQ(at, sizeof(AceRecord));
  es_acl_digest digest;
  es_acl_digest_begin(&digest);
  es_acl_digest_add(&digest, &database->find("edge")->records().front().ace);
  EXPECT_EQ(es_acl_digest_end(&digest), std::stoull(fenced(page, "digest"), nullptr, 16));
}

}  // namespace es_acl::producer
