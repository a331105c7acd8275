// SPDX-License-Identifier: ISC
// Log writer: one record per call, bounded by a running byte count; past the
// limit the file is emptied and writing starts again at its beginning.
#include "log/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "log/internal.h"

int log_fd = -1;
int log_bytes = 0;

namespace {

constexpr char kLogFile[] = "/var/log/wds.log";
// The log holds the hex dump of every start-network request, user name and
// password included: for root's eyes only. A link planted at its path is
// refused, not followed, and no command the daemon runs inherits it.
constexpr mode_t kLogFileMode = 0600;
constexpr int kLogOpenFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
constexpr int kLogSizeLimit = 65536;
constexpr int kLogRecordSize = 1024;

// Called after log_bytes grew: empties the file once the count passed the
// limit. Returns false when the reopen failed and the log is now closed.
bool log_truncate_if_full() {
  if (log_bytes <= kLogSizeLimit) return true;
  close(log_fd);  // the file is reopened, emptied, at once
  log_fd = open(kLogFile, kLogOpenFlags | O_TRUNC, kLogFileMode);
  if (log_fd < 0) return false;
  log_bytes = 0;
  return true;
}

void log_write_text(const char* text, size_t len) {
  // Results are ignored: a log that cannot be written must not stop the daemon.
  ssize_t ignored = write(log_fd, text, len);
  ignored = write(log_fd, "\n", 1);
  (void)ignored;
}

__attribute__((format(printf, 1, 0))) void log_vwrite(const char* fmt, va_list ap) {
  char record[kLogRecordSize];
  int formatted = vsnprintf(record, sizeof record, fmt, ap);
  if (formatted < 0) record[0] = '\0';
  if (log_fd < 0) return;

  size_t n = strlen(record);
  log_bytes += static_cast<int>(n);
  if (!log_truncate_if_full()) return;

  // Each record ends with exactly one newline of its own.
  if (n > 0 && record[n - 1] == '\n') --n;
  log_write_text(record, n);
}

}  // namespace

void log_reset() {
  log_close();
  log_bytes = 0;
}

int log_open() {
  log_fd = open(kLogFile, kLogOpenFlags | O_APPEND, kLogFileMode);
  // A log left by an older build may be readable by all: root's alone from now on.
  if (log_fd >= 0) fchmod(log_fd, kLogFileMode);
  return log_fd;
}

void log_close() {
  if (log_fd < 0) return;
  close(log_fd);
  log_fd = -1;
}

void info(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  log_vwrite(fmt, ap);
  va_end(ap);
}

extern "C" void warn(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  log_vwrite(fmt, ap);
  va_end(ap);
}

extern "C" void error(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  log_vwrite(fmt, ap);
  va_end(ap);
}

void dump_msg(const unsigned char* buf, int len) {
  constexpr size_t kRowSize = 100;
  char row[kRowSize] = {};
  if (len < 0) len = 0;
  // Bytes 3 and 4 read little-endian: the big-endian message id shows swapped.
  unsigned header = 0;
  if (buf != nullptr && len > 3) header |= buf[3];
  if (buf != nullptr && len > 4) header |= static_cast<unsigned>(buf[4]) << 8;

  if (log_fd < 0) return;
  log_bytes += 3 * len + 7 * (len / 16 + 1);
  if (!log_truncate_if_full()) return;

  snprintf(row, kRowSize, "message(0x%04x) buf(%dbytes)", header, len);
  size_t p = 0;
  for (int i = 0; i < len && buf != nullptr; ++i) {
    if (i % 16 == 0) {
      log_write_text(row, strlen(row));
      memset(row, 0, kRowSize);
      snprintf(row, kRowSize, "%04d: ", i);
      p = 6;
    } else if (i % 8 == 0) {
      snprintf(row + p, kRowSize - p, "   ");
      p += 3;
    }
    snprintf(row + p, kRowSize - p, "%02x ", buf[i]);
    p += 3;
  }
  log_write_text(row, strlen(row));
}
