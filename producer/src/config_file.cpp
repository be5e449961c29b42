#include "config_file.h"

#include <fcntl.h>
#include <libyang/libyang.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

#include "config_tree.h"
#include "log.h"

namespace es_acl::producer {
namespace {

constexpr std::string_view kWhitespace = " \t\r\n";

struct TreeDeleter {
  void operator()(lyd_node* tree) const { lyd_free_all(tree); }
};
using TreePtr = std::unique_ptr<lyd_node, TreeDeleter>;

struct InputDeleter {
  void operator()(ly_in* input) const { ly_in_free(input, 0); }
};
using InputPtr = std::unique_ptr<ly_in, InputDeleter>;

[[noreturn]] void fail(const std::string& where, const std::string& reason) {
  throw ConfigError(where + ": " + reason);
}

std::string read_all(int fd, const std::string& file) {
  std::string text;
  char block[1 << 16];
  for (;;) {
    const ssize_t got = ::read(fd, block, sizeof block);
    if (got > 0) text.append(block, static_cast<size_t>(got));
    if (got == 0) return text;
    if (got < 0 && errno != EINTR) fail(file, std::string("cannot be read: ") + std::strerror(errno));
  }
}

std::string read_file(const std::string& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail(file, std::string("cannot be opened: ") + std::strerror(errno));
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  return read_all(fd, file);
}

// By the first character that is not white space: a file's name says nothing.
LYD_FORMAT format_of(const std::string& text, const std::string& file) {
  const size_t first = text.find_first_not_of(kWhitespace);
  if (first == std::string::npos) fail(file, "is empty: expected a JSON object or an XML element");
  if (text.find('\0') != std::string::npos) fail(file, "contains a NUL byte: neither JSON nor XML does");
  if (text[first] == '{') return LYD_JSON;
  if (text[first] == '<') return LYD_XML;
  fail(file, "is neither a JSON object nor XML: starts with \"" + printable(text.substr(first, 1)) + "\"");
}

// libyang words a position as `Data location "PATH", line number N.`, with either part or both.
std::string position_of(const ly_err_item& item) {
  const std::string_view text = item.path ? item.path : "";
  constexpr std::string_view kLine = "ine number ";
  std::string position;
  if (const size_t at = text.find(kLine); at != text.npos) {
    const std::string_view number = text.substr(at + kLine.size());
    position += ":" + std::string(number.substr(0, number.find_first_not_of("0123456789")));
  }
  const size_t open = text.find('"');
  const size_t close = text.rfind('"');
  if (open != close) position += ": " + std::string(text.substr(open + 1, close - open - 1));
  return position;
}

// On one line, however much of the file libyang quotes.
std::string one_line(const char* message) {
  std::string line = message ? message : "unknown error";
  for (char& c : line) {
    if (kWhitespace.find(c) != kWhitespace.npos) c = ' ';
  }
  while (line.ends_with('.')) line.pop_back();
  return printable(line);
}

struct Parsed {
  LY_ERR result;
  TreePtr tree;
  size_t consumed;
};

Parsed parse(const ly_ctx* context, const std::string& text, LYD_FORMAT format, uint32_t options) {
  ly_in* raw_input = nullptr;
  if (ly_in_new_memory(text.c_str(), &raw_input) != LY_SUCCESS) throw std::bad_alloc();
  const InputPtr input(raw_input);
  lyd_node* tree = nullptr;
  const LY_ERR result = lyd_parse_data(context, nullptr, input.get(), format, LYD_PARSE_STRICT | options,
                                       (options & LYD_PARSE_ONLY) ? 0 : LYD_VALIDATE_PRESENT, &tree);
  return {result, TreePtr(tree), ly_in_parsed(input.get())};
}

// What libyang says of a list entry that stands twice lacks the ACL and points behind the list. The tree as
// parsed without validation tells which it is.
std::string duplicate_in(const ly_ctx* context, const std::string& text, LYD_FORMAT format) {
  const Parsed parsed = parse(context, text, format, LYD_PARSE_ONLY);
  return parsed.tree ? describe_duplicate(parsed.tree.get()) : std::string();
}

[[noreturn]] void refuse(const ly_ctx* context, const std::string& file, const std::string& text,
                         LYD_FORMAT format) {
  const ly_err_item* item = ly_err_first(context);
  while (item && item->level != LY_LLERR) item = item->next;
  if (!item) fail(file, "cannot be parsed");
  if (item->no == LY_EMEM) throw std::bad_alloc();
  const std::string where = file + position_of(*item);
  const std::string reason = one_line(item->msg);
  if (reason.starts_with("Duplicate instance")) {
    const std::string duplicate = duplicate_in(context, text, format);
    if (!duplicate.empty()) fail(file, duplicate);
  }
  fail(where, reason);
}

// The JSON parser stops behind the first value.
void check_all_consumed(const std::string& file, const std::string& text, size_t consumed) {
  const size_t rest = text.find_first_not_of(kWhitespace, consumed);
  if (rest == std::string::npos) return;
  const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(rest), '\n');
  fail(file + ":" + std::to_string(line), "text behind the end of the configuration");
}

}  // namespace

void YangModel::ContextDeleter::operator()(ly_ctx* context) const { ly_ctx_destroy(context); }

YangModel::YangModel() {
  ly_log_options(LY_LOSTORE);  // messages are ours to print
  ly_ctx* context = nullptr;
  if (ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIRS, &context) != LY_SUCCESS) {
    throw std::bad_alloc();
  }
  context_.reset(context);
  if (lys_parse_mem(context, kYangModuleText, LYS_IN_YANG, nullptr) != LY_SUCCESS) {
    const ly_err_item* item = ly_err_first(context);
    fail("es-acl.yang" + (item ? position_of(*item) : ""), one_line(item ? item->msg : nullptr));
  }
}

DatabasePtr YangModel::load(const std::string& file) const {
  const std::string text = read_file(file);
  const LYD_FORMAT format = format_of(text, file);
  ly_err_clean(context_.get(), nullptr);
  const Parsed parsed = parse(context_.get(), text, format, 0);
  if (parsed.result != LY_SUCCESS) refuse(context_.get(), file, text, format);
  check_all_consumed(file, text, parsed.consumed);
  if (!parsed.tree) fail(file, "contains no \"acls\" of the module es-acl");
  try {
    return database_from_tree(parsed.tree.get());
  } catch (const ConfigError& error) {
    fail(file, error.what());
  }
}

}  // namespace es_acl::producer
