// Link configuration (shell commands, state files, bus) and traffic counters.
#pragma once
#include <cstdint>

inline constexpr uint32_t CMS_MSG_WAN_LINK_CHANGED = 0x11601;
inline constexpr uint32_t CMS_MSG_DEMAND_LINK_READY = 0x3d02;

void wds_link_init();
void wds_link_up();
void wds_link_down();
void wds_notify_cms();

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

int get_dev_traffic(const char* ifname, dev_traffic* traffic);
int demand_traffic_check(int reset);
int usbnet_private_probe(const char* ifname);

extern int g_demand_started;
extern int32_t g_demand_hits;
extern uint32_t g_demand_last_tx;
