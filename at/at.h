// SPDX-License-Identifier: ISC
// AT command channel on the modem's tty (NDIS mode): what the connection
// manager uses of it.
#pragma once
#include "wan/wan.h"

// Opens the AT port for NDIS mode (clearing the ppp state first); 0 or -1.
int wait_wm_ready();
// Closes the AT port; always 0.
int at_port_cleanup();
// One tick of the daemon's timer: the AT time-outs count these.
void at_tick();

// Each sends one command and waits for its final result: 0 for "OK", else -1.
int at_echo_off(int* err);
int ndis_at_connect(const wan_profile_t* profile);
int ndis_at_disconnect();
// The DHCP query into `record` (host-order words); mode 2 sends nothing and
// leaves the record as it is. 0 or -1.
int ndis_get_dhcp_result(link_settings_t* record, int mode);
