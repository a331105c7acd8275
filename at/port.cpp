// Placeholder until the AT port lands: the port never opens.
#include "at/at.h"

void at_tick() {}
int wait_wm_ready() { return -1; }
int at_port_cleanup() { return 0; }
