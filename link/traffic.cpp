// SPDX-License-Identifier: ISC
// Traffic counters of the interface from /proc/net/dev, read with a
// descriptor: dial on demand reads it every 12 s, and a stream would
// allocate its buffer each time.
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "link/internal.h"
#include "wan/wan.h"

namespace {

// Lines 0 and 1 of /proc/net/dev are the column headers.
constexpr int kNetDevHeaderLines = 2;
constexpr int kNetDevLineSize = 512;
constexpr int kNetDevTokens = 17;
constexpr int kNetDevTokenSize = 32;

// Token positions of the kept counters, in the order of dev_traffic.
constexpr int kCounterTokens[] = {1, 2, 3, 4, 9, 10, 11, 12};
static_assert(sizeof(kCounterTokens) / sizeof(kCounterTokens[0]) == sizeof(dev_traffic) / sizeof(uint32_t));

// The tokens are blank-separated as scanf's "%s" separates them.
bool is_space(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }
bool is_digit(char c) { return isdigit(static_cast<unsigned char>(c)) != 0; }

// The kernel prints a wide first counter right after the colon
// ("rmnet0:4294967296 ..."); a blank is put in so that it is a token of its own.
void split_name_from_counter(char (&line)[kNetDevLineSize]) {
  char* colon = strchr(line, ':');
  if (colon == nullptr || !is_digit(colon[1])) return;
  char scratch[kNetDevLineSize];
  snprintf(scratch, sizeof scratch, "%s", colon + 1);
  colon[1] = ' ';
  char* rest = colon + 2;
  snprintf(rest, static_cast<size_t>(line + sizeof line - rest), "%s", scratch);
}

// Blank-separated tokens, as many as there are fields; a token longer than
// its field is cut, never split, so later columns keep their places.
void split_tokens(const char* line, char (&tokens)[kNetDevTokens][kNetDevTokenSize]) {
  memset(tokens, 0, sizeof tokens);
  const char* p = line;
  for (int i = 0; i < kNetDevTokens; ++i) {
    while (*p != '\0' && is_space(*p)) ++p;
    if (*p == '\0') return;
    size_t len = 0;
    while (*p != '\0' && !is_space(*p)) {
      if (len + 1 < kNetDevTokenSize) tokens[i][len++] = *p;
      ++p;
    }
  }
}

// Leading decimal digits, accumulated in 64 bits; the counter keeps the low
// 32 bits, as a 32-bit kernel counter would wrap.
uint32_t counter_value(const char* token) {
  uint64_t value = 0;
  for (; is_digit(*token); ++token) value = value * 10 + static_cast<uint64_t>(*token - '0');
  return static_cast<uint32_t>(value);
}

// The file's lines as fgets over a 512-byte buffer takes them: up to the
// first newline (kept) or 511 characters, whichever comes first; the rest
// of a longer line is the next line.
struct line_reader {
  int fd;
  char input[kNetDevLineSize];
  size_t next = 0;
  size_t end = 0;

  bool next_line(char (&line)[kNetDevLineSize]) {
    size_t len = 0;
    while (len < kNetDevLineSize - 1) {
      if (next == end && !refill()) break;
      const char c = input[next++];
      line[len++] = c;
      if (c == '\n') break;
    }
    line[len] = '\0';
    return len > 0;
  }

  bool refill() {
    ssize_t n;
    do {
      n = read(fd, input, sizeof input);
    } while (n < 0 && errno == EINTR);
    next = 0;
    end = n > 0 ? static_cast<size_t>(n) : 0;
    return end > 0;
  }
};

}  // namespace

int read_dev_traffic(int fd, const char* ifname, dev_traffic* traffic) {
  if (fd < 0 || ifname == nullptr || traffic == nullptr) return -1;
  line_reader reader{fd, {}};
  char line[kNetDevLineSize];
  bool found = false;
  for (int number = 0; reader.next_line(line); ++number) {
    if (number < kNetDevHeaderLines) continue;
    split_name_from_counter(line);
    // A substring match, so the first line naming the interface wins.
    if (strstr(line, ifname) != nullptr) {
      found = true;
      break;
    }
  }
  if (!found) return 0;

  char tokens[kNetDevTokens][kNetDevTokenSize];
  split_tokens(line, tokens);
  uint32_t* counters[] = {&traffic->rx_bytes, &traffic->rx_packets, &traffic->rx_errs, &traffic->rx_drop,
                          &traffic->tx_bytes, &traffic->tx_packets, &traffic->tx_errs, &traffic->tx_drop};
  for (size_t i = 0; i < sizeof counters / sizeof counters[0]; ++i) {
    *counters[i] = counter_value(tokens[kCounterTokens[i]]);
  }
  return 0;
}

int get_dev_traffic(const char* ifname, dev_traffic* traffic) {
  if (ifname == nullptr || traffic == nullptr) return -1;
  const int fd = open(wds_paths::kProcNetDev, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  const int result = read_dev_traffic(fd, ifname, traffic);
  close(fd);
  return result;
}
