// docs/wire_format.md shows one entry as configuration and as bytes: the one must become the other.
#include <gtest/gtest.h>

#include <sstream>

#include "config_file.h"
#include "support.h"

namespace es_acl::producer {
namespace {

// The text of the first block of that kind.
std::string fenced(const std::string& page, const std::string& kind) {
  const std::string fence = "```" + kind + "\n";
  const size_t begin = page.find(fence);
  if (begin == page.npos) return {};
  const size_t text = begin + fence.size();
  return page.substr(text, page.find("```", text) - text);
}

// "OFFSET: XX XX ...  words", the bytes in columns 5 to 51. Fails when a line's offset does not follow from
// the bytes before it.
std::vector<uint8_t> dumped_bytes(const std::string& dump) {
  std::vector<uint8_t> bytes;
  std::istringstream lines(dump);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_EQ(std::stoul(line), bytes.size()) << line;
    std::istringstream columns(line.substr(5, 47));
    for (unsigned byte; columns >> std::hex >> byte;) bytes.push_back(static_cast<uint8_t>(byte));
  }
  return bytes;
}

TEST(WireFormat, TheDocumentedExampleIsWhatIsSent) {
  std::ifstream file(ES_ACL_DOCS_DIR "/wire_format.md");
  const std::string page{std::istreambuf_iterator<char>(file), {}};
  const test::TempDir directory;
  const std::string configuration =
      directory.write("example.json", R"({"es-acl:acls": {"acl": [{"name": "edge", "aces": {"ace": [)" +
                                          fenced(page, "json") + "]}}]}}");
  const auto bytes = dumped_bytes(fenced(page, "wire"));
  ASSERT_EQ(bytes.size(), sizeof(AceRecord));
  const auto database = YangModel().load(configuration);
  const auto* sent = reinterpret_cast<const uint8_t*>(database->find("edge")->records().data());
  for (size_t i = 0; i < bytes.size(); ++i) EXPECT_EQ(sent[i], bytes[i]) << "at offset " << i;
}

}  // namespace
}  // namespace es_acl::producer
