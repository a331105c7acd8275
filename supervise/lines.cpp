// SPDX-License-Identifier: ISC
// The daemon's standard output cut into lines. Its debug lines mostly begin
// with a newline instead of ending with one ("\n===>...", "\r\n*** ..."), so
// the empty lines and stray carriage returns between them are dropped.
#include "supervise/supervise.h"

namespace {

void emit_line(line_buffer* lb, line_emit emit, void* ctx) {
  size_t begin = 0, end = lb->len;
  while (begin < end && lb->text[begin] == '\r') ++begin;
  while (end > begin && lb->text[end - 1] == '\r') --end;
  lb->text[end] = '\0';
  if (end > begin) emit(ctx, lb->text + begin);
  lb->len = 0;
}

}  // namespace

void line_reset(line_buffer* lb) {
  lb->len = 0;
  lb->first_ms = 0;
}

void line_feed(line_buffer* lb, const char* data, size_t n, int64_t now_ms, line_emit emit, void* ctx) {
  for (size_t i = 0; i < n; ++i) {
    if (data[i] == '\n') {
      emit_line(lb, emit, ctx);
      continue;
    }
    if (lb->len == 0) lb->first_ms = now_ms;
    lb->text[lb->len++] = data[i];
    if (lb->len == kLineMax) emit_line(lb, emit, ctx);
  }
}

void line_flush(line_buffer* lb, int64_t now_ms, bool force, line_emit emit, void* ctx) {
  if (lb->len > 0 && (force || now_ms - lb->first_ms >= kPartialLineMs)) emit_line(lb, emit, ctx);
}

int line_due_in(const line_buffer* lb, int64_t now_ms) {
  if (lb->len == 0) return -1;
  int64_t left = lb->first_ms + kPartialLineMs - now_ms;
  return left > 0 ? static_cast<int>(left) : 0;
}
