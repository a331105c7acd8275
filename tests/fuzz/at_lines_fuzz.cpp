// The AT line assembler fed an arbitrary byte stream in arbitrary read sizes.
//
// Input: one byte choosing the reply prefix and single-pass mode, then chunks,
// each a two-byte size (1 to 512) and up to that many bytes. Each chunk is one
// read of the port (a SOCK_SEQPACKET pair keeps the boundaries); the modem
// hangs up after the last one, so every run ends with err 19.
//
// Besides the invariants of each outcome, waits without single-pass must give
// the same outcomes whatever the read sizes, as long as no read is cut by a
// zero byte or at 511 bytes and no read ends in a CR that the next read's CR
// follows (a CR left pending makes the next CR start a new line end).
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "at/internal.h"

namespace {

constexpr const char* kPrefixes[] = {"", "^DHCP", "+CMGR", "^NDISDUP", "OK", "ERROR", ">", "\r", "+", "A"};
constexpr size_t kMaxChunks = 200;  // well within what the pair queues
constexpr int kMaxChunk = 512;

struct Outcome {
  int ret;
  int err;
  uint32_t result;
  std::string response;
  bool operator==(const Outcome&) const = default;
};

void check(bool ok) {
  if (!ok) __builtin_trap();
}

void fresh_channel() {
  at_port_reset();
  at_response_reset();
}

std::vector<Outcome> run(const std::vector<std::string>& chunks, const char* prefix, bool single_pass,
                         size_t total) {
  std::vector<Outcome> outcomes;
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, sv) != 0) return outcomes;
  for (const auto& chunk : chunks) check(send(sv[1], chunk.data(), chunk.size(), MSG_DONTWAIT) >= 0);
  shutdown(sv[1], SHUT_WR);
  fresh_channel();
  g_at_fd = sv[0];

  // Every wait consumes a final result line or a read, so this bounds a run.
  for (size_t call = 0;; ++call) {
    check(call <= total + chunks.size() + 2);
    at_request req;
    memset(&req, 0, sizeof req);
    req.kind = kAtKind;
    req.single_pass = single_pass ? 1 : 0;
    snprintf(req.body.out.prefix, sizeof req.body.out.prefix, "%s", prefix);
    int err = -7;
    const int ret = at_wait_response(&req, &err);

    const at_reply_out& out = req.body.out;
    check(out.response[kAtResponseSize - 1] == '\0');
    check(strnlen(g_at_line_acc, sizeof g_at_line_acc) < sizeof g_at_line_acc);
    check(at_rx_ring.wpos >= 0 && at_rx_ring.wpos < kAtRingSize);
    check(at_rx_ring.rpos >= 0 && at_rx_ring.rpos < kAtRingSize);
    check(ret == 0 || (ret == -1 && err == ENODEV));
    if (ret == 0 && !single_pass) check(out.result >= AT_RESULT_OK && out.result <= AT_RESULT_TOO_MANY_PARAMETERS);
    outcomes.push_back({ret, err, out.result, std::string(out.response)});
    if (ret != 0) break;
  }
  g_at_fd = -1;
  close(sv[0]);
  close(sv[1]);
  return outcomes;
}

// The same bytes in reads as large as allowed, never splitting a CR pair.
bool canonical_chunks(const std::string& all, std::vector<std::string>* out) {
  size_t from = 0;
  while (from < all.size()) {
    size_t cut = std::min(all.size(), from + kAtReadSize - 1);
    while (cut < all.size() && cut > from && all[cut - 1] == '\r' && all[cut] == '\r') --cut;
    if (cut == from) return false;
    out->push_back(all.substr(from, cut - from));
    from = cut;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const char* prefix = kPrefixes[(data[0] & 0x7f) % (sizeof kPrefixes / sizeof kPrefixes[0])];
  const bool single_pass = (data[0] & 0x80) != 0;

  std::vector<std::string> chunks;
  size_t at = 1;
  while (at + 2 <= size && chunks.size() < kMaxChunks) {
    const size_t want = 1 + ((data[at] | (data[at + 1] << 8)) % kMaxChunk);
    at += 2;
    const size_t len = std::min(want, size - at);
    if (len == 0) break;
    chunks.emplace_back(reinterpret_cast<const char*>(data + at), len);
    at += len;
  }

  const std::vector<Outcome> outcomes = run(chunks, prefix, single_pass, size);
  if (single_pass) return 0;

  std::string all;
  bool comparable = true;
  for (size_t i = 0; i < chunks.size(); ++i) {
    const std::string& c = chunks[i];
    if (c.size() >= static_cast<size_t>(kAtReadSize) || c.find('\0') != std::string::npos) comparable = false;
    if (i > 0 && chunks[i - 1].back() == '\r' && c.front() == '\r') comparable = false;
    all += c;
  }
  std::vector<std::string> canonical;
  if (!comparable || !canonical_chunks(all, &canonical)) return 0;
  check(run(canonical, prefix, false, size) == outcomes);
  return 0;
}
