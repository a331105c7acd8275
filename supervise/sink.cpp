// SPDX-License-Identifier: ISC
// Records to syslog through its socket, or to a size-bounded file. The syslog
// client is our own: the C library's syslog() may allocate, and it waits for
// as long as the syslog daemon does not read, which would stall the daemon
// on its next printf once the pipe filled. Here a record waits for room in
// the syslog daemon's queue (a few datagrams: a bring-up prints more at
// once) for a bounded time, once: after a wait that ran out, records go only
// when there is room at once, until one goes.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "supervise/supervise.h"

namespace {

constexpr size_t kRecordMax = kLineMax + 128;
constexpr int kSyslogWaitMs = 500;
constexpr mode_t kFileMode = 0640;

void sink_close(log_sink* s) {
  if (s->fd >= 0) close(s->fd);
  s->fd = -1;
}

void syslog_connect(log_sink* s) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path, sizeof addr.sun_path, "%s", s->path);
  s->fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (s->fd < 0) return;
  timeval wait = {0, kSyslogWaitMs * 1000};
  setsockopt(s->fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
  if (connect(s->fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) sink_close(s);
}

// "Mmm dd hh:mm:ss", the day padded with a blank, as syslog stamps it.
void stamp(time_t when, char* out, size_t size) {
  tm local{};
  localtime_r(&when, &local);
  if (strftime(out, size, "%b %e %H:%M:%S", &local) == 0) out[0] = '\0';
}

int syslog_send(log_sink* s, const char* record, size_t len) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (s->fd < 0) syslog_connect(s);
    if (s->fd < 0) return -1;
    if (send(s->fd, record, len, MSG_NOSIGNAL | (s->stalled ? MSG_DONTWAIT : 0)) == static_cast<ssize_t>(len)) {
      s->stalled = false;
      return 0;
    }
    // No room in its queue within the wait: the record is lost, and the
    // next ones are not waited for until the syslog daemon reads again.
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      s->stalled = true;
      return -1;
    }
    // The syslog daemon has gone or was restarted: reach it anew.
    sink_close(s);
  }
  return -1;
}

int file_open(log_sink* s, int extra_flags) {
  s->fd = open(s->path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | extra_flags, kFileMode);
  if (s->fd < 0) return -1;
  struct stat st;
  s->size = fstat(s->fd, &st) == 0 ? st.st_size : 0;
  return 0;
}

int file_append(log_sink* s, const char* record, size_t len) {
  if (s->size > 0 && s->size + static_cast<off_t>(len) > s->max_size) {
    sink_close(s);
    // Without the move the file starts afresh all the same.
    bool moved = rename(s->path, s->old_path) == 0;
    if (file_open(s, moved ? 0 : O_TRUNC) != 0) return -1;
  }
  if (s->fd < 0 && file_open(s, 0) != 0) return -1;
  ssize_t w = write(s->fd, record, len);
  if (w > 0) s->size += w;
  return w == static_cast<ssize_t>(len) ? 0 : -1;
}

}  // namespace

void sink_syslog(log_sink* s, const char* socket_path) {
  *s = log_sink{};
  s->fd = -1;
  snprintf(s->path, sizeof s->path, "%s", socket_path);
  syslog_connect(s);
}

int sink_file(log_sink* s, const char* path, off_t max_size) {
  *s = log_sink{};
  s->is_file = true;
  s->max_size = max_size;
  snprintf(s->path, sizeof s->path, "%s", path);
  snprintf(s->old_path, sizeof s->old_path, "%s.1", path);
  return file_open(s, 0);
}

int sink_write(log_sink* s, time_t when, const char* ident, pid_t pid, const char* text) {
  char when_text[32];
  stamp(when, when_text, sizeof when_text);
  char record[kRecordMax];
  int n = s->is_file ? snprintf(record, sizeof record, "%s %s[%d]: %s\n", when_text, ident, static_cast<int>(pid), text)
                     : snprintf(record, sizeof record, "<%d>%s %s[%d]: %s", kSyslogDaemonInfo, when_text, ident,
                                static_cast<int>(pid), text);
  size_t len = n < 0 ? 0 : static_cast<size_t>(n) < sizeof record ? static_cast<size_t>(n) : sizeof record - 1;
  return s->is_file ? file_append(s, record, len) : syslog_send(s, record, len);
}
