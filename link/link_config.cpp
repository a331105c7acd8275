// SPDX-License-Identifier: ISC
// Host side of the link: the interface and route commands of the set-up,
// configuration and teardown, and what each publishes (through publish.cpp).
// The demand mode's placeholder link is in demand.cpp.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>

#include "link/internal.h"
#include "platform/platform.h"
#include "wan/wan.h"

namespace {

constexpr size_t kAddrTextSize = 16;  // "255.255.255.255" and its terminator
// The TCP MSS is the profile's mru less 80, whatever the mru: a margin twice
// the 40 bytes of the bare IPv4 and TCP headers.
constexpr int kTcpMssOverhead = 80;

// Dotted-decimal text of an address in network byte order. inet_ntoa hands
// back one static buffer, so each rendering is copied out at once.
void addr_text(uint32_t addr, char (&text)[kAddrTextSize]) {
  in_addr in;
  in.s_addr = addr;
  snprintf(text, sizeof text, "%s", inet_ntoa(in));
}

}  // namespace

// Command results are never examined: a command that fails leaves the
// interface as it was, and the next step runs regardless.

void wds_link_init() {
  if (g_dial == WDS_DIAL_DEMAND) {
    demand_link_init();
    return;
  }
  char acCmd[kInitCmdSize];
  snprintf(acCmd, sizeof acCmd, "ifconfig %s 0.0.0.0", g_acIfname);
  printf("\nacCmd=[%s]\n", acCmd);
  ZUN_UTIL_ExecCmdNoHang(acCmd);
}

void wds_link_up() {
  char cmd[kTextBufSize];
  char addr[kAddrTextSize];
  char mask[kAddrTextSize];
  char gateway[kAddrTextSize];
  addr_text(link_settings.ipv4_addr, addr);
  addr_text(link_settings.subnet_mask, mask);
  addr_text(link_settings.gateway, gateway);

  // Also in demand mode: the real address replaces the placeholder.
  snprintf(cmd, sizeof cmd, "ifconfig %s %s netmask %s", g_acIfname, addr, mask);
  ZUN_UTIL_ExecCmdNoHang(cmd);
  printf("\n\n\n\ncmd1=[%s]\n\n\n", cmd);

  snprintf(cmd, sizeof cmd, "route add -host %s dev %s", gateway, g_acIfname);
  ZUN_UTIL_ExecCmdNoHang(cmd);
  printf("\n\n\n\ncmd2=[%s]\n\n\n", cmd);

  // The MSS file is written by the shell, as the gateway's other tools do.
  char path[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kWanFileFmt, g_acIfname, wds_paths::kWanTcpMss);
  const int32_t mss = static_cast<int32_t>(wan_profile.mru - static_cast<uint32_t>(kTcpMssOverhead));
  snprintf(cmd, sizeof cmd, "echo %d > %s", static_cast<int>(mss), path);
  ZUN_UTIL_ExecCmdNoHang(cmd);
  printf("\r\n*** qmi set tcp mss cmd:[%s]\n", cmd);

  wds_status_write(WDS_STATUS_CONNECTED);

  // A setting the call did not give leaves its file as it was.
  if (link_settings.ipv4_addr != 0) write_wan_file(wds_paths::kWanIpaddr, addr);
  if (link_settings.subnet_mask != 0) write_wan_file(wds_paths::kWanMask, mask);
  if (link_settings.gateway != 0) write_wan_file(wds_paths::kWanGateway, gateway);

  char dns[kTextBufSize] = {};
  char server[kAddrTextSize];
  if (link_settings.primary_dns != 0) {
    addr_text(link_settings.primary_dns, server);
    text_append(dns, sizeof dns, "nameserver %s", server);
  }
  if (link_settings.secondary_dns != 0) {
    addr_text(link_settings.secondary_dns, server);
    text_append(dns, sizeof dns, "\nnameserver %s", server);
  }
  if (dns[0] != '\0') write_wan_file(wds_paths::kWanDns, dns);

  wds_notify_cms();
}

void wds_link_down() {
  const bool demand = g_dial == WDS_DIAL_DEMAND;
  if (demand) {
    demand_link_restore();
  } else {
    char cmd[kTextBufSize];
    char gateway[kAddrTextSize];
    addr_text(link_settings.gateway, gateway);
    snprintf(cmd, sizeof cmd, "route del -host %s dev %s", gateway, g_acIfname);
    ZUN_UTIL_ExecCmdNoHang(cmd);
    snprintf(cmd, sizeof cmd, "ifconfig %s 0.0.0.0", g_acIfname);
    ZUN_UTIL_ExecCmdNoHang(cmd);
  }

  wds_status_write(WDS_STATUS_DISCONNECTED);
  write_wan_file(wds_paths::kWanIpaddr, "");
  write_wan_file(wds_paths::kWanMask, "");
  wds_notify_cms();

  if (demand) demand_link_publish();
}
