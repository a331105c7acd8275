// SPDX-License-Identifier: ISC
// The 4-second tick: the interval timer, and its handler, which advances
// the tick counts and posts the events of every third tick.
#include <sys/time.h>

#include "at/at.h"
#include "core/core.h"
#include "qmi/qmi.h"

namespace {

constexpr time_t kTickSeconds = 4;
constexpr uint32_t kEventEveryTicks = 3;   // events come every third tick

struct sigaction g_saved_alarm_action;
struct itimerval g_saved_timer;

}  // namespace

void qmi_timer_handle(int /*sig*/) {
  g_wait_ticks = static_cast<uint8_t>(g_wait_ticks + 1);
  g_tick = g_tick + 1;
  at_tick();

  const bool event_tick = (g_tick % kEventEveryTicks) == 0;
  if (!event_tick) return;
  if (g_connected) {
    if (g_dial == WDS_DIAL_DEMAND) qmi_event_post(QMI_EVENT_DEMAND_IDLE);
    qmi_event_post(QMI_EVENT_MSM_STATE_QUERY);
  } else if (g_dial == WDS_DIAL_DEMAND) {
    qmi_event_post(QMI_EVENT_DEMAND_DIAL);
  }
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
  // Neither call can fail with these arguments.
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
  // What was saved is valid, so restoring it cannot fail.
  setitimer(ITIMER_REAL, &g_saved_timer, nullptr);
  sigaction(SIGALRM, &g_saved_alarm_action, nullptr);
  return 0;
}
