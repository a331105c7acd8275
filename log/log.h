// SPDX-License-Identifier: ISC
// Size-bounded log file "/var/log/wds.log" and the hex dump of QMI messages.
#pragma once
#include <cerrno>
#include <cstring>
#include <unistd.h>

extern "C" {
// The only two functions the executable exports.
__attribute__((visibility("default"), format(printf, 1, 2))) void warn(const char* fmt, ...);
__attribute__((visibility("default"), format(printf, 1, 2))) void error(const char* fmt, ...);
}

__attribute__((format(printf, 1, 2))) void info(const char* fmt, ...);
// Opens "/var/log/wds.log" for appending; the descriptor, or -1.
int log_open();
void log_close();
// Hex dump of a QMI message, 16 bytes to a row.
void dump_msg(const unsigned char* buf, int len);

// Record prefixes. Each call site passes its module name ("main", "wds_msg",
// "atrwapi"), its own source line and the process id; error records carry
// the errno suffix.
#define WDS_INFO(module, fmt, ...) \
  info("[ info][%16s:%4d:pid=%3d] " fmt, module, __LINE__, static_cast<int>(getpid()) __VA_OPT__(,) __VA_ARGS__)
#define WDS_ERROR(module, fmt, ...)                                                               \
  do {                                                                                            \
    const int wds_saved_errno_ = errno;                                                           \
    error("[error][%16s:%4d:pid=%3d] " fmt " errno = %d <%s> \n", module, __LINE__,               \
          static_cast<int>(getpid()) __VA_OPT__(,) __VA_ARGS__, wds_saved_errno_, strerror(wds_saved_errno_)); \
  } while (0)
