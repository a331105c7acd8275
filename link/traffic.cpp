// Traffic counters of the interface from /proc/net/dev.
#include <cctype>
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

}  // namespace

int read_dev_traffic(FILE* file, const char* ifname, dev_traffic* traffic) {
  if (file == nullptr || ifname == nullptr || traffic == nullptr) return -1;
  char line[kNetDevLineSize];
  bool found = false;
  for (int number = 0; fgets(line, sizeof line, file) != nullptr; ++number) {
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
  FILE* file = fopen(wds_paths::kProcNetDev, "r");
  if (file == nullptr) return -1;
  int result = read_dev_traffic(file, ifname, traffic);
  fclose(file);
  return result;
}
