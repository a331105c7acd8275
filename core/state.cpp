// SPDX-License-Identifier: ISC
// Module-level state of the connection manager, shared with the signal
// handlers. What the other subsystems read of it is in wan/.
#include <cstring>

#include "core/core.h"

ndis_ctx_t ndis_ctx;
volatile uint32_t g_tick = 0;
volatile sig_atomic_t g_reinit_req = 0;
int g_link_lost = 0;
int g_idle_timeout = 0;
int g_idle_started = 0;
uint32_t g_idle_last_tx = 0;
uint32_t g_idle_secs = 0;
volatile sig_atomic_t g_manual_connect = 0;
volatile sig_atomic_t g_connected_mark = 0;
volatile sig_atomic_t g_manual_connect_busy = 0;
volatile sig_atomic_t g_timer_armed = 0;
char g_acPidpath[kPathSize];
char g_acProfilepath[kPathSize];
sigjmp_buf wds_restart_point;

void wds_core_reset() {
  ndis_ctx = {};
  g_tick = 0;
  g_reinit_req = 0;
  g_link_lost = 0;
  g_idle_timeout = 0;
  g_idle_started = 0;
  g_idle_last_tx = 0;
  g_idle_secs = 0;
  g_manual_connect = 0;
  g_connected_mark = 0;
  g_manual_connect_busy = 0;
  g_timer_armed = 0;
  memset(g_acPidpath, 0, sizeof g_acPidpath);
  memset(g_acProfilepath, 0, sizeof g_acProfilepath);
}
