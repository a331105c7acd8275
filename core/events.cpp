// SPDX-License-Identifier: ISC
// The event ring: the tick handler posts, the main loop drains.
#include "core/core.h"
#include "link/link.h"
#include "qmi/qmi.h"

qmi_event_queue_t qmi_event_queue;

namespace {

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

void qmi_event_drain() {
  while (qmi_event_queue.head != qmi_event_queue.tail) {
    const uint32_t code = qmi_event_queue.slot[qmi_event_queue.head];
    qmi_event_queue.head = ring_next(qmi_event_queue.head);
    switch (code) {
      case QMI_EVENT_DEMAND_IDLE:
        qmi_event_demand_idle_handle();
        break;
      case QMI_EVENT_DEMAND_DIAL:
        // A check that could not read the counters is simply made again next time.
        demand_traffic_check(0);
        break;
      case QMI_EVENT_MSM_STATE_QUERY:
        qmi_event_msm_state_query();
        break;
      case QMI_EVENT_NONE:
        return;
      default:
        break;  // an unknown code is skipped
    }
  }
}

void qmi_event_msm_state_query() {
  if (wds_get_srv_state() != 0) {
    MAIN_INFO("qmi_event_msm_state_query: wds_get_srv_state failed\n");
    return;
  }
  MAIN_INFO("qmi_event_msm_state_query: wds_get_srv_state ok, g_connection_status_rsp:%d\n",
            g_connection_status_rsp);
  if (g_connection_status_rsp != QMI_PKT_CONNECTED) g_link_lost = 1;
}
