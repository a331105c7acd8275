// SPDX-License-Identifier: ISC
// CPU cost of the daemon's hot paths on the board: taking a WDS block apart,
// dumping it to the log, reading the interface counters.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "link/internal.h"
#include "log/internal.h"
#include "log/log.h"
#include "qmi/internal.h"
#include "qmi/qmi.h"

namespace {

// A runtime-settings response (address, mask, gateway, two DNS, user name)
// followed in the same block by a packet-service-status indication.
const uint8_t kRuntimeBlock[] = {
    0x02, 0x00, 0x03, 0x00, 0x2d, 0x00, 0x34, 0x02, 0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x15, 0x00,
    0x04, 0xc0, 0xa8, 0x08, 0x02, 0x16, 0x00, 0x04, 0xc0, 0xa8, 0x08, 0x03, 0x1b, 0x00, 0x03, 0x77,
    0x64, 0x73, 0x1d, 0x00, 0x01, 0x00, 0x1e, 0x00, 0x04, 0xc0, 0xa8, 0x08, 0x64, 0x20, 0x00, 0x04,
    0xc0, 0xa8, 0x08, 0x01, 0x21, 0x00, 0x04, 0xff, 0xff, 0xff, 0x00,
    0x04, 0x00, 0x00, 0x00, 0x22, 0x00, 0x05, 0x01, 0x00, 0x02, 0x02, 0x00,
};

void BM_ParseRuntimeBlock(benchmark::State& state) {
  const qmi_expect expect = {kQmiCtlResponse, 3, kWdsRuntimeSettings};
  for (auto _ : state) {
    int verdict = parse_msg(kRuntimeBlock, &expect, sizeof kRuntimeBlock);
    benchmark::DoNotOptimize(verdict);
  }
}
BENCHMARK(BM_ParseRuntimeBlock);

void BM_DumpBlockToLog(benchmark::State& state) {
  log_fd = open("/dev/null", O_WRONLY);
  for (auto _ : state) {
    log_bytes = 0;
    dump_msg(kRuntimeBlock, sizeof kRuntimeBlock);
  }
  close(log_fd);
  log_fd = -1;
}
BENCHMARK(BM_DumpBlockToLog);

void BM_LogRecord(benchmark::State& state) {
  log_fd = open("/dev/null", O_WRONLY);
  for (auto _ : state) {
    log_bytes = 0;
    info("[ info][%16s:%4d:pid=%3d] wds state : connected\n", "main", 121, 8);
  }
  close(log_fd);
  log_fd = -1;
}
BENCHMARK(BM_LogRecord);

const char kNetDev[] =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo "
    "colls carrier compressed\n"
    "    lo:   12345      67    0    0    0     0          0         0    12345      67    0    0    0     "
    "0       0          0\n"
    "  eth0: 987654321 1234567    0    0    0     0          0         0 123456789  654321    0    0    0     "
    "0       0          0\n"
    "rmnet0:4294967296 1000    0    0    0     0          0         0  5000000    4000    0    0    0     "
    "0       0          0\n";

void BM_ReadDevTraffic(benchmark::State& state) {
  const int fd = memfd_create("netdev", MFD_CLOEXEC);
  if (fd < 0 || write(fd, kNetDev, sizeof kNetDev - 1) != static_cast<ssize_t>(sizeof kNetDev - 1)) {
    state.SkipWithError("memfd");
    return;
  }
  for (auto _ : state) {
    lseek(fd, 0, SEEK_SET);
    dev_traffic traffic = {};
    int result = read_dev_traffic(fd, "rmnet0", &traffic);
    benchmark::DoNotOptimize(result);
    benchmark::DoNotOptimize(traffic);
  }
  close(fd);
}
BENCHMARK(BM_ReadDevTraffic);

}  // namespace

BENCHMARK_MAIN();
