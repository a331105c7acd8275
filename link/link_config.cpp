// Host side of the link: interface and route commands, the state files that
// publish the call's settings, and the notifications to "cms".
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

#include "core/core.h"
#include "core/paths.h"
#include "link/link.h"
#include "platform/platform.h"
#include "qmi/qmi.h"

namespace {

constexpr size_t kInitCmdSize = 260;
constexpr size_t kCmdSize = 128;
constexpr size_t kTextSize = 128;
constexpr size_t kAddrTextSize = 16;  // "255.255.255.255" and its terminator

// Dotted-decimal text of an address in network byte order. inet_ntoa hands
// back one static buffer, so each rendering is copied out at once.
void addr_text(uint32_t addr, char (&text)[kAddrTextSize]) {
  in_addr in;
  in.s_addr = addr;
  snprintf(text, sizeof text, "%s", inet_ntoa(in));
}

void write_wan_file(const char* name, const char* text) {
  char path[kTextSize];
  snprintf(path, sizeof path, wds_paths::kWanFileFmt, g_acIfname, name);
  WriteToFile(path, text);
}

// Appends as much of `text` as fits, keeping the terminator.
void append_text(char* buf, size_t size, const char* text) {
  size_t used = strnlen(buf, size);
  if (used + 1 >= size) return;
  snprintf(buf + used, size - used, "%s", text);
}

void send_demand_link_ready() {
  // The peer expects a fixed 64-byte name field, NUL-padded.
  char payload[kDemandLinkReadyLen] = {};
  memcpy(payload, g_acIfname, strnlen(g_acIfname, sizeof payload));
  ZUN_MSG_SendMsgData(kCmsBusName, CMS_MSG_DEMAND_LINK_READY, payload, sizeof payload);
}

}  // namespace

void wds_notify_cms() {
  ZUN_MSG_Init(kQmiBusName);
  ZUN_MSG_SendMsgData(kCmsBusName, CMS_MSG_WAN_LINK_CHANGED, nullptr, 0);
}

void wds_link_init() {
  char acCmd[kInitCmdSize];
  if (g_dial == WDS_DIAL_DEMAND) {
    // The double blanks are part of the gateway's established command lines.
    snprintf(acCmd, sizeof acCmd, "ifconfig %s %s netmask  255.255.255.255", g_acIfname, kDemandAddr);
    printf("\nacCmd=[%s]\n", acCmd);
    ZUN_UTIL_ExecCmdNoHang(acCmd);

    snprintf(acCmd, sizeof acCmd, "route add -host %s dev %s", kDemandGateway, g_acIfname);
    printf("\nacCmd=[%s]\n", acCmd);
    ZUN_UTIL_ExecCmdNoHang(acCmd);

    ZUN_UTIL_ExecCmdNoHang("route  add  default  gw  10.112.112.112");
    send_demand_link_ready();
    return;
  }
  snprintf(acCmd, sizeof acCmd, "ifconfig %s 0.0.0.0", g_acIfname);
  printf("\nacCmd=[%s]\n", acCmd);
  ZUN_UTIL_ExecCmdNoHang(acCmd);
}

void wds_link_up() {
  char cmd[kCmdSize];
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
  char path[kTextSize];
  snprintf(path, sizeof path, wds_paths::kWanTcpMssFmt, g_acIfname);
  const int32_t mss = static_cast<int32_t>(wan_profile.mru - static_cast<uint32_t>(kTcpMssOverhead));
  snprintf(cmd, sizeof cmd, "echo %d > %s", static_cast<int>(mss), path);
  ZUN_UTIL_ExecCmdNoHang(cmd);
  printf("\r\n*** qmi set tcp mss cmd:[%s]\n", cmd);

  wds_status_write(WDS_STATUS_CONNECTED);

  // A setting the call did not give leaves its file as it was.
  if (link_settings.ipv4_addr != 0) write_wan_file("ipaddr", addr);
  if (link_settings.subnet_mask != 0) write_wan_file("mask", mask);
  if (link_settings.gateway != 0) write_wan_file("gateway", gateway);

  char dns[kTextSize] = {};
  if (link_settings.primary_dns != 0) {
    char server[kAddrTextSize];
    addr_text(link_settings.primary_dns, server);
    append_text(dns, sizeof dns, "nameserver ");
    append_text(dns, sizeof dns, server);
  }
  if (link_settings.secondary_dns != 0) {
    char server[kAddrTextSize];
    addr_text(link_settings.secondary_dns, server);
    append_text(dns, sizeof dns, "\nnameserver ");
    append_text(dns, sizeof dns, server);
  }
  if (dns[0] != '\0') write_wan_file("dns", dns);

  wds_notify_cms();
}

void wds_link_down() {
  char cmd[kCmdSize];
  const bool demand = g_dial == WDS_DIAL_DEMAND;
  if (demand) {
    // Back to the placeholder so the next outgoing packet can start a call;
    // the default route through it is still in place from the initial setup.
    snprintf(cmd, sizeof cmd, "ifconfig %s %s netmask %s", g_acIfname, kDemandAddr, kDemandMask);
    ZUN_UTIL_ExecCmdNoHang(cmd);
    snprintf(cmd, sizeof cmd, "route add -host %s dev %s", kDemandGateway, g_acIfname);
    ZUN_UTIL_ExecCmdNoHang(cmd);
  } else {
    char gateway[kAddrTextSize];
    addr_text(link_settings.gateway, gateway);
    snprintf(cmd, sizeof cmd, "route del -host %s dev %s", gateway, g_acIfname);
    ZUN_UTIL_ExecCmdNoHang(cmd);
    snprintf(cmd, sizeof cmd, "ifconfig %s 0.0.0.0", g_acIfname);
    ZUN_UTIL_ExecCmdNoHang(cmd);
  }

  wds_status_write(WDS_STATUS_DISCONNECTED);
  write_wan_file("ipaddr", "");
  write_wan_file("mask", "");
  wds_notify_cms();

  if (demand) {
    write_wan_file("ipaddr", kDemandAddr);
    write_wan_file("mask", kDemandMask);
    write_wan_file("gateway", kDemandGateway);
    send_demand_link_ready();
  }
}
