// SPDX-License-Identifier: ISC
// Bounded text building: formatted appends cut at the buffer's end.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "wan/wan.h"

void text_append(char* text, size_t size, const char* fmt, ...) {
  const size_t used = strnlen(text, size - 1);
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text + used, size - used, fmt, ap);
  va_end(ap);
}
