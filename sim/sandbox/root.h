// SPDX-License-Identifier: ISC
// The sandbox's own root. PID 1 makes the directory it was started in (its
// root directory, which a chroot may have put anywhere) the root of its new
// mount namespace. A process that joins the namespace (setns, nsenter) is
// put on that root, so it sees the sandbox's files and never those of a
// machine around a chroot.
#pragma once

namespace sandbox {

// In a mount namespace of our own, before anything is mounted in it. Leaves
// every mount of the namespace private and the working directory at /.
// Throws std::runtime_error on the first step that fails.
void make_own_root();

}  // namespace sandbox
