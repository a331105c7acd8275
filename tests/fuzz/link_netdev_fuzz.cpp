// SPDX-License-Identifier: ISC
// /proc/net/dev text as the traffic reader sees it: the first input byte
// picks the interface name to look for, the rest is the file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "link/internal.h"

namespace {
constexpr const char* kNames[] = {"rmnet0", "rmnet_tarvek0", "lo", "0", ":", " ", ""};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const char* ifname = kNames[data[0] % (sizeof kNames / sizeof kNames[0])];
  const int fd = memfd_create("netdev", MFD_CLOEXEC);
  if (fd < 0) return 0;
  if (write(fd, data + 1, size - 1) == static_cast<ssize_t>(size - 1) && lseek(fd, 0, SEEK_SET) == 0) {
    dev_traffic traffic = {};
    if (read_dev_traffic(fd, ifname, &traffic) != 0) __builtin_trap();
  }
  close(fd);
  return 0;
}
