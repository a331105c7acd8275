// SPDX-License-Identifier: ISC
// The AT line assembler fed any byte stream in any read sizes.
//
// Input: one byte choosing the reply prefix and single-pass mode, then chunks,
// each a two-byte size (1 to 512) and up to that many bytes. Each chunk is one
// read of the port (a SOCK_SEQPACKET pair keeps the boundaries); the modem
// hangs up after the last one, so every run ends with err 19.
//
// Besides the invariants of each outcome, waits without single-pass must give
// the same outcomes whatever the read sizes, as long as no read is cut (by a
// zero byte, or at 511 bytes) and no read ends in a CR that the next read's
// CR follows (a CR left pending makes the next CR start a new line end).
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <string>
#include <vector>

#include "at/internal.h"

namespace {

constexpr const char* kPrefixes[] = {"", "^DHCP", "+CMGR", "^NDISDUP", "OK", "ERROR", ">", "\r", "+", "A"};

void check(bool ok) {
  if (!ok) __builtin_trap();
}

// Every wait's outcome until the modem is gone, each checked as it comes.
std::vector<std::string> run(const std::vector<std::string>& reads, const char* prefix, bool single_pass, size_t size) {
  std::vector<std::string> outcomes;
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv) != 0) return outcomes;
  for (const auto& r : reads) check(send(sv[1], r.data(), r.size(), MSG_DONTWAIT) >= 0);
  shutdown(sv[1], SHUT_WR);
  at_port_reset();
  at_response_reset();
  g_at_fd = sv[0];
  for (int ret = 0; ret == 0;) {
    check(outcomes.size() <= size + reads.size() + 2);  // each wait takes a final result or a read
    at_request req = {};
    req.single_pass = single_pass ? 1 : 0;
    snprintf(req.body.out.prefix, sizeof req.body.out.prefix, "%s", prefix);
    int err = -7;
    ret = at_wait_response(&req, &err);
    const at_reply_out& out = req.body.out;
    check(out.response[kAtResponseSize - 1] == '\0' && strnlen(g_at_line_acc, kAtAccumulatorSize) < kAtAccumulatorSize);
    // A CR taken in a pass is settled in it or left pending for the next one.
    check(g_at_cr == AT_CR_NONE || g_at_cr == AT_CR_PENDING);
    check(at_rx_ring.wpos >= 0 && at_rx_ring.wpos < kAtRingSize && at_rx_ring.rpos >= 0 && at_rx_ring.rpos < kAtRingSize);
    check(ret == 0 || (ret == -1 && err == ENODEV));
    check(ret != 0 || single_pass || (out.result >= AT_RESULT_OK && out.result <= AT_RESULT_TOO_MANY_PARAMETERS));
    outcomes.push_back(std::to_string(ret) + " " + std::to_string(err) + " " + std::to_string(out.result) + " " +
                       out.response);
  }
  g_at_fd = -1;
  close(sv[0]);
  close(sv[1]);
  return outcomes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const char* prefix = kPrefixes[(data[0] & 0x7f) % std::size(kPrefixes)];
  const bool single_pass = (data[0] & 0x80) != 0;
  std::vector<std::string> reads;
  std::string all;
  bool comparable = !single_pass;
  for (size_t at = 1; at + 2 <= size && reads.size() < 200;) {  // well within what the pair queues
    const size_t len = std::min<size_t>(1 + ((data[at] | (data[at + 1] << 8)) % 512), size - at - 2);
    at += 2;
    if (len == 0) break;
    const std::string read(reinterpret_cast<const char*>(data + at), len);
    at += len;
    const bool cr_pair = !all.empty() && all.back() == '\r' && read[0] == '\r';
    if (len >= kAtReadSize || read.find('\0') != std::string::npos || cr_pair) comparable = false;
    reads.push_back(read);
    all += read;
  }
  const std::vector<std::string> outcomes = run(reads, prefix, single_pass, size);
  if (!comparable) return 0;

  // The same bytes in reads as large as allowed, never cut between two CRs.
  std::vector<std::string> canonical;
  for (size_t from = 0, cut; from < all.size(); from = cut) {
    cut = std::min(all.size(), from + kAtReadSize - 1);
    while (cut < all.size() && cut > from && all[cut - 1] == '\r' && all[cut] == '\r') --cut;
    if (cut == from) return 0;
    canonical.push_back(all.substr(from, cut - from));
  }
  check(run(canonical, prefix, false, size) == outcomes);
  return 0;
}
