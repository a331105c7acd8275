// SPDX-License-Identifier: ISC
// The two ways out: the exit path, and the clean-up before bring-up runs again.
#include <cstdlib>

#include "at/at.h"
#include "core/core.h"
#include "link/link.h"
#include "log/log.h"
#include "qmi/qmi.h"

void wds_exit() {
  if (g_connected) {
    // An NDIS call is hung up on its own channel (also while DHCP is still
    // being polled); the QMI tty is not open in that mode.
    wds_hang_up();
    wds_link_teardown();
  }
  wds_timer_stop();
  qmi_tty_close();
  if (g_ndis_mode) at_port_cleanup();
  log_close();
  wds_pid_file_remove();
  exit(0);
}

void wds_cleanup() {
  // No hang-up: clean-up sends the modem nothing before bring-up runs again.
  if (g_connected) wds_link_teardown();
  wds_timer_stop();
  if (g_ndis_mode) {
    at_port_cleanup();
  } else {
    qmi_tty_close();
  }
  if (g_dial == WDS_DIAL_DEMAND) demand_traffic_check(1);
}
