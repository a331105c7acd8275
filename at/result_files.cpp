// SPDX-License-Identifier: ISC
// The small files under /var/log that the queries pass their replies through.
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "at/internal.h"

void write_var_log_file(const char* name, const char* fmt, ...) {
  char path[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kVarLogFileFmt, name);
  const int fd = var_file_open(path, O_WRONLY | O_TRUNC);
  if (fd < 0) return;
  // The text is a reply, which never holds more than the response does.
  char text[kAtResponseSize];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  var_file_write(fd, text, "");
  close(fd);
}

int read_small_file(const char* path, char* buffer) {
  if (path == nullptr || buffer == nullptr) return -1;
  buffer[0] = '\0';
  const int fd = var_file_open_read(path);
  if (fd < 0) return -1;
  size_t n = 0;
  for (ssize_t got; n < kAtSmallFileSize; n += static_cast<size_t>(got)) {
    got = read(fd, buffer + n, kAtSmallFileSize - n);
    if (got <= 0) break;
  }
  close(fd);
  if (n == 0) return -1;
  // A full buffer keeps its first 255 bytes: the last one becomes the terminator.
  buffer[n < static_cast<size_t>(kAtSmallFileSize) ? n : kAtSmallFileSize - 1] = '\0';
  return 0;
}
