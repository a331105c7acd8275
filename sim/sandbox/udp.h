// SPDX-License-Identifier: ISC
// Traffic from inside the sandbox, e.g. towards the demand-mode route. The
// namespace has no way out: packets end in the simulator's tun reader.
#pragma once
#include <string>
#include <vector>

namespace sandbox {

// words: "udp ADDR PORT [LEN] [COUNT]". Answers "ok sent=N" or "err ...".
std::string send_udp(const std::vector<std::string>& words);

}  // namespace sandbox
