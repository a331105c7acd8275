// Placeholder until the NDIS operations land: every command fails.
#include "at/at.h"

int ndis_at_connect(const wan_profile_t*) { return -1; }
int ndis_at_disconnect() { return -1; }
int ndis_get_dhcp_result(link_settings_t*, int) { return -1; }
