// Placeholder until datacard bring-up lands: bring-up always fails.
#include "core/core.h"

int wds_bring_up() { return -1; }
