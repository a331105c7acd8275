// The tick and the event ring: the SIGALRM handler posts, the main loop drains.
#include <cstdio>

#include "at/at.h"
#include "core/core.h"
#include "link/link.h"
#include "log/log.h"
#include "qmi/qmi.h"

namespace {

constexpr uint32_t kEventEveryTicks = 3;   // events come every third 4-second tick
constexpr uint32_t kIdleSecsPerEvent = 9;  // the idle count's step per idle event

uint32_t ring_next(uint32_t index) { return (index + 1) % kEventRingSlots; }

}  // namespace

void qmi_event_ring_reset() {
  qmi_event_queue.head = 0;
  qmi_event_queue.tail = 0;
  for (auto& slot : qmi_event_queue.slot) slot = 0;
}

void qmi_event_post(uint32_t code) {
  // An event is never pending twice.
  for (uint32_t i = qmi_event_queue.head; i != qmi_event_queue.tail; i = ring_next(i)) {
    if (qmi_event_queue.slot[i] == code) return;
  }
  if (ring_next(qmi_event_queue.tail) == qmi_event_queue.head) return;  // full: dropped
  qmi_event_queue.slot[qmi_event_queue.tail] = code;
  qmi_event_queue.tail = ring_next(qmi_event_queue.tail);
}

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

void qmi_event_drain() {
  while (qmi_event_queue.head != qmi_event_queue.tail) {
    const uint32_t code = qmi_event_queue.slot[qmi_event_queue.head];
    qmi_event_queue.head = ring_next(qmi_event_queue.head);
    switch (code) {
      case QMI_EVENT_DEMAND_IDLE:
        qmi_event_demand_idle_handle();
        break;
      case QMI_EVENT_DEMAND_DIAL:
        demand_traffic_check(0);
        break;
      case QMI_EVENT_MSM_STATE_QUERY:
        qmi_event_msm_state_query();
        break;
      case QMI_EVENT_NONE:
        return;
      default:
        break;
    }
  }
}

void qmi_event_demand_idle_handle() {
  dev_traffic traffic = {};
  if (!g_idle_started) {
    if (get_dev_traffic(g_acIfname, &traffic) == 0) {
      g_idle_started = 1;
      g_idle_last_tx = traffic.tx_bytes;
    }
    return;
  }
  if (get_dev_traffic(g_acIfname, &traffic) != 0) return;

  // Only outgoing bytes count as activity.
  if (traffic.tx_bytes != g_idle_last_tx) {
    g_idle_last_tx = traffic.tx_bytes;
    g_idle_secs = 0;
    return;
  }
  g_idle_secs += kIdleSecsPerEvent;
  printf("Current time account:[%d] secends\n", static_cast<int>(g_idle_secs));
  if (g_idle_secs >= wan_profile.idletime) {
    g_idle_timeout = 1;
    MAIN_INFO("qmi_event_demand_idle_handle : idletime:[%d]out\n", static_cast<int>(wan_profile.idletime));
    g_idle_secs = 0;
    g_idle_started = 0;
  }
}

void qmi_event_msm_state_query() {
  if (wds_get_srv_state() != 0) {
    MAIN_INFO("qmi_event_msm_state_query: wds_get_srv_state failed\n");
    return;
  }
  MAIN_INFO("qmi_event_msm_state_query: wds_get_srv_state ok, g_connection_status_rsp:%d\n",
            g_connection_status_rsp);
  if (g_connection_status_rsp != 2) g_link_lost = 1;
}
