// SPDX-License-Identifier: ISC
// A program PID 1 runs for the platform and waits for ("cms"'s route, an
// integrator's hotplug handler): a clean signal state (PID 1 blocks what its
// signalfd takes), standard input from /dev/null, standard output and error
// appended to a file.
#pragma once
#include <string>
#include <vector>

namespace sandbox {

// argv[0] is the program's path. "exit N", "signal N", or "not run: why".
std::string run_to_end(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                       const std::string& output);

}  // namespace sandbox
