// AT command channel on the modem's tty (NDIS mode).
#pragma once
#include <cstdint>

#include "core/core.h"

// Advanced by the daemon's 4-second tick (from the SIGALRM handler).
void at_tick();

int wait_wm_ready();
int at_port_cleanup();

// NDIS operations used by the connect procedures. The DHCP result uses the
// `link_settings_t` layout with host-order numbers.
int ndis_at_connect(const wan_profile_t* profile);
int ndis_at_disconnect();
int ndis_get_dhcp_result(link_settings_t* record, int mode);
