// The small files under /var/log that the queries pass their replies through.
#include <cstdarg>
#include <cstdio>

#include "at/internal.h"

void write_var_log_file(const char* name, const char* fmt, ...) {
  char path[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kVarLogFileFmt, name);
  FILE* fp = fopen(path, "wb");
  if (fp == nullptr) return;
  va_list ap;
  va_start(ap, fmt);
  vfprintf(fp, fmt, ap);
  va_end(ap);
  fclose(fp);
}

int read_small_file(const char* path, char* buffer) {
  if (path == nullptr || buffer == nullptr) return -1;
  buffer[0] = '\0';
  FILE* fp = fopen(path, "rb");
  if (fp == nullptr) return -1;
  const size_t n = fread(buffer, 1, kAtSmallFileSize, fp);
  fclose(fp);
  if (n == 0) return -1;
  // A full buffer keeps its first 255 bytes: the last one becomes the terminator.
  buffer[n < static_cast<size_t>(kAtSmallFileSize) ? n : kAtSmallFileSize - 1] = '\0';
  return 0;
}
