// SPDX-License-Identifier: ISC
// The connection state machine: one step per state, one place per transition.
#include <unistd.h>

#include <csignal>

#include "core/core.h"
#include "link/link.h"

namespace {

constexpr unsigned kBringUpRetryMs = 3000;
constexpr unsigned kDialPollSeconds = 3;
constexpr unsigned kConnectRetrySeconds = 5;

bool dial_wants_link(int dial) {
  return dial == WDS_DIAL_MANUAL || dial == WDS_DIAL_ALWAYS || dial == WDS_DIAL_DEMAND;
}

int step_init() {
  if (wds_bring_up() != 0) {
    wds_cleanup();
    msleep(kBringUpRetryMs);
    return WDS_STATE_INIT;
  }
  // Plain sleep: a tick may cut it short, which only makes the poll sooner.
  do {
    g_dial = wds_dial_read();
    sleep(kDialPollSeconds);
  } while (!dial_wants_link(g_dial));
  wds_link_init();
  return WDS_STATE_READY;
}

int step_ready() {
  g_link_lost = 0;
  if (g_reinit_req) {
    g_reinit_req = 0;
    wds_cleanup();
    return WDS_STATE_INIT;
  }
  g_dial = wds_dial_read();
  switch (g_dial) {
    case WDS_DIAL_ALWAYS:
      return WDS_STATE_CONNECTING;
    case WDS_DIAL_DEMAND:
      if (!g_demand_dial) return WDS_STATE_IDLE;
      g_demand_dial = 0;
      return WDS_STATE_CONNECTING;
    case WDS_DIAL_MANUAL:
      wds_dial_take_request();  // connect once: the request is used up
      return WDS_STATE_CONNECTING;
    default:
      return WDS_STATE_IDLE;
  }
}

int step_connecting() {
  if (wds_connect() == 0) return WDS_STATE_CONNECTED;
  // Plain sleep: a tick may cut it short, which only makes the retry sooner.
  sleep(kConnectRetrySeconds);
  return WDS_STATE_READY;
}

int step_connected() {
  wds_state_print(WDS_STATE_CONNECTED);
  int next;
  if (g_link_lost) {
    g_link_lost = 0;
    next = WDS_STATE_DISCONNECTED;
  } else {
    next = wds_dial_read() == WDS_DIAL_DISCONNECT ? WDS_STATE_DISCONNECTED : WDS_STATE_IDLE;
  }
  if (g_dial == WDS_DIAL_DEMAND && g_idle_timeout) {
    g_idle_timeout = 0;
    next = WDS_STATE_DISCONNECTED;
  }
  return next;
}

int step_disconnected() {
  // An NDIS call is hung up only once it is marked up.
  if (!g_ndis_mode || ndis_ctx.connected) wds_hang_up();
  if (g_dial == WDS_DIAL_DEMAND) demand_traffic_check(1);  // a reset cannot fail
  wds_link_teardown();
  return WDS_STATE_READY;
}

int step_idle() {
  sigset_t none;
  sigemptyset(&none);
  sigsuspend(&none);  // returns once a handler has run; there is nothing else to learn from it
  qmi_event_drain();
  if (g_reinit_req) {
    g_reinit_req = 0;
    wds_cleanup();
    return WDS_STATE_INIT;
  }
  if (g_connected) return WDS_STATE_CONNECTED;
  g_dial = wds_dial_read();
  if (g_dial == WDS_DIAL_ALWAYS || g_dial == WDS_DIAL_MANUAL) return WDS_STATE_READY;
  if (g_dial == WDS_DIAL_DEMAND && g_demand_dial) return WDS_STATE_READY;
  return WDS_STATE_IDLE;
}

}  // namespace

int wds_state_print(int state) {
  if (state >= WDS_STATE_INIT && state <= WDS_STATE_EXIT) {
    MAIN_INFO("%s", kWdsStateNames[state]);
  } else {
    MAIN_INFO("wds state : unknown.\n");
  }
  return 0;
}

int wds_state_step(int state) {
  switch (state) {
    case WDS_STATE_INIT: return step_init();
    case WDS_STATE_READY: return step_ready();
    case WDS_STATE_CONNECTING: return step_connecting();
    case WDS_STATE_CONNECTED: return step_connected();
    case WDS_STATE_DISCONNECTED: return step_disconnected();
    case WDS_STATE_IDLE: return step_idle();
    default: wds_exit();
  }
}

void wds_state_machine_run() {
  int state = WDS_STATE_INIT;
  for (;;) {
    wds_report_signal_notes();
    state = wds_state_step(state);
  }
}
