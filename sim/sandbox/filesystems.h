// SPDX-License-Identifier: ISC
// PID 1's private file systems: its own root (root.h), /run with the
// exchange directory, a minimal /dev, a /proc of links plus the datacard chip
// file, this namespace's /sys, a tmpfs /var with the daemon's directories,
// the stub atcmd, and a read-only view of the rest.
#pragma once
#include "sim/sandbox/options.h"

namespace sandbox {

// In PID 1's new mount namespace, before anything is mounted there. Throws
// std::runtime_error on the first step that fails.
void prepare_filesystems(const Options& o);

}  // namespace sandbox
