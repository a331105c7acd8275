// Placeholder until the call procedures land: no call can be made.
#include "core/core.h"

ndis_ctx_t ndis_ctx;

int wds_connect() { return -1; }
int wds_disconnect() { return -1; }
int _ndis_connect(ndis_ctx_t*) { return -1; }
int ndis_disconnect() { return -1; }
