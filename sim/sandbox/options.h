// SPDX-License-Identifier: ISC
// The sandbox's command line.
#pragma once
#include <optional>
#include <string>
#include <vector>

namespace sandbox {

struct Options {
  std::string dir;
  std::string daemon;
  std::string sim;
  std::string mode = "qmi";           // qmi, ndis or none (no chip file)
  std::optional<std::string> chip;    // exact chip file content
  std::string sim_mode;               // follows the chip unless given
  std::optional<std::string> profile;
  bool no_profile = false;
  std::optional<std::string> dial;
  std::vector<std::string> sim_commands;
  bool start_daemon = true;
  bool ro_root = true;
  bool no_tun = false;
  // The gateway's platform around the daemon; off shows the bare daemon.
  bool hotplug = true;    // signal 38 when the modem re-appears
  bool cms_route = true;  // "cms" reinstalls the demand default route on 0x3d02
  std::string hotplug_script;  // content of an integrator's handler run in place of ours
  // Started in place of the daemon, as an init system would, and given the
  // daemon (--daemon /run/bin/wdsd) and these arguments.
  std::string supervisor;
  std::vector<std::string> supervisor_args;
  std::string ifname;
};

// Exits with status 2 and the usage on a bad command line.
Options parse_options(int argc, char** argv);

}  // namespace sandbox
