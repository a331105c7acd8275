// SPDX-License-Identifier: ISC
// The link module's own parts, shared by its files and its tests.
#pragma once
#include <cstddef>
#include <cstdint>

#include "link/link.h"

// Bus messages to "cms", sent from the daemon's own bus name (kQmiBusName).
inline constexpr char kCmsBusName[] = "cms";
inline constexpr uint32_t CMS_MSG_WAN_LINK_CHANGED = 0x11601;
inline constexpr uint32_t CMS_MSG_DEMAND_LINK_READY = 0x3d02;

// The initial setup builds its command lines in a buffer of its own size.
inline constexpr size_t kInitCmdSize = 260;

// ---- What the link publishes (publish.cpp) --------------------------------------

// Rewrites "/var/wan/<ifname>/<name>" with `text` and a newline.
void write_wan_file(const char* name, const char* text);
// Registers on the bus again as "qmi" and tells "cms" the link changed.
void wds_notify_cms();
// Tells "cms" the demand placeholder is in place: the first 64 bytes of the
// interface name, NUL-padded.
void send_demand_link_ready();

// ---- Dial on demand (demand.cpp) ----------------------------------------------

// The placeholder link of the initial setup: address, host route and default
// route, then "demand link ready".
void demand_link_init();
// The teardown's commands: placeholder address and host route again (the
// default route of the initial setup is still in place).
void demand_link_restore();
// The teardown's placeholder files, then "demand link ready".
void demand_link_publish();

extern int g_demand_started;
extern int32_t g_demand_hits;
extern uint32_t g_demand_last_tx;
// The traffic check's state as the process starts (demand_traffic_check(1)
// keeps the baseline value).
void demand_traffic_reset();

// ---- Traffic counters (traffic.cpp) -------------------------------------------

// The reader behind get_dev_traffic, on any descriptor of text in
// /proc/net/dev format, read from where it stands. Leaves `traffic`
// untouched when no line names the interface. Returns 0, or -1 when an
// argument is missing. Does not close the descriptor.
int read_dev_traffic(int fd, const char* ifname, dev_traffic* traffic);
