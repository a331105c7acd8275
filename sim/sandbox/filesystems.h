// SPDX-License-Identifier: ISC
// PID 1's private file systems: /run with the exchange directory, a minimal
// /dev, a /proc of links plus the datacard chip file, this namespace's /sys,
// a tmpfs /var with the daemon's directories, the stub atcmd, and a
// read-only view of the rest.
#pragma once
#include "sim/sandbox/options.h"

namespace sandbox {

// exchange_fd: the host's exchange directory, opened before /run is covered.
// Throws std::runtime_error on the first step that fails.
void prepare_filesystems(const Options& o, int exchange_fd);

}  // namespace sandbox
