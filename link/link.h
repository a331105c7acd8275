// SPDX-License-Identifier: ISC
// Link configuration and traffic monitor: what the connection manager uses.
#pragma once
#include <cstdint>

// Initial link setup after bring-up, configuration after a connect, and
// teardown; in demand mode the placeholder link is installed and restored.
void wds_link_init();
void wds_link_up();
void wds_link_down();

// Counters of one interface line of /proc/net/dev (low 32 bits).
struct dev_traffic {
  uint32_t rx_bytes;
  uint32_t rx_packets;
  uint32_t rx_errs;
  uint32_t rx_drop;
  uint32_t tx_bytes;
  uint32_t tx_packets;
  uint32_t tx_errs;
  uint32_t tx_drop;
};
// 0, leaving `traffic` untouched when the interface is not listed; -1 when an
// argument is missing or /proc/net/dev cannot be read.
int get_dev_traffic(const char* ifname, dev_traffic* traffic);

// Demand dial: with reset 0 checks for rising traffic and may raise
// g_demand_dial; otherwise forgets the check's progress. 0, or -1 when the
// counters could not be read.
int demand_traffic_check(int reset);

// The driver's private request on the interface once the link is configured; 0 or -1.
int usbnet_private_probe(const char* ifname);
