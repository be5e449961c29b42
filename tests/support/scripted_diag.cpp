// Diagnostics of the scripted platform: debug lines, trace records and error texts.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "scripted_platform.h"

struct rlog_ctx {
  std::string suffix;  // "_un" or "_wr"
  bool open = true;
};

using namespace es_test;

namespace {

// A record for a closed buffer shows as "trace closed", which no test expects.
void trace(const rlog_ctx* ctx) {
  if (ctx == nullptr) return;
  record(kTrace, !ctx->open ? "trace closed" : ctx->suffix == "_un" ? "trace u" : "trace w");
}

}  // namespace

extern "C" {

void debug_printf(const debug_category* category, uint32_t reserved, uint32_t level, const char* format,
                  ...) {
  const Backstage backstage;
  char* text = nullptr;
  va_list arguments;
  va_start(arguments, format);
  if (vasprintf(&text, format, arguments) < 0) abort();
  va_end(arguments);
  const char letter = category->index < 3 ? "EID"[category->index] : '?';
  record(kLine, std::string(reserved == 0 && level == 1 ? "" : "wrong numbers! ") + letter + ": " + text);
  platform().line_printed(category->index, text);
  free(text);
}

void _rlog_str(rlog_ctx* ctx, const char*, const char*, const char*, uint64_t, uint64_t) { trace(ctx); }
void _rlog_1(rlog_ctx* ctx, const char*, const char*, uint64_t) { trace(ctx); }
void _rlog_2(rlog_ctx* ctx, const char*, const char*, uint64_t, uint64_t) { trace(ctx); }
void _rlog_4(rlog_ctx* ctx, const char*, const char*, uint64_t, uint64_t, uint64_t, uint64_t) { trace(ctx); }

const char* errcode_string(uint32_t code) {
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

}  // extern "C"

namespace es_test {

uint32_t open_trace_buffer(const char*, const char* suffix, uint32_t, uint32_t, rlog_ctx** ctx) {
  static auto* const buffers = new std::map<std::string, rlog_ctx>;
  rlog_ctx& buffer = (*buffers)[suffix];
  buffer = {suffix, true};
  name_pointer(&buffer, std::string("trace") + suffix);
  *ctx = &buffer;
  return 0;
}

void close_trace_buffer(rlog_ctx* ctx) {
  if (ctx != nullptr) ctx->open = false;
}

}  // namespace es_test
