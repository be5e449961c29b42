#include "name_list.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "client.h"
#include "fields.h"

namespace es_acl::tool {

namespace {

constexpr size_t kMostBytes = 64 * 1024 * 1024;  // of a file that is no list at all, a device perhaps
constexpr std::string_view kBlanks = " \t\r\v\f";

std::string shown(const std::string& file) { return file == "-" ? "standard input" : printable(file); }

[[noreturn]] void fail(const std::string& where, const std::string& why) {
  throw std::runtime_error(where + ": " + why);
}

[[noreturn]] void fail_to_read(const std::string& file) {
  fail(shown(file), std::string("the names cannot be read: ") + std::strerror(errno));
}

std::string content(std::FILE* stream, const std::string& file) {
  std::string text;
  char buffer[64 * 1024];
  while (const size_t length = std::fread(buffer, 1, sizeof buffer, stream)) {
    text.append(buffer, length);
    if (text.size() > kMostBytes) fail(shown(file), "more than 64 MiB: this is no list of names");
  }
  if (std::ferror(stream) != 0) fail_to_read(file);
  return text;
}

std::string content(const std::string& file) {
  if (file == "-") return content(stdin, file);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(file.c_str(), "re"), std::fclose);
  if (stream == nullptr) fail_to_read(file);
  return content(stream.get(), file);
}

std::string_view name_in(std::string_view line) {
  line = line.substr(0, line.find('#'));
  const size_t first = line.find_first_not_of(kBlanks);
  if (first == line.npos) return {};
  return line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace

void read_name_list(const std::string& file, std::vector<std::string>* names) {
  const std::string text = content(file);
  const size_t names_before = names->size();
  size_t number = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    ++number;
    const std::string name(name_in(line));
    if (name.empty()) continue;
    if (const auto problem = check_name(name))
      fail(shown(file) + ", line " + std::to_string(number), "'" + printable(name) + "': " + problem->text);
    names->push_back(name);
  }
  if (names->size() == names_before) fail(shown(file), "no name of an ACL is in it");
}

}  // namespace es_acl::tool
