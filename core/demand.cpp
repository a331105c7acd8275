// SPDX-License-Identifier: ISC
// Dial on demand, in one place to start from. The pieces:
//   - the tick posts the demand events every third tick (timer.cpp);
//   - while down, the link's traffic check raises g_demand_dial
//     (link/demand.cpp, which also installs and restores the placeholder);
//   - the ready and idle states dial once it is raised (state_machine.cpp);
//   - while up, the idle accounting below ends the call once its idle
//     count, which grows while no byte goes out, reaches the profile's
//     idletime;
//   - disconnect and clean-up reset the traffic check (state_machine.cpp,
//     exit.cpp).
#include <cstdio>

#include "core/core.h"
#include "link/link.h"

namespace {
// The idle count grows by 9 per idle event, although the events come 12 s
// apart: it is no count of seconds, and the profile's idletime is compared
// with it as it is (idletime 27 ends a call after three idle events, 36 s).
constexpr uint32_t kIdleCountStep = 9;
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
  g_idle_secs += kIdleCountStep;
  printf("Current time account:[%d] secends\n", static_cast<int>(g_idle_secs));
  if (g_idle_secs >= wan_profile.idletime) {
    g_idle_timeout = 1;
    MAIN_INFO("qmi_event_demand_idle_handle : idletime:[%d]out\n", static_cast<int>(wan_profile.idletime));
    g_idle_secs = 0;
    g_idle_started = 0;
  }
}
