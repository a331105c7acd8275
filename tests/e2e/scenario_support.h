// Helpers shared by the daemon scenarios: time arithmetic, the figures each
// scenario prints, and the usual way into a call.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/e2e/harness.h"

namespace wds::e2e {

// WDS message identifiers and bus message types as the scenarios see them.
inline constexpr uint16_t kReset = 0x0000;
inline constexpr uint16_t kAbort = 0x0002;
inline constexpr uint16_t kStartNetwork = 0x0020;
inline constexpr uint16_t kStopNetwork = 0x0021;
inline constexpr uint16_t kPacketStatus = 0x0022;
inline constexpr uint16_t kRuntimeSettings = 0x002D;
inline constexpr uint32_t kLinkChanged = 0x11601;
inline constexpr uint32_t kDemandLinkReady = 0x3d02;

inline double seconds_since(int64_t t_us) { return static_cast<double>(monotonic_us() - t_us) / 1e6; }
inline double seconds_between(int64_t from_us, int64_t to_us) {
  return static_cast<double>(to_us - from_us) / 1e6;
}
inline bool contains(const std::string& text, const std::string& needle) {
  return text.find(needle) != std::string::npos;
}

// Duration and connect latency of one scenario, printed as a "[figure]" line
// when it ends and recorded as test properties.
class Figures {
 public:
  Figures() : start_us_(monotonic_us()) {}
  ~Figures() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(info->test_suite_name()) + "." + info->name();
    char line[256];
    int n = snprintf(line, sizeof line, "[figure] %s duration_s=%.1f", name.c_str(), seconds_since(start_us_));
    for (double l : latencies_)
      n += snprintf(line + n, sizeof line - static_cast<size_t>(n), " connect_latency_s=%.2f", l);
    printf("%s\n", line);
    fflush(stdout);
  }
  double last_latency() const { return latencies_.empty() ? 0.0 : latencies_.back(); }
  void connect_latency(double s) {
    latencies_.push_back(s);
    ::testing::Test::RecordProperty("connect_latency_ms_" + std::to_string(latencies_.size()),
                                    std::to_string(static_cast<long>(s * 1000)));
  }

 private:
  int64_t start_us_;
  std::vector<double> latencies_;
};

// Waits for a finished bring-up (status 0, "ready"), writes the dial request
// and waits for status 3; records the latency from the request.
inline ::testing::AssertionResult dial_and_connect(const Sandbox& sb, int dial, Figures& fig,
                                                   Millis bring_up_limit, Millis connect_limit) {
  if (!sb.wait_state("status", "0\n", bring_up_limit))
    return ::testing::AssertionFailure() << "no status 0\n" << sb.log();
  if (!sb.wait_log("wds state : ready", bring_up_limit))
    return ::testing::AssertionFailure() << "not ready\n" << sb.log();
  int64_t t0 = monotonic_us();
  sb.write_dial(dial);
  if (!sb.wait_state("status", "3\n", connect_limit))
    return ::testing::AssertionFailure() << "no status 3 after dial " << dial << "\n" << sb.log();
  fig.connect_latency(seconds_since(t0));
  return ::testing::AssertionSuccess();
}

}  // namespace wds::e2e
