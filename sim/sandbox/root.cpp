// SPDX-License-Identifier: ISC
#include "sim/sandbox/root.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "sim/sandbox/files.h"

namespace sandbox {

void make_own_root() {
  // The directory to become the root, as this namespace holds it.
  int here = check_fd(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC), "open /");
  // pivot_root wants the caller's root to be the top of a mount with no
  // shared parent; a chroot's root is neither. Joining our own namespace
  // puts the caller on the namespace's real root, whatever chroot it was in.
  int self = check_fd(static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)), "pidfd_open");
  check(setns(self, CLONE_NEWNS), "join the own mount namespace");
  close(self);
  // No mount made here may reach the host, nor one of the host's come in.
  check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make / private");
  // A copy of that directory with the mounts below it, put on top of it.
  int tree = check_fd(open_tree(here, "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE | AT_EMPTY_PATH),
                      "copy the root's mounts");
  check(move_mount(tree, "", here, "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH), "mount the copy");
  // The copy becomes the root. pivot_root stacks the old root on it, and
  // detaching that removes the old tree from the namespace altogether.
  check(fchdir(tree), "enter the copy");
  check(static_cast<int>(syscall(SYS_pivot_root, ".", ".")), "pivot_root");
  check(umount2(".", MNT_DETACH), "detach the old root");
  check(chdir("/"), "chdir /");
  close(tree);
  close(here);
}

}  // namespace sandbox
