// SPDX-License-Identifier: ISC
// Dial on demand, the link's side: the placeholder address and routes that
// give outgoing traffic a path into the idle interface, and the check that
// rising transmitted bytes ask for a call. The connection manager's side is
// core/demand.cpp (idle time-out, tick events and the states that dial).
#include <cstdio>

#include "link/internal.h"
#include "platform/platform.h"
#include "wan/wan.h"

int g_demand_started = 0;
int32_t g_demand_hits = 0;
uint32_t g_demand_last_tx = 0;

namespace {

constexpr char kDemandAddr[] = "10.48.48.48";
constexpr char kDemandMask[] = "255.255.255.255";
constexpr char kDemandGateway[] = "10.112.112.112";

}  // namespace

// As in link_config.cpp, command results are never examined.

void demand_link_init() {
  char acCmd[kInitCmdSize];
  // The double blanks are part of the gateway's established command lines.
  snprintf(acCmd, sizeof acCmd, "ifconfig %s %s netmask  %s", g_acIfname, kDemandAddr, kDemandMask);
  printf("\nacCmd=[%s]\n", acCmd);
  ZUN_UTIL_ExecCmdNoHang(acCmd);

  snprintf(acCmd, sizeof acCmd, "route add -host %s dev %s", kDemandGateway, g_acIfname);
  printf("\nacCmd=[%s]\n", acCmd);
  ZUN_UTIL_ExecCmdNoHang(acCmd);

  snprintf(acCmd, sizeof acCmd, "route  add  default  gw  %s", kDemandGateway);
  ZUN_UTIL_ExecCmdNoHang(acCmd);
  send_demand_link_ready();
}

void demand_link_restore() {
  char cmd[kTextBufSize];
  snprintf(cmd, sizeof cmd, "ifconfig %s %s netmask %s", g_acIfname, kDemandAddr, kDemandMask);
  ZUN_UTIL_ExecCmdNoHang(cmd);
  snprintf(cmd, sizeof cmd, "route add -host %s dev %s", kDemandGateway, g_acIfname);
  ZUN_UTIL_ExecCmdNoHang(cmd);
}

void demand_link_publish() {
  write_wan_file(wds_paths::kWanIpaddr, kDemandAddr);
  write_wan_file(wds_paths::kWanMask, kDemandMask);
  write_wan_file(wds_paths::kWanGateway, kDemandGateway);
  send_demand_link_ready();
}

void demand_traffic_reset() {
  g_demand_started = 0;
  g_demand_hits = 0;
  g_demand_last_tx = 0;
}

int demand_traffic_check(int reset) {
  if (reset != 0) {
    // The baseline value and a raised flag outlive a reset.
    g_demand_started = 0;
    g_demand_hits = 0;
    return 0;
  }

  dev_traffic traffic = {};
  if (get_dev_traffic(g_acIfname, &traffic) != 0) return -1;
  if (g_demand_started == 0) {
    g_demand_started = 1;
    g_demand_last_tx = traffic.tx_bytes;
    return 0;
  }

  // An absent interface reads 0, and a falling counter neither lowers the
  // baseline nor clears the rises seen so far.
  if (traffic.tx_bytes == 0 || traffic.tx_bytes <= g_demand_last_tx) return 0;
  ++g_demand_hits;
  if (g_demand_hits <= 1) {
    g_demand_last_tx = traffic.tx_bytes;
    return 0;
  }
  // Two rises: outgoing traffic is waiting for a call.
  g_demand_dial = 1;
  g_demand_hits = 0;
  g_demand_started = 0;
  return 0;
}
