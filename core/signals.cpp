// Signal handlers: they only set flags or leave through the restart point.
#include "core/core.h"
#include "log/log.h"

void wds_term_handle(int /*sig*/) { siglongjmp(wds_restart_point, 1); }

void wds_term_handle2(int /*sig*/) { siglongjmp(wds_restart_point, 1); }

void wds_chld_handle(int /*sig*/) {}

void wds_manual_connect_handle(int /*sig*/) {
  if (!g_connected) {
    g_manual_connect = 1;
  } else {
    g_manual_connect_busy = 1;  // logged by the main loop, not from here
  }
}

void wds_connected_mark_handle(int /*sig*/) {
  if (g_connected) g_connected_mark = 1;
}

void wds_reinit_handle(int /*sig*/) { g_reinit_req = 1; }

void wds_report_signal_notes() {
  if (g_manual_connect_busy) {
    g_manual_connect_busy = 0;
    MAIN_INFO("wds_manual_connect_handle : connected or connecting\n");
  }
}
