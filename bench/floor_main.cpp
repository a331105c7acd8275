// SPDX-License-Identifier: ISC
// wds-floor: waits for a signal and does nothing else. Compiled and linked
// as wdsd is, it is what any process of the same build costs; footprint.sh
// measures it beside the daemon, at the same moment.
#include <unistd.h>

int main() {
  pause();
  return 0;
}
