// End-to-end harness: the installed daemon, unchanged, in a sandbox of its
// own (see sim/sandbox/), with the modem simulator behind its tty. Every
// wait polls a condition until it holds or its limit passes. Failures of the
// harness itself (a sandbox that does not start, a simulator command
// refused) throw std::runtime_error, which fails the test with the message.
#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
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
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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
inline std::string to_hex(const std::string& bytes) { return sim::to_hex(bytes); }

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
  for (;;) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string text;
    char chunk[8192];
    for (ssize_t n; (n = ::read(fd, chunk, sizeof chunk)) != 0;) {
      if (n < 0 && errno != EINTR) break;
      if (n > 0) text.append(chunk, static_cast<size_t>(n));
    }
    struct stat st {};
    bool shrunk = may_shrink && ::fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) < text.size();
    ::close(fd);
    if (!shrunk) return text;
  }
}

// Whole lines only: a writer may be half-way through the last one.
inline std::vector<std::string> whole_lines(const std::string& text) {
  auto lines = sim::split(text, '\n');
  lines.pop_back();  // what follows the last newline
  return lines;
}

inline std::string trimmed(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
  return s;
}

struct CommandResult {
  int status = -1;     // exit status, -1 if the command did not end normally
  std::string output;  // standard output and error together
};

// Runs a shell command line to its end.
inline CommandResult shell(const std::string& command) {
  CommandResult r;
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (!p) throw std::runtime_error("cannot run " + command);
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) r.output.append(buf, n);
  int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
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
  std::vector<std::string> sim{};  // simulator commands run before the daemon starts
  bool start_daemon = true;
  // The platform's hotplug handler, which sends signal 38 when the modem
  // re-appears; off shows the bare daemon.
  bool hotplug = true;
};

// A record of the simulator's device log: bytes the daemon wrote (rx) or
// read (tx), or an event (ev, text); a WDS request also carries its
// transaction and message ids.
struct Record {
  int64_t t_us = 0;  // CLOCK_MONOTONIC, comparable with monotonic_us()
  std::string kind, data;
  uint16_t tx = 0, id = 0;
};

struct BusMessage {
  std::string sender;
  uint32_t type = 0, len = 0;
  std::string payload;
  bool operator==(const BusMessage&) const = default;
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
    try {
      stop();
    } catch (...) {
    }
    if (dir_.empty()) return;
    std::error_code ec;
    if (!::testing::Test::HasFailure()) std::filesystem::remove_all(dir_, ec);
    else fprintf(stderr, "sandbox files kept in %s (final/log/wds.log: the daemon's log)\n", dir_.c_str());
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // Starts the sandbox and waits until the simulator and the daemon run.
  void start() {
    [[maybe_unused]] static const int subreaper = prctl(PR_SET_CHILD_SUBREAPER, 1);  // see gone()
    char tmpl[] = "/tmp/wds-e2e.XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    std::vector<std::string> args = {WDS_E2E_SANDBOX_PATH, "--dir", dir_, "--daemon", daemon_};
    if (!opts_.start_daemon) args.push_back("--no-start");  // the daemon may come with start_daemon()
    if (opts_.chip) args.insert(args.end(), {"--chip", sim::escape(*opts_.chip)});
    else args.insert(args.end(), {"--mode", "none"});
    if (opts_.no_profile) args.push_back("--no-profile");
    else if (opts_.profile) args.insert(args.end(), {"--profile", sim::escape(*opts_.profile)});
    if (opts_.dial) args.insert(args.end(), {"--dial", std::to_string(*opts_.dial) + "\\n"});
    for (const auto& c : opts_.sim) args.insert(args.end(), {"--sim-do", c});
    if (!opts_.hotplug) args.push_back("--no-hotplug");
    if (access(daemon_.c_str(), X_OK) != 0) throw std::runtime_error("daemon binary not found: " + daemon_);
    runner_pid_ = fork();
    if (runner_pid_ == 0) {
      int out = open((dir_ + "/sandbox.out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
      dup2(out, 1);
      dup2(out, 2);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    auto is = [&](const char* name) { return access(exchange(name).c_str(), F_OK) == 0; };
    wait_for(
        [&] {
          if (waitpid(runner_pid_, nullptr, WNOHANG) > 0) runner_pid_ = -1;  // it gave up
          return runner_pid_ < 0 || is("ready") || is("failed");
        },
        20s);
    if (auto pid1 = slurp(exchange("init.pid"))) init_pid_ = std::stoi(*pid1);
    if (!is("ready"))
      throw std::runtime_error("sandbox did not start: " + slurp(exchange("failed")).value_or("") +
                               slurp(exchange("sandbox.out")).value_or(""));
  }
  // Orderly end: PID 1 copies /var/log and /var/wan to the exchange
  // directory's final/ and leaves, which ends every process inside.
  void stop() {
    if (runner_pid_ <= 0) return;
    try {
      sim::control_request(exchange("init.sock"), "shutdown", 5000);
    } catch (...) {
      kill(runner_pid_, SIGTERM);
    }
    if (!wait_for([&] { return waitpid(runner_pid_, nullptr, WNOHANG) == runner_pid_; }, 15s)) kill_hard();
    runner_pid_ = -1;
    wait_for([&] { return gone(init_pid_); }, 15s);
  }
  // SIGKILL to the runner; everything inside dies with it. Waits until PID 1
  // is gone.
  void kill_hard() {
    if (runner_pid_ <= 0) return;
    kill(runner_pid_, SIGKILL);
    waitpid(runner_pid_, nullptr, 0);
    runner_pid_ = -1;
    if (!wait_for([&] { return gone(init_pid_); }, 15s)) throw std::runtime_error("PID 1 outlived its runner");
  }

  const std::string& ifname() const { return ifname_; }
  pid_t init_pid() const { return init_pid_; }  // host view

  // ---- files inside: an absolute path as the daemon sees it, or a bare
  // name for a file of /var/wan/<if>/ ("status", "dial", ...) ----
  std::optional<std::string> read(const std::string& path) const { return slurp(host_path(path)); }
  void write(const std::string& path, const std::string& text) const {
    int fd = ::open(host_path(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool done = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0) ::close(fd);
    if (!done) throw std::runtime_error("cannot write " + path + " in the sandbox");
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

  // ---- the simulator: a command's answer after "ok" (trimmed); throws on
  // "err" ----
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
      if (w.size() < 4) continue;
      std::string rest = line.substr(w[0].size() + w[1].size() + w[2].size() + 3);
      out.push_back({std::stoll(w[1]), w[2], w[2] == "ev" ? rest : sim::from_hex(rest).value_or("")});
    }
    return out;
  }
  // The WDS messages the daemon wrote, all or those of one id.
  std::vector<Record> qmi_requests(std::optional<uint16_t> id = std::nullopt) const {
    std::vector<Record> out;
    for (auto r : device_log()) {
      if (r.kind != "rx" || r.data.size() < 7) continue;
      auto be16 = [&](size_t i) { return static_cast<uint16_t>(uint8_t(r.data[i]) << 8 | uint8_t(r.data[i + 1])); };
      r.tx = be16(1), r.id = be16(3);
      if (!id || r.id == *id) out.push_back(r);
    }
    return out;
  }
  bool wait_qmi_request(uint16_t id, Millis limit, size_t count = 1) const {
    return wait_for([&] { return qmi_requests(id).size() >= count; }, limit);
  }

  // ---- what the platform saw ----
  std::vector<BusMessage> bus() const {
    std::vector<BusMessage> out;
    for (const auto& line : lines("bus.log")) {
      auto w = sim::split_words(line);  // time sender type length payload
      if (w.size() == 5)
        out.push_back({w[1] == "-" ? "" : sim::unescape(w[1]).value_or(w[1]),
                       static_cast<uint32_t>(std::stoul(w[2], nullptr, 16)), static_cast<uint32_t>(std::stoul(w[3])),
                       w[4] == "-" ? "" : sim::from_hex(w[4]).value_or("")});
    }
    return out;
  }
  bool wait_bus(uint32_t type, Millis limit, size_t count = 1) const {
    return wait_for([&] { return size_t(std::ranges::count(bus(), type, &BusMessage::type)) >= count; }, limit);
  }
  // Whole lines of a record in the exchange directory: "atcmd.log" (the
  // stub tool's calls), "platform.log" (what the hotplug handler and "cms"
  // did: "<µs> hotplug add: signal 38 to N", ...), "device.log", "bus.log".
  std::vector<std::string> lines(const std::string& record) const {
    return whole_lines(slurp(exchange(record)).value_or(""));
  }

  // ---- inside the namespaces ----
  // A shell command line run inside, with the sandbox's PATH (its stub
  // tools first); it must not hold a single quote.
  CommandResult run(const std::string& command) const {
    return shell("PATH=/run/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin nsenter -t " +
                 std::to_string(init_pid_) + " -m -n -p -u -i -- sh -c '" + command + "'");
  }
  void udp(const std::string& addr, int len, int count = 1) const {  // to port 9, from inside
    control("init.sock", "udp " + addr + " 9 " + std::to_string(len) + " " + std::to_string(count));
  }

  // ---- the daemon ----
  void signal(int sig) const { control("init.sock", "kill " + std::to_string(sig)); }
  void start_daemon() const { control("init.sock", "start"); }
  std::optional<pid_t> daemon_pid() const {  // pid inside the sandbox, once detached
    auto text = slurp(exchange("daemon.pid")).value_or("");
    return text.empty() ? std::nullopt : std::optional<pid_t>(std::stoi(text));
  }
  std::optional<std::string> daemon_exit() const {  // "exit N" / "signal N"
    auto text = slurp(exchange("daemon.exit")).value_or("");
    return text.empty() ? std::nullopt : std::optional(trimmed(text));
  }
  std::optional<std::string> wait_daemon_exit(Millis limit) const {
    wait_for([&] { return daemon_exit().has_value(); }, limit);
    return daemon_exit();
  }
  // What the daemon's own C library says for errnum: texts differ between C
  // libraries, so wds-strerror, built with the daemon's toolchain next to
  // it, is asked.
  std::string daemon_strerror(int errnum) const {
    CommandResult r = shell((std::filesystem::path(daemon_).parent_path() / "wds-strerror").string() + " " +
                            std::to_string(errnum));
    if (r.status != 0 || r.output.empty()) throw std::runtime_error("wds-strerror " + std::to_string(errnum) + " failed");
    return trimmed(r.output);
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
    return trimmed(reply.size() > 2 ? reply.substr(3) : "");
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

  SandboxOptions opts_;
  std::string daemon_, dir_, ifname_;
  pid_t runner_pid_ = -1, init_pid_ = -1;
};

// ---- shared by the daemon scenarios ----

// WDS message identifiers and bus message types as the scenarios see them.
inline constexpr uint16_t kReset = 0x0000, kAbort = 0x0002, kStartNetwork = 0x0020, kStopNetwork = 0x0021,
                          kPacketStatus = 0x0022, kRuntimeSettings = 0x002D;
inline constexpr uint32_t kLinkChanged = 0x11601, kDemandLinkReady = 0x3d02;

// The status poll runs every third 4-second tick. Every limit is on a
// condition, generous for a loaded CI box.
inline constexpr auto kPollPeriod = 12s;
inline constexpr auto kBringUpLimit = 40s;
inline constexpr auto kConnectLimit = 40s;
inline constexpr char kPollFailed[] = "qmi_event_msm_state_query: wds_get_srv_state failed";

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
inline std::string addresses(const Sandbox& sb) { return sb.run("ip -o -4 addr show dev " + sb.ifname()).output; }
inline std::string routes(const Sandbox& sb) { return sb.run("ip -4 route show").output; }

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
  auto failure = ::testing::AssertionFailure() << "call " << s.addr << " not " << (up ? "up" : "down") << "\n";
  for (const auto& f : files) failure << f.first << ": " << sb.read(f.first).value_or("(none)\n");
  return failure << addresses(sb) << routes(sb);
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
