// End-to-end harness: the installed daemon, unchanged, in a sandbox of its
// own (see sim/sandbox_main.cpp), with the modem simulator behind its tty.
//
//   wds::e2e::Sandbox sb({.dial = 3});
//   sb.start();
//   ASSERT_TRUE(sb.wait_file("status", "3\n", 60s));
//   sb.sim("drop reason=2");
//   ASSERT_TRUE(sb.wait_log("wds state : connected", 30s));
//
// Every wait polls a condition until it holds or its limit passes. Failures
// of the harness itself (a sandbox that does not start, a simulator command
// refused) throw std::runtime_error, which fails the test with the message.
#pragma once
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace wds::e2e {

using namespace std::chrono_literals;
using Millis = std::chrono::milliseconds;

enum class Chip {
  kQmi,   // chip file "0\n": QMI mode on rmnet0
  kNdis,  // chip file "1\n": NDIS mode on rmnet_tarvek0
  kNone,  // no chip file: QMI mode
};

struct SandboxOptions {
  Chip chip = Chip::kQmi;
  std::optional<std::string> chip_text;  // exact chip file content instead
  std::optional<std::string> sim_mode;   // "qmi" or "ndis" when not the chip's
  // Dial profile written to /var/wan/<if>/config; nullopt leaves the
  // sandbox's default (APN internet, user1/pass1, auth 2, idletime 60,
  // mru 1500); no_profile writes none.
  std::optional<std::string> profile;
  bool no_profile = false;
  std::optional<int> dial;               // initial content "N\n" of the dial file
  std::vector<std::string> sim;          // simulator commands run before the daemon starts
  bool start_daemon = true;
  bool tun = true;
  std::string daemon;                    // default: the build's wdsd
};

struct DeviceRecord {
  uint64_t seq = 0;
  int64_t t_us = 0;      // CLOCK_MONOTONIC, comparable with monotonic_us()
  std::string kind;      // rx (client wrote), tx (client read), ev, net
  std::string data;      // bytes for rx/tx/net, text for ev
};

// A WDS message the daemon wrote, taken apart.
struct QmiRequest {
  int64_t t_us = 0;
  std::string bytes;
  uint8_t ctl = 0;
  uint16_t tx = 0;
  uint16_t id = 0;
  uint16_t mlen = 0;
};

struct BusMessage {
  int64_t t_us = 0;
  std::string sender;
  uint32_t type = 0;
  uint32_t len = 0;
  std::string payload;
};

struct CommandResult {
  int status = -1;  // exit status of the command, -1 if it did not run
  std::string output;  // standard output and error together
};

struct NetDevCounters {
  uint64_t rx_bytes = 0, rx_packets = 0, tx_bytes = 0, tx_packets = 0;
};

int64_t monotonic_us();
std::string default_daemon_path();
std::string to_hex(const std::string& bytes);
std::string from_hex(const std::string& hex);  // throws on bad input

class Sandbox {
 public:
  explicit Sandbox(SandboxOptions options = {});
  ~Sandbox();  // shuts down and waits until nothing of it is left
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // Starts the sandbox and waits until the simulator and the daemon run.
  void start();
  // Orderly end: PID 1 copies /var/log and /var/wan to dir()/final and
  // leaves, which ends every process inside. Waits until it is all gone.
  void stop();
  // SIGKILL to the runner; everything inside dies with it. Waits until PID 1
  // is gone.
  void kill_hard();
  bool running() const;

  const std::string& dir() const { return dir_; }  // host exchange directory
  const std::string& ifname() const { return ifname_; }
  pid_t init_pid() const { return init_pid_; }      // host view
  pid_t runner_pid() const { return runner_pid_; }

  // ---- files inside: absolute paths as the daemon sees them, or a bare
  // name for a file of /var/wan/<if>/ ("status", "dial", ...) ----
  std::optional<std::string> read(const std::string& path) const;
  void write(const std::string& path, const std::string& text) const;
  void remove(const std::string& path) const;
  std::string wan_path(const std::string& name) const;           // /var/wan/<if>/<name>
  std::optional<std::string> state(const std::string& name) const;  // read(wan_path(name))
  void write_dial(int value) const;                               // "N\n"
  void write_profile(const std::string& text) const;
  std::string log() const;                                        // /var/log/wds.log, "" if none
  std::string daemon_output() const;                              // its stdout and stderr

  // ---- waiting ----
  bool wait_until(const std::function<bool()>& cond, Millis limit) const;
  bool wait_state(const std::string& name, const std::string& content, Millis limit) const;
  bool wait_file(const std::string& path, const std::string& content, Millis limit) const;
  bool wait_log(const std::string& text, Millis limit, int count = 1) const;
  int count_log(const std::string& text) const;

  // ---- the simulator ----
  // Sends a command; returns the answer after "ok" (trimmed), throws on "err".
  std::string sim(const std::string& command) const;
  std::string sim_raw(const std::string& command) const;  // the whole answer
  std::map<std::string, std::string> sim_state() const;    // "get", as key=value
  std::vector<DeviceRecord> device_log() const;
  std::vector<QmiRequest> qmi_requests() const;  // every message the daemon wrote
  std::vector<QmiRequest> qmi_requests(uint16_t id) const;
  bool wait_qmi_request(uint16_t id, Millis limit, size_t count = 1) const;
  std::vector<std::string> at_lines() const;      // AT command lines, without "\r"
  bool wait_at_line(const std::string& prefix, Millis limit, size_t count = 1) const;

  // ---- bus and stub tool ----
  std::vector<BusMessage> bus() const;
  bool wait_bus(uint32_t type, Millis limit, size_t count = 1) const;
  std::vector<std::string> atcmd_calls() const;

  // ---- inside the namespaces ----
  CommandResult run(const std::vector<std::string>& argv, Millis limit = 30s) const;
  std::string init(const std::string& command) const;  // PID 1's control, throws on "err"
  void udp(const std::string& addr, int port, int len = 32, int count = 1) const;
  std::optional<NetDevCounters> net_dev(const std::string& ifname) const;

  // ---- the daemon ----
  void signal(int sig) const;             // throws if the daemon is not running
  void start_daemon() const;
  std::optional<pid_t> daemon_pid() const;  // pid inside the sandbox, once detached
  std::optional<std::string> daemon_exit() const;  // "exit N" / "signal N"
  std::optional<std::string> wait_daemon_exit(Millis limit) const;

 private:
  std::string host_path(const std::string& inside) const;
  std::string exchange(const std::string& name) const { return dir_ + "/" + name; }

  SandboxOptions opts_;
  std::string dir_;
  std::string ifname_;
  pid_t runner_pid_ = -1;
  pid_t init_pid_ = -1;
  bool keep_dir_ = false;
};

}  // namespace wds::e2e
