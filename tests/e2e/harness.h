// End-to-end harness: the installed daemon, unchanged, in a sandbox of its
// own (see sim/sandbox/), with the modem simulator behind its tty.
// Every wait polls a condition until it holds or its limit passes. Failures
// of the harness itself (a sandbox that does not start, a simulator command
// refused) throw std::runtime_error, which fails the test with the message.
#pragma once
#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace wds::e2e {

using namespace std::chrono_literals;
using Millis = std::chrono::milliseconds;

struct SandboxOptions {
  // Content of /proc/proc_user_datacardchip, nullopt for no file; a first
  // byte '1' means NDIS mode on rmnet_tarvek0, anything else QMI on rmnet0.
  std::optional<std::string> chip = "0\n";
  // Dial profile for /var/wan/<if>/config; nullopt keeps the sandbox's
  // default (APN internet, user1/pass1, auth 2, idletime 60, mru 1500).
  std::optional<std::string> profile{};
  bool no_profile = false;
  std::optional<int> dial{};     // initial content "N\n" of the dial file
  std::vector<std::string> sim{};  // simulator commands run before the daemon starts
  bool start_daemon = true;
  // The gateway's platform around the daemon: the hotplug handler's signal
  // 38 when the modem re-appears, and "cms" reinstalling the demand default
  // route on 0x3d02. Off shows the bare daemon.
  bool hotplug = true;
  bool cms_route = true;
};

struct DeviceRecord {
  int64_t t_us = 0;   // CLOCK_MONOTONIC, comparable with monotonic_us()
  std::string kind;   // rx (client wrote), tx (client read), ev, net
  std::string data;   // bytes for rx/tx/net, text for ev
};

// A WDS message the daemon wrote.
struct QmiRequest {
  int64_t t_us = 0;
  std::string bytes;
  uint16_t tx = 0;
  uint16_t id = 0;
};

// An AT command line the daemon wrote, timed by the write that ended it.
struct AtLine {
  int64_t t_us = 0;
  std::string text;
};

struct BusMessage {
  std::string sender;
  uint32_t type = 0;
  uint32_t len = 0;
  std::string payload;
};

struct CommandResult {
  int status = -1;     // exit status of the command, -1 if it did not run
  std::string output;  // standard output and error together
};

struct NetDevCounters { uint64_t tx_bytes = 0, tx_packets = 0; };

int64_t monotonic_us();
std::string to_hex(const std::string& bytes);
std::optional<std::string> slurp(const std::string& path);  // a host file (the log: Sandbox::log)

class Sandbox {
 public:
  explicit Sandbox(SandboxOptions options = {});
  ~Sandbox();  // shuts down and waits until nothing of it is left
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // Starts the sandbox and waits until the simulator and the daemon run.
  void start();
  // Orderly end: PID 1 copies /var/log and /var/wan to the exchange
  // directory's final/ and leaves, which ends every process inside. Waits
  // until it is all gone.
  void stop();
  // SIGKILL to the runner; everything inside dies with it. Waits until PID 1
  // is gone.
  void kill_hard();

  const std::string& ifname() const { return ifname_; }
  pid_t init_pid() const { return init_pid_; }      // host view

  // ---- files inside: an absolute path as the daemon sees it, or a bare
  // name for a file of /var/wan/<if>/ ("status", "dial", ...) ----
  std::optional<std::string> read(const std::string& path) const;
  std::optional<std::string> state(const std::string& name) const { return read(name); }
  void write(const std::string& path, const std::string& text) const;
  void write_dial(int value) const { write("dial", std::to_string(value) + "\n"); }
  std::string log() const;            // /var/log/wds.log, "" if none
  std::string daemon_output() const;  // its stdout and stderr

  // ---- waiting ----
  bool wait_until(const std::function<bool()>& cond, Millis limit) const;
  bool wait_state(const std::string& name, const std::string& content, Millis limit) const;
  bool wait_log(const std::string& text, Millis limit, int count = 1) const;
  int count_log(const std::string& text) const;

  // ---- the simulator ----
  // Sends a command; returns the answer after "ok" (trimmed), throws on "err".
  std::string sim(const std::string& command) const;
  std::map<std::string, std::string> sim_state() const;  // "get", as key=value
  std::vector<DeviceRecord> device_log() const;
  // The WDS messages the daemon wrote, all or those of one id.
  std::vector<QmiRequest> qmi_requests(std::optional<uint16_t> id = std::nullopt) const;
  bool wait_qmi_request(uint16_t id, Millis limit, size_t count = 1) const;
  std::vector<AtLine> at_lines() const;  // without their carriage returns

  // ---- bus and stub tool ----
  std::vector<BusMessage> bus() const;
  bool wait_bus(uint32_t type, Millis limit, size_t count = 1) const;
  std::vector<std::string> atcmd_calls() const;
  // What the platform's agents did, "<µs> hotplug add: signal 38 to N", ...
  std::vector<std::string> platform_log() const;

  // ---- inside the namespaces ----
  CommandResult run(const std::vector<std::string>& argv) const;  // gives up after 30 s
  std::string init(const std::string& command) const;  // PID 1's control, throws on "err"
  void udp(const std::string& addr, int port, int len = 32, int count = 1) const;
  std::optional<NetDevCounters> net_dev() const;  // of the sandbox's interface

  // ---- the daemon ----
  void signal(int sig) const { init("kill " + std::to_string(sig)); }
  void start_daemon() const { init("start"); }
  std::optional<pid_t> daemon_pid() const;         // pid inside the sandbox, once detached
  std::optional<std::string> daemon_exit() const;  // "exit N" / "signal N"
  std::optional<std::string> wait_daemon_exit(Millis limit) const;
  // What the daemon's own C library says for errnum: texts differ between C
  // libraries, so wds-strerror, built with the daemon's toolchain next to
  // it, is asked.
  std::string daemon_strerror(int errnum) const;

 private:
  std::string host_path(const std::string& inside) const;
  std::string exchange(const std::string& name) const { return dir_ + "/" + name; }

  SandboxOptions opts_;
  std::string daemon_;
  std::string dir_;
  std::string ifname_;
  pid_t runner_pid_ = -1;
  pid_t init_pid_ = -1;
  bool keep_dir_ = false;
};

// ---- shared by the daemon scenarios: identifiers, limits, time arithmetic,
// the figures each scenario prints, and the usual way into a call ----

// WDS message identifiers and bus message types as the scenarios see them.
inline constexpr uint16_t kReset = 0x0000;
inline constexpr uint16_t kAbort = 0x0002;
inline constexpr uint16_t kStartNetwork = 0x0020;
inline constexpr uint16_t kStopNetwork = 0x0021;
inline constexpr uint16_t kPacketStatus = 0x0022;
inline constexpr uint16_t kRuntimeSettings = 0x002D;
inline constexpr uint32_t kLinkChanged = 0x11601;
inline constexpr uint32_t kDemandLinkReady = 0x3d02;

// The status poll runs every third 4-second tick. Every limit is on a
// condition, generous for a loaded CI box.
inline constexpr auto kPollPeriod = 12s;
inline constexpr auto kBringUpLimit = 40s;
inline constexpr auto kConnectLimit = 40s;

inline double seconds_since(int64_t t_us) { return static_cast<double>(monotonic_us() - t_us) / 1e6; }
inline double seconds_between(int64_t from_us, int64_t to_us) { return static_cast<double>(to_us - from_us) / 1e6; }
inline bool contains(const std::string& text, const std::string& needle) {
  return text.find(needle) != std::string::npos;
}
// Requests of one kind sent between two instants.
inline size_t count_between(const std::vector<QmiRequest>& reqs, int64_t from_us, int64_t to_us) {
  return std::ranges::count_if(reqs, [&](const QmiRequest& r) { return r.t_us >= from_us && r.t_us <= to_us; });
}
// Simulator events (device log "ev" records) that start with `prefix`.
inline std::vector<DeviceRecord> events(const Sandbox& sb, const std::string& prefix) {
  auto records = sb.device_log();
  std::erase_if(records, [&](const DeviceRecord& r) { return r.kind != "ev" || !r.data.starts_with(prefix); });
  return records;
}
// A WDS request in hex without its transaction id: flag, id, length, TLVs.
inline std::string hex_without_tx(const QmiRequest& q) { return to_hex(q.bytes.substr(0, 1) + q.bytes.substr(3)); }
// The IPv4 addresses on the sandbox's interface, as `ip -o` lists them.
inline std::string addresses(const Sandbox& sb) {
  return sb.run({"ip", "-o", "-4", "addr", "show", "dev", sb.ifname()}).output;
}

// Duration and connect latency of one scenario, printed as a "[figure]" line
// when it ends and recorded as test properties.
class Figures {
 public:
  Figures() : start_us_(monotonic_us()) {}
  ~Figures() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    char line[256];
    int n = snprintf(line, sizeof line, "[figure] %s.%s duration_s=%.1f", info->test_suite_name(), info->name(),
                     seconds_since(start_us_));
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
inline ::testing::AssertionResult dial_and_connect(const Sandbox& sb, int dial, Figures& fig) {
  if (!sb.wait_state("status", "0\n", kBringUpLimit) || !sb.wait_log("wds state : ready", kBringUpLimit))
    return ::testing::AssertionFailure() << "bring-up did not finish\n" << sb.log();
  int64_t t0 = monotonic_us();
  sb.write_dial(dial);
  if (!sb.wait_state("status", "3\n", kConnectLimit))
    return ::testing::AssertionFailure() << "no status 3 after dial " << dial << "\n" << sb.log();
  fig.connect_latency(seconds_since(t0));
  return ::testing::AssertionSuccess();
}

}  // namespace wds::e2e
