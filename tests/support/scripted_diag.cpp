// Diagnostics of the scripted platform.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "scripted_call.h"
#include "scripted_platform.h"

struct rlog_ctx {
  std::string suffix;  // "_un" or "_wr"
  bool open = true;
};

namespace {

using es_test::Backstage;
using es_test::platform;
using es_test::ScriptedCall;

std::string formatted(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, format, again)), '\0');
  va_end(again);
  vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

// A record for a closed buffer shows as "trace closed", which no test expects.
void trace(const rlog_ctx* ctx, const char* operation) {
  if (ctx == nullptr) return;
  const Backstage backstage;
  const char* text = !ctx->open ? "trace closed" : ctx->suffix == "_un" ? "trace u" : "trace w";
  es_test::record({es_test::kTrace, text, {}, operation == nullptr ? "(null)" : operation});
}

}  // namespace

extern "C" {

uint32_t acl_debug_init(debug_category** handle, void* ctx, const char* path, uint32_t category_count) {
  const ScriptedCall call("acl_debug_init", ctx, path, category_count);
  return platform().acl_debug_init(handle, ctx, path, category_count);
}

void debug_printf(const debug_category* category, uint32_t reserved, uint32_t level, const char* format,
                  ...) {
  const Backstage backstage;
  va_list arguments;
  va_start(arguments, format);
  const std::string text = formatted(format, arguments);
  va_end(arguments);
  const char letter = category->index < 3 ? "EID"[category->index] : '?';
  es_test::record({es_test::kLine,
                   (reserved == 0 && level == 1 ? "" : "wrong numbers! ") + (letter + (": " + text)),
                   {},
                   {}});
  platform().line_printed(category->index, text);
}

uint32_t acl_rlog_init(const char* path, const char* suffix, uint32_t unique, uint32_t wrapping,
                       rlog_ctx** ctx) {
  const ScriptedCall call("acl_rlog_init", path, suffix, unique, wrapping);
  return platform().acl_rlog_init(path, suffix, unique, wrapping, ctx);
}

void acl_rlog_close(rlog_ctx* ctx) {
  const ScriptedCall call("acl_rlog_close", static_cast<void*>(ctx));
  if (ctx != nullptr) ctx->open = false;
}

void _rlog_str(rlog_ctx* ctx, const char* operation, const char*, const char*, uint64_t, uint64_t) {
  trace(ctx, operation);
}
void _rlog_1(rlog_ctx* ctx, const char* operation, const char*, uint64_t) { trace(ctx, operation); }
void _rlog_2(rlog_ctx* ctx, const char* operation, const char*, uint64_t, uint64_t) { trace(ctx, operation); }
void _rlog_3(rlog_ctx* ctx, const char* operation, const char*, uint64_t, uint64_t, uint64_t) {
  trace(ctx, operation);
}
void _rlog_4(rlog_ctx* ctx, const char* operation, const char*, uint64_t, uint64_t, uint64_t, uint64_t) {
  trace(ctx, operation);
}

const char* errcode_string(uint32_t code) {
  const Backstage backstage;
  static thread_local char text[16];
  snprintf(text, sizeof text, "<%#x>", code);
  return text;
}

uint32_t errcode_add_table(const errcode_text* table, size_t count) {
  const Backstage backstage;
  for (size_t i = 0; i < count; ++i) platform().error_texts[table[i].code] = table[i].text;
  return 0;
}

void assert_fail(const char* text, const char* file, int line, const char* function) {
  fprintf(stderr, "%s:%d: %s: assertion `%s' failed\n", file, line, function, text);
  abort();
}

void thread_mark_mutex_block(const void* mutex, const char* name, uint32_t number) {
  const ScriptedCall call("thread_mark_mutex_block", mutex, name, number);
  platform().thread_mark_mutex_block(mutex, name, number);
}

void thread_unmark_mutex_block() {
  const ScriptedCall call("thread_unmark_mutex_block");
  platform().thread_unmark_mutex_block();
}

}  // extern "C"

namespace es_test {

uint32_t open_trace_buffer(const char*, const char* suffix, uint32_t, uint32_t, rlog_ctx** ctx) {
  static auto* const buffers = new std::map<std::string, rlog_ctx>;
  rlog_ctx& buffer = (*buffers)[suffix];
  buffer.suffix = suffix;
  buffer.open = true;
  name_pointer(&buffer, std::string("trace") + suffix);
  *ctx = &buffer;
  return 0;
}

}  // namespace es_test
