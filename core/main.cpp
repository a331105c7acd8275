// SPDX-License-Identifier: ISC
// Process entry: detach, open the log, set the restart point, run the machine.
#include <unistd.h>

#include <csetjmp>
#include <cstdio>

#include "core/core.h"
#include "log/log.h"
#include "platform/platform.h"

namespace {
// Holds one debug line; a longer one goes out in pieces.
constexpr size_t kStdoutBufferSize = 1024;
}  // namespace

int main() {
  // Keep the working directory and the standard streams: debug lines go to stdout.
  if (daemon(1, 1) != 0) {
    // Could not detach: keep serving in the foreground.
  }

  // Debug lines on standard output appear as they are printed, also when
  // it is a file or a pipe. The buffer is ours, so printing never allocates.
  static char stdout_buffer[kStdoutBufferSize];
  setvbuf(stdout, stdout_buffer, _IOLBF, sizeof stdout_buffer);

  // The interface name and the paths built from it start empty.
  wan_reset();
  wds_core_reset();

  if (log_open() < 0) return -1;

  // Termination and fault handlers jump back here, with the saved signal mask.
  if (sigsetjmp(wds_restart_point, 1) != 0) wds_exit();

  // Not checked: a failed registration only loses bus notifications, which
  // the daemon never waits for.
  ZUN_MSG_Init(kQmiBusName);
  wds_state_machine_run();
}
