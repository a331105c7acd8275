// Placeholder until link configuration lands: nothing is configured.
#include "link/link.h"

void wds_link_init() {}
void wds_link_up() {}
void wds_link_down() {}
void wds_notify_cms() {}
