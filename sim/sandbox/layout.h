// SPDX-License-Identifier: ISC
// Where things are inside the sandbox, as PID 1 lays them out.
#pragma once

namespace sandbox {

// The host's exchange directory (--dir), bind-mounted here.
inline constexpr char kExchange[] = "/run/sandbox";
// What the platform's agents did (hotplug handler, "cms"), one line each.
inline constexpr char kPlatformLog[] = "/run/sandbox/platform.log";
// Stand-ins for the gateway's tools (atcmd), first on PATH.
inline constexpr char kBinDir[] = "/run/bin";
inline constexpr char kPath[] = "/run/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
// A fresh procfs; /proc itself is a tmpfs of links into it.
inline constexpr char kRealProc[] = "/run/realproc";
// Pids inside stay below this, so every one has its link in /proc.
inline constexpr int kPidMax = 2048;

}  // namespace sandbox
