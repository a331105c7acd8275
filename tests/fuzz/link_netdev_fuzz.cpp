// /proc/net/dev text as the traffic reader sees it: the first input byte
// picks the interface name to look for, the rest is the file.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "link/internal.h"

namespace {
constexpr const char* kNames[] = {"rmnet0", "rmnet_tarvek0", "lo", "0", ":", " ", ""};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const char* ifname = kNames[data[0] % (sizeof kNames / sizeof kNames[0])];
  FILE* file = fmemopen(const_cast<uint8_t*>(data + 1), size - 1, "r");
  if (file == nullptr) return 0;
  dev_traffic traffic = {};
  if (read_dev_traffic(file, ifname, &traffic) != 0) __builtin_trap();
  fclose(file);
  return 0;
}
