// SPDX-License-Identifier: ISC
// Files of the sandbox's /var die with the namespace: PID 1 copies them to
// the exchange directory before it leaves.
#pragma once
#include <string>

namespace sandbox {

// Directories and regular files under `from`, recreated under `to`; links
// and anything unreadable are left out.
void copy_tree(const std::string& from, const std::string& to);

}  // namespace sandbox
