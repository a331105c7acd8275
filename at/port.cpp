// SPDX-License-Identifier: ISC
// The AT port on the modem's command tty: opening it raw, writing one
// command line, and reading the modem's output into the receive ring.
#include <fcntl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "at/internal.h"
#include "platform/platform.h"

at_rx_ring_t at_rx_ring;
int g_at_fd = -1;

namespace {

constexpr int kPortPathSize = 64;
constexpr int kLineBufSize = 512;
constexpr int kMaxCommandLen = kLineBufSize - 2;  // room for "\r" and the terminator
constexpr int kOpenPasses = 3;
constexpr int kOpenAttempts = 5;
constexpr int kProbeWriteAttempts = 5;
constexpr int kProbeWaitSeconds = 5;

constexpr tcflag_t kRawClearInput = INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF;
constexpr tcflag_t kRawClearLocal = ICANON | ECHO | ECHOE | ECHONL;
static_assert(kRawClearInput == 0x1dc0 && kRawClearLocal == 0x5a);

}  // namespace

void at_port_reset() {
  at_port_close();
  at_rx_ring.set_up = 0;
  at_rx_ring.wpos = 0;
  at_rx_ring.rpos = 0;
}

int wait_wm_ready() {
  // Clearing the ppp state is best effort: the port is opened either way.
  ZUN_UTIL_ExecCmdNoHang("rm -rf /var/log/ppp_state");
  for (int pass = 0; pass < kOpenPasses; ++pass) {
    at_port_close();  // a port that was not open is no failure here
    at_sleep_1s();
    if (at_port_open() == 0) {
      puts("wait_wm_ready:Ndis tty is opened successfully");
      return 0;
    }
  }
  return -1;
}

int at_port_open() {
  char path[kPortPathSize];
  snprintf(path, sizeof path, "%s", wds_paths::kQmiTty);
  if (at_tty_open(path, &g_at_fd) != 0 || g_at_fd < 0) return -1;

  struct termios tio;
  // A device without terminal modes is still usable as it is.
  if (tcgetattr(g_at_fd, &tio) != 0) return 0;
  tio.c_iflag &= ~kRawClearInput;
  tio.c_oflag = 0;
  tio.c_lflag &= ~kRawClearLocal;  // ISIG stays as found
  // Modes that cannot be applied leave the port usable as found.
  tcsetattr(g_at_fd, TCSAFLUSH, &tio);
  return 0;
}

int at_tty_open(const char* path, int* tty_fd) {
  if (path == nullptr || tty_fd == nullptr) {
    WDS_ERROR(kAtModule, "path or tty_fd is null.");
    return -1;
  }
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    const int fd = open(path, O_RDWR);
    if (fd >= 0) {
      *tty_fd = fd;
      return 0;
    }
    at_sleep_1s();
  }
  return -1;
}

int at_port_close() {
  if (g_at_fd < 0) return g_at_fd;
  const int rc = close(g_at_fd);
  g_at_fd = -1;
  return rc;
}

int at_port_cleanup() {
  at_port_close();
  return 0;
}

int at_sleep_1s() { return msleep(1000); }

int at_write_command(const char* text, int* err) {
  if (err == nullptr) return -1;
  if (text == nullptr) {
    *err = EINVAL;
    return -1;
  }
  const size_t len = strnlen(text, kMaxCommandLen + 1);
  if (len > static_cast<size_t>(kMaxCommandLen)) {
    *err = EINVAL;
    return -1;
  }
  char line[kLineBufSize];
  memcpy(line, text, len);
  line[len] = '\r';
  const size_t total = len + 1;

  size_t sent = 0;
  while (sent < total) {
    const ssize_t n = write(g_at_fd, line + sent, total - sent);
    if (n < 0) {
      if (errno == EINTR) continue;
      *err = errno;
      return -1;
    }
    sent += static_cast<size_t>(n);
  }
  return 0;
}

int at_read_into_ring() {
  if (at_rx_ring.set_up == 0) {
    memset(at_rx_ring.buf, 0, sizeof at_rx_ring.buf);
    at_rx_ring.wpos = 0;
    at_rx_ring.rpos = 0;
    at_rx_ring.set_up = 1;
  }
  if (at_rx_ring.wpos >= kAtRingWrapAt) {
    at_rx_ring.wpos = 0;
    // The reader is still in the part the next read would land on: let it
    // catch up first.
    if (at_rx_ring.rpos >= kAtReadSize) return 0;
  }

  uint8_t chunk[kAtReadSize] = {};
  const ssize_t n = read(g_at_fd, chunk, sizeof chunk);
  if (n < 0) return errno == ENODEV ? ENODEV : -1;
  if (n == 0) return ENODEV;  // end of file: the device is gone

  // The chunk is handled as text: a full read loses its last byte to the
  // terminator, and a zero byte ends what is kept.
  if (n < kAtReadSize) {
    chunk[n] = 0;
  } else {
    chunk[kAtReadSize - 1] = 0;
  }
  memcpy(at_rx_ring.buf + at_rx_ring.wpos, chunk, static_cast<size_t>(n));
  at_rx_ring.wpos += static_cast<int32_t>(strlen(reinterpret_cast<const char*>(chunk)));
  return 0;
}

int at_ring_take(uint8_t* byte) {
  if (at_rx_ring.set_up == 0) return -1;
  while (at_rx_ring.rpos != at_rx_ring.wpos) {
    const int32_t at = at_rx_ring.rpos;
    const uint8_t c = at_rx_ring.buf[at];
    at_rx_ring.buf[at] = 0;
    at_rx_ring.rpos = (at == kAtRingSize - 1) ? 0 : at + 1;
    if (c != 0) {
      *byte = c;
      return 0;
    }
  }
  return -1;
}

int at_probe_ok() {
  static constexpr char kProbe[] = "at\r";
  int failures = 0;
  for (;;) {
    const ssize_t n = write(g_at_fd, kProbe, sizeof kProbe - 1);
    if (n > 0) break;
    if (n < 0 && errno == EINTR) continue;
    if (++failures >= kProbeWriteAttempts) return -1;
  }

  if (g_at_fd < 0 || g_at_fd >= FD_SETSIZE) return -1;
  const int64_t deadline = wait_deadline_us(kProbeWaitSeconds * 1000);
  struct timeval wait = {kProbeWaitSeconds, 0};
  for (;;) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(g_at_fd, &readable);
    const int rc = select(g_at_fd + 1, &readable, nullptr, nullptr, &wait);
    if (rc > 0) break;
    // A tick only interrupts the wait: it goes on for the time that remains.
    if (rc < 0 && errno == EINTR && wait_time_left(deadline, &wait)) continue;
    return -1;
  }

  char reply[32] = {};
  ssize_t n;
  do {
    n = read(g_at_fd, reply, sizeof reply - 1);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) return -1;
  return text_contains(reply, "OK") ? 0 : -1;
}
