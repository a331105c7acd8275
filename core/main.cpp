// Process entry: detach, open the log, set the restart point, run the machine.
#include <unistd.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>

#include "core/core.h"
#include "log/log.h"
#include "platform/platform.h"

int main() {
  // Keep the working directory and the standard streams: debug lines go to stdout.
  if (daemon(1, 1) != 0) {
    // Could not detach: keep serving in the foreground.
  }

  // Debug lines on standard output appear as they are printed, also when
  // it is a file or a pipe.
  setvbuf(stdout, nullptr, _IOLBF, 0);

  memset(g_acIfname, 0, sizeof g_acIfname);
  memset(g_acPidpath, 0, sizeof g_acPidpath);
  memset(g_acProfilepath, 0, sizeof g_acProfilepath);

  if (log_open() < 0) return -1;

  // Termination and fault handlers jump back here, with the saved signal mask.
  if (sigsetjmp(wds_restart_point, 1) != 0) wds_exit();

  ZUN_MSG_Init("qmi");
  wds_state_machine_run();
}
