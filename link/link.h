// Link configuration (shell commands, state files, bus) and traffic counters.
#pragma once
#include <cstdint>
#include <cstdio>

inline constexpr uint32_t CMS_MSG_WAN_LINK_CHANGED = 0x11601;
inline constexpr uint32_t CMS_MSG_DEMAND_LINK_READY = 0x3d02;

// Bus names: the peer that hears about the link, and the daemon itself.
inline constexpr char kCmsBusName[] = "cms";
inline constexpr char kQmiBusName[] = "qmi";
// Bytes of the interface name buffer carried by CMS_MSG_DEMAND_LINK_READY.
inline constexpr int kDemandLinkReadyLen = 64;

// Dial on demand: a placeholder address and gateway give outgoing traffic a
// path into the idle interface.
inline constexpr char kDemandAddr[] = "10.48.48.48";
inline constexpr char kDemandMask[] = "255.255.255.255";
inline constexpr char kDemandGateway[] = "10.112.112.112";
// The TCP MSS is the profile's mru less the IPv4 and TCP headers.
inline constexpr int kTcpMssOverhead = 80;

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

// Bounds of the /proc/net/dev reader.
inline constexpr int kNetDevLineSize = 512;
inline constexpr int kNetDevTokens = 17;
inline constexpr int kNetDevTokenSize = 32;

int get_dev_traffic(const char* ifname, dev_traffic* traffic);
// The reader behind get_dev_traffic, on any stream in /proc/net/dev format.
// Leaves `traffic` untouched when no line names the interface. Returns 0, or
// -1 when an argument is missing. Does not close the stream.
int read_dev_traffic(FILE* file, const char* ifname, dev_traffic* traffic);
int demand_traffic_check(int reset);
int usbnet_private_probe(const char* ifname);

extern int g_demand_started;
extern int32_t g_demand_hits;
extern uint32_t g_demand_last_tx;
