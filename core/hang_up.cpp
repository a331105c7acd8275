// SPDX-License-Identifier: ISC
// Ending a call, written once for the three paths that end one: the state
// machine's disconnected state and the exit path hang up in the current
// mode; clean-up sends the modem nothing and only tears the link down.
#include "core/core.h"
#include "link/link.h"

void wds_hang_up() {
  // The outcome is not used: the link comes down whether or not the modem
  // confirmed (the QMI procedure logs its own failure).
  if (g_ndis_mode) {
    ndis_disconnect();
    ndis_ctx.connected = 0;
  } else {
    wds_disconnect();
  }
}

void wds_link_teardown() {
  g_connected = 0;
  wds_link_down();
}
