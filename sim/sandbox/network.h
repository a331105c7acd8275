// SPDX-License-Identifier: ISC
// PID 1's network namespace: loopback up, IPv6 off. The modem's interface
// is the simulator's to create.
#pragma once

namespace sandbox {

// Throws std::runtime_error when loopback cannot be brought up.
void prepare_network();

}  // namespace sandbox
