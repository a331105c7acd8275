// SPDX-License-Identifier: ISC
// What the link publishes: its state files under /var/wan/<ifname>/ and its
// messages to "cms". Below both the link configuration and the demand
// placeholder, which use it and not each other's.
#include <cstdio>
#include <cstring>

#include "link/internal.h"
#include "platform/platform.h"
#include "wan/wan.h"

namespace {
// Bytes of the interface name buffer carried by CMS_MSG_DEMAND_LINK_READY.
constexpr size_t kDemandLinkReadyLen = 64;
}  // namespace

void write_wan_file(const char* name, const char* text) {
  char path[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kWanFileFmt, g_acIfname, name);
  WriteToFile(path, text);  // a file that cannot be written is logged there
}

// Each message is sent once and not confirmed: a "cms" that is not
// listening misses it.

void wds_notify_cms() {
  ZUN_MSG_Init(kQmiBusName);  // registered again before each send; a failure shows in the send
  ZUN_MSG_SendMsgData(kCmsBusName, CMS_MSG_WAN_LINK_CHANGED, nullptr, 0);
}

void send_demand_link_ready() {
  // The peer expects a fixed 64-byte name field, NUL-padded.
  char payload[kDemandLinkReadyLen] = {};
  memcpy(payload, g_acIfname, strnlen(g_acIfname, sizeof payload));
  ZUN_MSG_SendMsgData(kCmsBusName, CMS_MSG_DEMAND_LINK_READY, payload, sizeof payload);
}
