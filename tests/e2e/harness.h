// SPDX-License-Identifier: ISC
// End-to-end harness: the installed daemon, unchanged, in a sandbox of its
// own (see sim/sandbox/), with the modem simulator behind its tty. Every
// wait polls a condition until it holds or its limit passes. Failures of the
// harness itself (a sandbox that does not start, a simulator command
// refused) throw std::runtime_error, which fails the test with the message.
#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "decode/format.h"
#include "qmi/qmi.h"
#include "sim/control.h"
#include "sim/runtime.h"
#include "sim/text.h"

namespace wds::e2e {

using namespace std::chrono_literals;
using Millis = std::chrono::milliseconds;

inline int64_t monotonic_us() { return sim::monotonic_us(); }
inline double seconds_since(int64_t t_us) { return static_cast<double>(monotonic_us() - t_us) / 1e6; }
inline double seconds_between(int64_t from_us, int64_t to_us) { return static_cast<double>(to_us - from_us) / 1e6; }
inline bool contains(const std::string& text, const std::string& needle) { return text.find(needle) != std::string::npos; }
inline std::string to_hex(const std::string& bytes) { return wdsdecode::hex(bytes); }

inline bool wait_for(const std::function<bool()>& cond, Millis limit) {
  for (auto deadline = std::chrono::steady_clock::now() + limit; !cond(); std::this_thread::sleep_for(20ms))
    if (std::chrono::steady_clock::now() >= deadline) return false;
  return true;
}

// A host file, read whole. One its writer may truncate (the daemon's log) is
// read again when it shrank meanwhile: a read that straddles the truncation
// would pass the old file's first part off as all of it. (Not for /proc
// files: they show size 0.)
inline std::optional<std::string> slurp(const std::string& path, bool may_shrink = false) {
  for (std::error_code ec;;) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::string text{std::istreambuf_iterator<char>(in), {}};
    if (!may_shrink || std::filesystem::file_size(path, ec) >= text.size()) return text;
  }
}

// Whole lines only: a writer may be half-way through the last one.
inline std::vector<std::string> whole_lines(const std::string& text) {
  auto lines = sim::split(text, '\n');
  lines.pop_back();  // what follows the last newline
  return lines;
}

// Runs a shell command line to its end: what it printed, errors included.
inline std::string shell(const std::string& command) {
  std::string out;
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (!p) throw std::runtime_error("cannot run " + command);
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
  pclose(p);
  return out;
}

struct SandboxOptions {
  // Content of /proc/proc_user_datacardchip, nullopt for no file; a first
  // byte '1' means NDIS mode on rmnet_tarvek0, anything else QMI on rmnet0.
  std::optional<std::string> chip = "0\n";
  // Dial profile for /var/wan/<if>/config; nullopt keeps the sandbox's
  // default (APN internet, user1/pass1, auth 2, idletime 60, mru 1500).
  std::optional<std::string> profile{};
  bool no_profile = false;
  std::optional<int> dial{};       // initial content "N\n" of the dial file
  // An integrator's hotplug handler (a host file) run in place of ours.
  std::string hotplug_script{};
  // The daemon started by wdsd-supervise, as an init system would, with these
  // arguments; the sandbox's "daemon" is then the supervisor.
  bool supervised = false;
  std::vector<std::string> supervisor_args{};
  std::vector<std::string> sim{};  // simulator commands run before the daemon starts
  bool start_daemon = true;
  // The platform's hotplug handler, which sends signal 38 when the modem
  // re-appears; off shows the bare daemon.
  bool hotplug = true;
  // A command the sandbox is started through, with a trailing blank; it is
  // handed the sandbox's command line and must exec it (one that chroots
  // first, say).
  std::string launcher{};
};

// A record of the simulator's device log: bytes the daemon wrote (rx) or
// read (tx), or an event (ev, text); a WDS request also carries its
// transaction and message ids.
struct Record {
  int64_t t_us = 0;  // CLOCK_MONOTONIC, comparable with monotonic_us()
  std::string kind, data;
  uint16_t tx = 0, id = 0;
};

class Sandbox {
 public:
  explicit Sandbox(SandboxOptions options = {}) : opts_(std::move(options)) {
    const char* env = getenv("WDS_E2E_DAEMON");  // another binary to test
    daemon_ = env && *env ? env : WDS_E2E_DAEMON_PATH;
    ifname_ = opts_.chip && opts_.chip->starts_with('1') ? "rmnet_tarvek0" : "rmnet0";
  }
  // Shuts down and waits until nothing of it is left; keeps its files when
  // the test failed.
  ~Sandbox() {
    stop();
    std::error_code ec;
    if (!::testing::Test::HasFailure()) std::filesystem::remove_all(dir_, ec);
    else fprintf(stderr, "sandbox files kept in %s (final/log/wds.log: the daemon's log)\n", dir_.c_str());
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // Starts the sandbox and waits until the simulator and the daemon run.
  void start() {
    [[maybe_unused]] static const int subreaper = prctl(PR_SET_CHILD_SUBREAPER, 1);  // see gone()
    started_us_ = monotonic_us();
    char tmpl[] = "/tmp/wds-e2e.XXXXXX";
    if (!mkdtemp(tmpl) || access(daemon_.c_str(), X_OK) != 0) throw std::runtime_error("no directory or no " + daemon_);
    dir_ = tmpl;
    // Its options as shell words: no single quote in any of them.
    std::string command = opts_.launcher + WDS_E2E_SANDBOX_PATH + " --dir " + dir_ + " --daemon " + daemon_;
    auto option = [&](const std::string& name, const std::string& value) { command += " " + name + " '" + value + "'"; };
    if (!opts_.start_daemon) command += " --no-start";  // the daemon may come with start_daemon()
    if (opts_.chip) option("--chip", sim::escape(*opts_.chip));
    else command += " --mode none";
    if (opts_.no_profile) command += " --no-profile";
    else if (opts_.profile) option("--profile", sim::escape(*opts_.profile));
    if (opts_.dial) option("--dial", std::to_string(*opts_.dial) + "\\n");
    for (const auto& c : opts_.sim) option("--sim-do", c);
    if (!opts_.hotplug) command += " --no-hotplug";
    if (!opts_.hotplug_script.empty()) option("--hotplug-script", opts_.hotplug_script);
    if (opts_.supervised) option("--supervisor", WDS_E2E_SUPERVISOR_PATH);
    for (const auto& a : opts_.supervisor_args) option("--supervisor-arg", a);
    // In the background: the shell leaves at once and, as a subreaper, we
    // inherit the runner.
    runner_pid_ = std::stoi(shell(command + " > " + exchange("sandbox.out") + " 2>&1 & echo $!"));
    auto is = [&](const char* name) { return access(exchange(name).c_str(), F_OK) == 0; };
    wait_for(
        [&] {
          if (runner_pid_ > 0 && waitpid(runner_pid_, nullptr, WNOHANG) > 0) runner_pid_ = -1;  // it gave up
          return runner_pid_ < 0 || is("ready") || is("failed");
        },
        20s);
    if (auto pid1 = slurp(exchange("init.pid"))) init_pid_ = std::stoi(*pid1);
    if (!is("ready")) throw std::runtime_error("sandbox did not start: " + slurp(exchange("sandbox.out")).value_or(""));
  }
  // Orderly end: PID 1 copies /var/log and /var/wan to the exchange
  // directory's final/ and leaves, which ends every process inside.
  void stop() {
    if (runner_pid_ <= 0) return;
    keep_log();
    try {
      control("init.sock", "shutdown");
    } catch (...) {
      kill(runner_pid_, SIGTERM);
    }
    if (wait_for([&] { return waitpid(runner_pid_, nullptr, WNOHANG) == runner_pid_; }, 15s)) runner_pid_ = -1;
    kill_hard();
  }
  // SIGKILL to the runner; everything inside dies with it. True once PID 1,
  // and so every process of its namespace, is gone.
  bool kill_hard() {
    if (runner_pid_ > 0) {
      keep_log();
      kill(runner_pid_, SIGKILL);
      waitpid(runner_pid_, nullptr, 0);
    }
    runner_pid_ = -1;
    return wait_for([&] { return gone(init_pid_); }, 15s);
  }

  const std::string& ifname() const { return ifname_; }
  pid_t init_pid() const { return init_pid_; }  // host view

  // ---- files inside: an absolute path as the daemon sees it, or a bare
  // name for a file of /var/wan/<if>/ ("status", "dial", ...) ----
  std::optional<std::string> read(const std::string& path) const { return slurp(host_path(path)); }
  void write(const std::string& path, const std::string& text) const {
    if (!(std::ofstream(host_path(path), std::ios::binary | std::ios::trunc) << text)) throw std::runtime_error(path);
  }
  void write_dial(int value) const { write("dial", std::to_string(value) + "\n"); }
  std::string log() const { return slurp(host_path("/var/log/wds.log"), true).value_or(""); }
  std::string daemon_output() const { return slurp(exchange("daemon.out")).value_or(""); }  // stdout and stderr

  // ---- waiting ----
  bool wait_until(const std::function<bool()>& cond, Millis limit) const { return wait_for(cond, limit); }
  bool wait_state(const std::string& name, const std::string& content, Millis limit) const {
    return wait_for([&] { return read(name) == content; }, limit);
  }
  int count_log(const std::string& text) const {
    std::string l = log();
    int n = 0;
    for (size_t pos = 0; (pos = l.find(text, pos)) != std::string::npos; pos += text.size()) ++n;
    return n;
  }
  bool wait_log(const std::string& text, Millis limit, int count = 1) const {
    return wait_for([&] { return count_log(text) >= count; }, limit);
  }

  // ---- the simulator: a command's answer after "ok"; throws on "err" ----
  std::string sim(const std::string& command) const { return control("sim.sock", command); }
  std::map<std::string, std::string> sim_state() const {  // "get", as key=value
    std::map<std::string, std::string> out;
    for (const auto& w : sim::split_words(sim("get"))) out.insert(sim::key_value(w));
    return out;
  }
  std::vector<Record> device_log() const {
    std::vector<Record> out;
    for (const auto& line : lines("device.log")) {
      auto w = sim::split(line, ' ');  // seq time kind data...
      std::string rest = w.size() < 4 ? "" : line.substr(w[0].size() + w[1].size() + w[2].size() + 3);
      if (w.size() >= 3) out.push_back({std::stoll(w[1]), w[2], w[2] == "ev" ? rest : sim::from_hex(rest).value_or("")});
    }
    return out;
  }
  // The WDS messages the daemon wrote (refused writes included), all or
  // those of one id.
  std::vector<Record> qmi_requests(std::optional<uint16_t> id = std::nullopt) const {
    std::vector<Record> out;
    for (auto r : device_log()) {
      if (r.kind != "rx" || r.data.size() < 7) continue;
      r.tx = static_cast<uint16_t>(uint8_t(r.data[1]) << 8 | uint8_t(r.data[2]));
      r.id = static_cast<uint16_t>(uint8_t(r.data[3]) << 8 | uint8_t(r.data[4]));
      if (!id || r.id == *id) out.push_back(r);
    }
    return out;
  }
  bool wait_qmi_request(uint16_t id, Millis limit, size_t count = 1) const {
    return wait_for([&] { return qmi_requests(id).size() >= count; }, limit);
  }

  // ---- what the platform saw ----
  // Whole lines of a record in the exchange directory: "atcmd.log" (the stub
  // tool's calls), "platform.log" (what the hotplug handler and "cms" did:
  // "<µs> hotplug add: signal 38 to N", ...).
  std::vector<std::string> lines(const std::string& record) const {
    return whole_lines(slurp(exchange(record)).value_or(""));
  }
  // What "cms" received: "sender 0xTYPE length payload-in-hex", "-" for none.
  std::vector<std::string> bus() const {
    auto out = lines("bus.log");
    for (auto& l : out) l.erase(0, l.find(' ') + 1);  // the time
    return out;
  }
  bool wait_bus(const std::string& message, Millis limit, size_t count = 1) const {
    return wait_for([&] { return size_t(std::ranges::count(bus(), message)) >= count; }, limit);
  }

  // ---- inside the namespaces ----
  // A shell command line run inside, with the sandbox's PATH (its stub tools
  // first); it must not hold a single quote.
  std::string run(const std::string& command) const {
    return shell("PATH=/run/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin nsenter -t " +
                 std::to_string(init_pid_) + " -m -n -p -u -i -- sh -c '" + command + "'");
  }
  void udp(const std::string& addr, int len) const { control("init.sock", "udp " + addr + " 9 " + std::to_string(len)); }

  // ---- the daemon ----
  void signal(int sig) const { control("init.sock", "kill " + std::to_string(sig)); }
  void start_daemon() const { control("init.sock", "start"); }
  std::optional<pid_t> daemon_pid() const {  // pid inside the sandbox, once detached
    auto text = slurp(exchange("daemon.pid")).value_or("");
    return text.empty() ? std::nullopt : std::optional<pid_t>(std::stoi(text));
  }
  std::optional<std::string> daemon_exit() const {  // "exit N" / "signal N"
    auto text = slurp(exchange("daemon.exit")).value_or("");
    return text.empty() ? std::nullopt : std::optional(text.substr(0, text.find('\n')));
  }
  std::optional<std::string> wait_daemon_exit(Millis limit) const {
    wait_for([&] { return daemon_exit().has_value(); }, limit);
    return daemon_exit();
  }
  // What the daemon's own C library says for errnum: texts differ between C
  // libraries, so wds-strerror, built with the daemon's toolchain next to
  // it, is asked.
  std::string daemon_strerror(int errnum) const {
    std::string text = shell((std::filesystem::path(daemon_).parent_path() / "wds-strerror").string() + " " +
                             std::to_string(errnum));
    return text.substr(0, text.find('\n'));
  }

 private:
  std::string exchange(const std::string& name) const { return dir_ + "/" + name; }
  std::string host_path(const std::string& inside) const {
    if (init_pid_ <= 0 || inside.empty()) throw std::runtime_error("no sandbox or no path");
    return "/proc/" + std::to_string(init_pid_) + "/root" + (inside[0] == '/' ? "" : "/var/wan/" + ifname_ + "/") + inside;
  }
  std::string control(const std::string& socket, const std::string& command) const {
    std::string reply = sim::control_request(exchange(socket), command);
    if (!reply.starts_with("ok")) throw std::runtime_error(socket + " refused '" + command + "': " + reply);
    return reply.size() > 2 ? reply.substr(3) : "";
  }
  // True once nothing of the process is left. PID 1 of a sandbox is our
  // child's child: as a subreaper we inherit it when the runner dies, and it
  // is gone only when we have reaped it, which happens after every process
  // of its namespace has exited (a multithreaded PID 1 shows as a zombie
  // while its other thread still waits for them).
  static bool gone(pid_t pid) {
    pid_t r = pid <= 0 ? pid : waitpid(pid, nullptr, WNOHANG);
    return r == pid || (r < 0 && errno == ECHILD && kill(pid, 0) != 0 && errno == ESRCH);
  }

  // With WDS_E2E_LOGS=DIR in the environment, the daemon's log as it is
  // when the sandbox ends goes to DIR/<suite>.<test>.<n>.log, and a line
  // "<that name> <seconds the sandbox ran>" to DIR/durations: the vector
  // logs of the replay tests (tests/replay/retake.sh).
  void keep_log() {
    const char* dir = getenv("WDS_E2E_LOGS");
    if (kept_ || !dir || !*dir || init_pid_ <= 0) return;
    kept_ = true;
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    if (test->value_param()) name = name.substr(0, name.rfind('/') + 1) + test->value_param();  // the row's name
    std::ranges::replace(name, '/', '.');
    static std::map<std::string, int> sandboxes;
    name += "." + std::to_string(++sandboxes[name]);
    std::ofstream(std::string(dir) + "/" + name + ".log", std::ios::binary) << log();
    std::ofstream(std::string(dir) + "/durations", std::ios::app) << name << " " << seconds_since(started_us_) << "\n";
  }

  SandboxOptions opts_;
  std::string daemon_, dir_, ifname_;
  pid_t runner_pid_ = -1, init_pid_ = -1;
  int64_t started_us_ = 0;
  bool kept_ = false;
};

// ---- shared by the daemon scenarios ----

// WDS message identifiers (the daemon's own), and the messages "cms" gets:
// link changed, and the demand link ready with the interface's name in 64
// bytes.
inline constexpr uint16_t kReset = kWdsReset, kAbort = kWdsAbort, kStartNetwork = kWdsStartNetwork,
                          kStopNetwork = kWdsStopNetwork, kPacketStatus = kWdsPktSrvcStatus,
                          kRuntimeSettings = kWdsRuntimeSettings;
inline const std::string kLinkChanged = "qmi 0x11601 0 -";
inline const std::string kDemandLinkReady = "qmi 0x3d02 64 " + to_hex(std::string("rmnet0") + std::string(58, '\0'));

// The status poll runs every third 4-second tick. Every limit is on a
// condition, generous for a loaded CI box.
inline constexpr auto kPollPeriod = 12s;
inline constexpr auto kBringUpLimit = 40s;
inline constexpr auto kConnectLimit = 40s;
inline constexpr char kPollFailed[] = "qmi_event_msm_state_query: wds_get_srv_state failed";

// The time from one instant to another is within [lo, hi] seconds.
inline ::testing::AssertionResult took(int64_t from_us, int64_t to_us, double lo, double hi) {
  double s = seconds_between(from_us, to_us);
  if (s >= lo && s <= hi) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << s << " s, not within [" << lo << ", " << hi << "] s";
}
// Requests of one kind sent between two instants.
inline size_t count_between(const std::vector<Record>& reqs, int64_t from_us, int64_t to_us) {
  return std::ranges::count_if(reqs, [&](const Record& r) { return r.t_us >= from_us && r.t_us <= to_us; });
}
// Simulator events that start with `prefix` ("open gen=", "at line ATE0", ...).
inline std::vector<Record> events(const Sandbox& sb, const std::string& prefix) {
  auto records = sb.device_log();
  std::erase_if(records, [&](const Record& r) { return r.kind != "ev" || !r.data.starts_with(prefix); });
  return records;
}
// A WDS request in hex without its transaction id: flag, id, length, TLVs.
inline std::string hex_without_tx(const Record& q) { return to_hex(q.data.substr(0, 1) + q.data.substr(3)); }
// The IPv4 addresses on the sandbox's interface, and the routes.
inline std::string addresses(const Sandbox& sb) { return sb.run("ip -o -4 addr show dev " + sb.ifname()); }
inline std::string routes(const Sandbox& sb) { return sb.run("ip -4 route show"); }

// A call's IPv4 settings as the simulator hands them out and the daemon
// publishes them; the default is the simulator's own.
struct Settings {
  std::string addr = "192.168.8.100", mask = "255.255.255.0", gw = "192.168.8.1";
  std::string dns = "nameserver 192.168.8.2\nnameserver 192.168.8.3\n";  // the dns file
  int prefix = 24;
};
// Up: the address files hold the call's settings (they are written just
// after the status, so they are waited for), its address is on the
// interface, its gateway has a host route. Down: address and mask emptied,
// gateway and dns left as the call set them, address and host route gone.
inline ::testing::AssertionResult link_is(const Sandbox& sb, bool up, const Settings& s) {
  const std::map<std::string, std::string> files = {
      {"ipaddr", up ? s.addr + "\n" : "\n"}, {"mask", up ? s.mask + "\n" : "\n"}, {"gateway", s.gw + "\n"}, {"dns", s.dns}};
  auto holds = [&] {
    return std::ranges::all_of(files, [&](const auto& f) { return sb.read(f.first) == f.second; }) &&
           contains(addresses(sb), "inet " + s.addr + "/" + std::to_string(s.prefix)) == up &&
           contains(routes(sb), s.gw + " dev " + sb.ifname()) == up;
  };
  if (sb.wait_until(holds, 5s)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "ipaddr " << sb.read("ipaddr").value_or("none\n") << addresses(sb) << routes(sb);
}

// Waits for a finished bring-up (status 0, "ready"), writes the dial request
// and waits for status 3; `latency_s` gets the seconds from the request.
inline ::testing::AssertionResult dial_and_connect(const Sandbox& sb, int dial, double* latency_s = nullptr) {
  if (!sb.wait_state("status", "0\n", kBringUpLimit) || !sb.wait_log("wds state : ready", kBringUpLimit))
    return ::testing::AssertionFailure() << "bring-up did not finish\n" << sb.log();
  int64_t t0 = monotonic_us();
  sb.write_dial(dial);
  if (!sb.wait_state("status", "3\n", kConnectLimit))
    return ::testing::AssertionFailure() << "no status 3 after dial " << dial << "\n" << sb.log();
  if (latency_s) *latency_s = seconds_since(t0);
  return ::testing::AssertionSuccess();
}

}  // namespace wds::e2e
