// SPDX-License-Identifier: ISC
// The connection manager's state that the other subsystems read, and the two
// shared records.
#include <cstring>

#include "wan/wan.h"

link_settings_t link_settings;
wan_profile_t wan_profile;
char g_acIfname[kIfnameSize];
volatile sig_atomic_t g_dial = 0;
volatile sig_atomic_t g_connected = 0;
volatile sig_atomic_t g_ndis_mode = 0;
int g_demand_dial = 0;

void wan_reset() {
  link_settings = {};
  wan_profile = {};
  memset(g_acIfname, 0, sizeof g_acIfname);
  g_dial = 0;
  g_connected = 0;
  g_ndis_mode = 0;
  g_demand_dial = 0;
}
