// SPDX-License-Identifier: ISC
// PID 1 of the sandbox: makes the private file systems and network, binds
// "cms", starts the simulator and the daemon, then serves until told to
// stop: reaps children, plays the platform's "cms" and hotplug handler,
// answers commands. On the way
// out it copies /var/log and /var/wan to the exchange directory; leaving as
// PID 1 kills every process of the namespace.
#pragma once
#include "sim/sandbox/options.h"

namespace sandbox {

// exchange_fd: the host's exchange directory, opened in the new mount
// namespace. Returns PID 1's exit status.
int run_pid1(const Options& o, int exchange_fd);

}  // namespace sandbox
