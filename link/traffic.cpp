// Placeholder until the traffic counters land: counters cannot be read.
#include "link/link.h"

int g_demand_started = 0;
int32_t g_demand_hits = 0;
uint32_t g_demand_last_tx = 0;

int get_dev_traffic(const char*, dev_traffic*) { return -1; }
int demand_traffic_check(int) { return -1; }
int usbnet_private_probe(const char*) { return -1; }
