// Debug categories and lines.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "diag_file.h"
#include "es_platform/diag.h"
#include "guard.h"
#include "log.h"

namespace {

using es_platform::debug_body;
using es_platform::kMaxCategories;

struct category_text {
  const char* name;
  const char* text;
};

// The categories of the library's path. Those of any other path are called category0, category1, ...
constexpr const char* kLibraryPath = "/debug/es_acl_dll/";
constexpr category_text kLibraryCategories[] = {
    {"error", "invalid arguments and failures"}, {"info", "entry into operations, initialisation"},
    {"detail", "progress of operations"},        {"bus", "messages to and from the producer"},
    {"store", "changes of the local copies"},    {"timer", "deferred notification"},
};

void name_category(debug_category& category, std::string_view path) {
  const bool known = path == kLibraryPath && category.index < std::size(kLibraryCategories);
  if (known) {
    std::snprintf(category.name, sizeof category.name, "%s", kLibraryCategories[category.index].name);
    std::snprintf(category.text, sizeof category.text, "%s", kLibraryCategories[category.index].text);
  } else {
    std::snprintf(category.name, sizeof category.name, "category%u", category.index);
  }
}

// Whether an item of ES_DEBUG, "all", NAME or PATH/NAME, names this category.
bool item_names(std::string_view item, std::string_view path, std::string_view name) {
  if (item == "all" || item == name) return true;
  if (!item.ends_with(name)) return false;
  std::string_view prefix = item.substr(0, item.size() - name.size());
  while (path.ends_with('/')) path.remove_suffix(1);
  return prefix.ends_with('/') && prefix.substr(0, prefix.size() - 1) == path;
}

// Whether some path may have a category of this name: the library's, or a number of another path's.
bool can_be_category(std::string_view name) {
  const bool of_library = std::any_of(std::begin(kLibraryCategories), std::end(kLibraryCategories),
                                      [name](const category_text& one) { return name == one.name; });
  return of_library || (name.starts_with("category") && name.size() > 8 &&
                        name.find_first_not_of("0123456789", 8) == name.npos);
}

// The items of ES_DEBUG that no path will ever answer to. The path itself is not looked at: it may come later.
void warn_of_unknown_items() {
  const char* value = std::getenv("ES_DEBUG");
  std::string_view rest = value != nullptr ? value : "";
  while (!rest.empty()) {
    const std::string_view item = rest.substr(0, rest.find(','));
    rest.remove_prefix(std::min(item.size() + 1, rest.size()));
    if (item.empty() || item == "all" || can_be_category(item.substr(item.rfind('/') + 1))) continue;
    std::string known;
    for (const category_text& one : kLibraryCategories) known += std::string(one.name) + ", ";
    es_platform::log_line("ES_DEBUG: \"%.*s\" is no debug category; there are %sand all",
                          static_cast<int>(std::min<size_t>(item.size(), 64)), item.data(), known.c_str());
  }
}

bool starts_enabled(std::string_view path, std::string_view name) {
  const char* value = std::getenv("ES_DEBUG");
  std::string_view rest = value != nullptr ? value : "";
  while (!rest.empty()) {
    const size_t comma = rest.find(',');
    if (item_names(rest.substr(0, comma), path, name)) return true;
    rest = comma != std::string_view::npos ? rest.substr(comma + 1) : "";
  }
  return false;
}

void fill(debug_body& body, std::string_view path, uint32_t count) {
  body.count = count;
  for (uint32_t i = 0; i < count; ++i) {
    debug_category& category = body.categories[i];
    category.index = i;
    name_category(category, path);
    category.enabled = starts_enabled(path, category.name) ? 1 : 0;
  }
}

// The arrays handed out, by path. Never destroyed: they live as long as the process.
struct registered_paths {
  std::mutex mutex;
  std::map<std::string, debug_body*, std::less<>> bodies;

  static registered_paths& instance() {
    static registered_paths& all = *new registered_paths;
    return all;
  }
};

// Where lines go. The file is opened once, for the life of the process.
int output() {
  static const int fd = [] {
    const char* path = std::getenv("ES_DEBUG_FILE");
    if (path == nullptr || *path == '\0') return STDERR_FILENO;
    const int opened = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (opened >= 0) return opened;
    es_platform::log_line("debug lines go to standard error: cannot open %s: %s", path, std::strerror(errno));
    return STDERR_FILENO;
  }();
  return fd;
}

// One line under construction, always with room for its newline. What does not fit is cut and marked.
class line_buffer {
 public:
  void add(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    va_list args;
    va_start(args, format);
    add_list(format, args);
    va_end(args);
  }

  void add_list(const char* format, va_list args) __attribute__((format(printf, 2, 0))) {
    const int wanted = std::vsnprintf(text_ + length_, kRoom - length_, format, args);
    if (wanted < 0) return;
    const bool fits = static_cast<size_t>(wanted) < kRoom - length_;
    length_ = fits ? length_ + static_cast<size_t>(wanted) : kRoom - 1;
    if (!fits) std::memcpy(text_ + kRoom - 4, "...", 3);
  }

  // A line is one line: control characters in texts from elsewhere become blanks.
  void write_out(int fd) {
    while (length_ > 0 && text_[length_ - 1] == '\n') --length_;
    for (size_t i = 0; i < length_; ++i) {
      if (static_cast<unsigned char>(text_[i]) < ' ' || text_[i] == 0x7f) text_[i] = ' ';
    }
    text_[length_++] = '\n';
    [[maybe_unused]] const ssize_t written = write(fd, text_, length_);
  }

 private:
  static constexpr size_t kRoom = 2047;
  char text_[kRoom + 1];
  size_t length_ = 0;
};

void add_time(line_buffer& line) {
  timespec now;
  tm parts;
  clock_gettime(CLOCK_REALTIME, &now);
  gmtime_r(&now.tv_sec, &parts);
  line.add("%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
           parts.tm_hour, parts.tm_min, parts.tm_sec, now.tv_nsec / 1000);
}

void add_process(line_buffer& line) {
  line.add(" %s[%d]", program_invocation_short_name, static_cast<int>(getpid()));
}

}  // namespace

uint32_t acl_debug_init(debug_category** handle, void*, const char* path, uint32_t category_count) {
  if (handle == nullptr || path == nullptr || category_count == 0 || category_count > kMaxCategories)
    return EINVAL;
  return es_platform::guarded([&]() -> uint32_t {
    registered_paths& all = registered_paths::instance();
    const std::lock_guard lock(all.mutex);
    if (all.bodies.empty()) warn_of_unknown_items();
    debug_body*& body = all.bodies[path];
    if (body == nullptr) {
      body = static_cast<debug_body*>(
          es_platform::diag_region_new(es_platform::diag_kind::debug, path, nullptr, sizeof(debug_body)));
      if (body == nullptr) return ENOMEM;
      fill(*body, path, category_count);
    }
    if (category_count > body->count) return EINVAL;
    *handle = body->categories;
    return 0;
  });
}

void debug_printf(const debug_category* category, uint32_t, uint32_t, const char* format, ...) {
  const es_platform::errno_keeper keeper;
  line_buffer line;
  add_time(line);
  add_process(line);
  const char* name = category != nullptr ? category->name : "?";
  line.add(" %.*s: ", static_cast<int>(strnlen(name, sizeof category->name)), name);
  va_list args;
  va_start(args, format);
  line.add_list(format, args);
  va_end(args);
  line.write_out(output());
}
