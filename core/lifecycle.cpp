// Sleeping, the tick timer, and the two ways out: exit and clean-up.
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "at/at.h"
#include "core/core.h"
#include "link/link.h"
#include "log/log.h"
#include "qmi/qmi.h"

namespace {

constexpr time_t kTickSeconds = 4;

struct sigaction g_saved_alarm_action;
struct itimerval g_saved_timer;

void close_qmitty() {
  if (qmitty_fd >= 0) close(qmitty_fd);
  qmitty_fd = -1;
}

}  // namespace

int msleep(unsigned ms) {
  struct timeval timeout;
  timeout.tv_sec = ms / 1000;
  timeout.tv_usec = (ms % 1000) * 1000;
  // Linux leaves the remaining time in `timeout`, so a tick does not cut the sleep short.
  while (select(0, nullptr, nullptr, nullptr, &timeout) < 0) {
    if (errno != EINTR) {
      MAIN_ERROR("msleep : select error \n");
      break;
    }
  }
  return 0;
}

int wds_timer_start() {
  if (g_timer_armed) return 0;
  g_timer_armed = 1;

  struct sigaction action = {};
  action.sa_handler = qmi_timer_handle;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, SIGHUP);
  sigaddset(&action.sa_mask, SIGINT);
  sigaddset(&action.sa_mask, SIGTERM);
  sigaddset(&action.sa_mask, SIGCHLD);
  action.sa_flags = 0;  // no restart: the tick must interrupt blocking reads
  sigaction(SIGALRM, &action, &g_saved_alarm_action);

  struct itimerval timer = {};
  timer.it_value.tv_sec = kTickSeconds;
  timer.it_interval.tv_sec = kTickSeconds;
  setitimer(ITIMER_REAL, &timer, &g_saved_timer);
  return 0;
}

int wds_timer_stop() {
  if (!g_timer_armed) return 0;
  g_timer_armed = 0;
  setitimer(ITIMER_REAL, &g_saved_timer, nullptr);
  sigaction(SIGALRM, &g_saved_alarm_action, nullptr);
  return 0;
}

void wds_exit() {
  if (g_connected) {
    // An NDIS call is hung up on its own channel (also while DHCP is still
    // being polled); the QMI tty is not open in that mode.
    if (g_ndis_mode) {
      ndis_disconnect();
      ndis_ctx.connected = 0;
    } else {
      wds_disconnect();
    }
    g_connected = 0;
    wds_link_down();
  }
  wds_timer_stop();
  close_qmitty();
  if (g_ndis_mode) at_port_cleanup();
  log_close();
  wds_pid_file_remove();
  exit(0);
}

void wds_cleanup() {
  if (g_connected) {
    g_connected = 0;
    wds_link_down();
  }
  wds_timer_stop();
  if (g_ndis_mode) {
    at_port_cleanup();
  } else {
    close_qmitty();
  }
  if (g_dial == WDS_DIAL_DEMAND) demand_traffic_check(1);
}
