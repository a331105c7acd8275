#include "tests/e2e/harness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "sim/control.h"
#include "sim/runtime.h"
#include "sim/text.h"

namespace wds::e2e {

namespace {

constexpr Millis kPollEvery{20};
constexpr Millis kStartLimit{20000};
constexpr Millis kStopLimit{15000};

std::optional<std::string> slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// A file its writer may truncate, as one consistent view. The daemon
// truncates its log when it restarts it; a read that straddles the
// truncation would return the old file's first part as if it were all of
// it, so such a read is taken again. (Not for /proc files: they show size 0.)
std::optional<std::string> slurp_untorn(const std::string& path) {
  for (;;) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::string text;
    char chunk[8192];
    ssize_t n;
    while ((n = ::read(fd, chunk, sizeof chunk)) != 0) {
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) break;
      text.append(chunk, static_cast<size_t>(n));
    }
    struct stat st {};
    bool torn = ::fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) < text.size();
    ::close(fd);
    if (!torn) return text;
  }
}

std::string trim(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
  return s;
}

// Whole lines only: a writer may be half-way through the last one.
std::vector<std::string> whole_lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
    lines.push_back(text.substr(start, nl - start));
  return lines;
}

// True once nothing of the process is left. PID 1 of a sandbox is our
// child's child: as a subreaper we inherit it when the runner dies, and it is
// gone only when we have reaped it, which happens after every process of its
// namespace has exited (a multithreaded PID 1 shows as a zombie while its
// other thread still waits for them).
bool gone(pid_t pid) {
  if (pid <= 0) return true;
  int status;
  pid_t r = waitpid(pid, &status, WNOHANG);
  if (r == pid) return true;
  if (r < 0 && errno == ECHILD) return kill(pid, 0) != 0 && errno == ESRCH;
  return false;
}

bool wait_for(const std::function<bool()>& cond, Millis limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPollEvery);
  }
}

}  // namespace

int64_t monotonic_us() { return sim::monotonic_us(); }

std::string default_daemon_path() {
  if (const char* env = getenv("WDS_E2E_DAEMON"); env && *env) return env;
  return WDS_E2E_DAEMON_PATH;
}

std::string to_hex(const std::string& bytes) { return sim::to_hex(bytes); }

std::string from_hex(const std::string& hex) {
  auto b = sim::from_hex(hex);
  if (!b) throw std::runtime_error("bad hex: " + hex);
  return *b;
}

Sandbox::Sandbox(SandboxOptions options) : opts_(std::move(options)) {
  if (opts_.daemon.empty()) opts_.daemon = default_daemon_path();
  bool ndis = opts_.chip == Chip::kNdis;
  if (opts_.chip_text) ndis = !opts_.chip_text->empty() && (*opts_.chip_text)[0] == '1';
  if (opts_.sim_mode) ndis = *opts_.sim_mode == "ndis";
  ifname_ = ndis ? "rmnet_tarvek0" : "rmnet0";
}

Sandbox::~Sandbox() {
  try {
    stop();
  } catch (...) {
  }
  bool failed = ::testing::Test::HasFailure();
  if (dir_.empty()) return;
  if (failed || keep_dir_) {
    fprintf(stderr, "sandbox files kept in %s\n", dir_.c_str());
    if (auto log = slurp(dir_ + "/final/log/wds.log")) {
      auto lines = whole_lines(*log);
      size_t from = lines.size() > 30 ? lines.size() - 30 : 0;
      fprintf(stderr, "last lines of wds.log:\n");
      for (size_t i = from; i < lines.size(); ++i) fprintf(stderr, "  %s\n", lines[i].c_str());
    }
  } else {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
}

void Sandbox::start() {
  if (runner_pid_ > 0) throw std::runtime_error("sandbox already started");
  static const bool subreaper = prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
  (void)subreaper;
  char tmpl[] = "/tmp/wds-e2e.XXXXXX";
  if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
  dir_ = tmpl;

  std::vector<std::string> args = {WDS_E2E_SANDBOX_PATH, "--dir", dir_};
  if (opts_.start_daemon) {
    args.insert(args.end(), {"--daemon", opts_.daemon});
  } else {
    args.push_back("--no-start");
    args.insert(args.end(), {"--daemon", opts_.daemon});  // for a later start_daemon()
  }
  if (opts_.chip_text) {
    args.insert(args.end(), {"--chip", sim::escape(*opts_.chip_text)});
  } else {
    args.insert(args.end(), {"--mode", opts_.chip == Chip::kQmi ? "qmi" : opts_.chip == Chip::kNdis ? "ndis" : "none"});
  }
  if (opts_.sim_mode) args.insert(args.end(), {"--sim-mode", *opts_.sim_mode});
  if (opts_.no_profile) args.push_back("--no-profile");
  else if (opts_.profile) args.insert(args.end(), {"--profile", sim::escape(*opts_.profile)});
  if (opts_.dial) args.insert(args.end(), {"--dial", std::to_string(*opts_.dial) + "\\n"});
  for (const auto& c : opts_.sim) args.insert(args.end(), {"--sim-do", c});
  if (!opts_.tun) args.push_back("--no-tun");
  if (opts_.start_daemon && access(opts_.daemon.c_str(), X_OK) != 0)
    throw std::runtime_error("daemon binary not found: " + opts_.daemon);

  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int out = open((dir_ + "/sandbox.out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (out >= 0) {
      dup2(out, 1);
      dup2(out, 2);
    }
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  runner_pid_ = pid;
  bool ready = wait_for(
      [&] {
        if (access(exchange("ready").c_str(), F_OK) == 0 || access(exchange("failed").c_str(), F_OK) == 0) return true;
        int status;
        return waitpid(runner_pid_, &status, WNOHANG) == runner_pid_ && (runner_pid_ = -1, true);
      },
      kStartLimit);
  if (auto pid1 = slurp(exchange("init.pid"))) init_pid_ = std::stoi(*pid1);
  if (!ready || access(exchange("ready").c_str(), F_OK) != 0) {
    std::string why = slurp(exchange("failed")).value_or("") + slurp(exchange("sandbox.out")).value_or("");
    keep_dir_ = true;
    stop();
    throw std::runtime_error("sandbox did not start: " + (why.empty() ? std::string("time-out") : why));
  }
}

bool Sandbox::running() const { return runner_pid_ > 0 && !gone(runner_pid_); }

void Sandbox::stop() {
  if (runner_pid_ <= 0) return;
  try {
    sim::control_request(exchange("init.sock"), "shutdown", 5000);
  } catch (...) {
    kill(runner_pid_, SIGTERM);
  }
  int status;
  bool ended = wait_for([&] { return waitpid(runner_pid_, &status, WNOHANG) == runner_pid_; }, kStopLimit);
  if (!ended) {
    kill(runner_pid_, SIGKILL);
    waitpid(runner_pid_, &status, 0);
  }
  runner_pid_ = -1;
  wait_for([&] { return gone(init_pid_); }, kStopLimit);
}

void Sandbox::kill_hard() {
  if (runner_pid_ <= 0) return;
  kill(runner_pid_, SIGKILL);
  int status;
  waitpid(runner_pid_, &status, 0);
  runner_pid_ = -1;
  if (!wait_for([&] { return gone(init_pid_); }, kStopLimit))
    throw std::runtime_error("PID 1 of the sandbox outlived its runner");
}

std::string Sandbox::host_path(const std::string& inside) const {
  if (init_pid_ <= 0) throw std::runtime_error("sandbox not started");
  if (inside.empty()) throw std::runtime_error("empty path");
  // A bare name is a file of the interface's directory.
  std::string path = inside[0] == '/' ? inside : wan_path(inside);
  return "/proc/" + std::to_string(init_pid_) + "/root" + path;
}

std::optional<std::string> Sandbox::read(const std::string& path) const { return slurp(host_path(path)); }

void Sandbox::write(const std::string& path, const std::string& text) const {
  std::ofstream out(host_path(path), std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path + " in the sandbox");
  out << text;
}

void Sandbox::remove(const std::string& path) const { ::unlink(host_path(path).c_str()); }

std::string Sandbox::wan_path(const std::string& name) const { return "/var/wan/" + ifname_ + "/" + name; }

std::optional<std::string> Sandbox::state(const std::string& name) const { return read(wan_path(name)); }

void Sandbox::write_dial(int value) const { write(wan_path("dial"), std::to_string(value) + "\n"); }

void Sandbox::write_profile(const std::string& text) const { write(wan_path("config"), text); }

std::string Sandbox::log() const { return slurp_untorn(host_path("/var/log/wds.log")).value_or(""); }

std::string Sandbox::daemon_output() const { return slurp(exchange("daemon.out")).value_or(""); }

bool Sandbox::wait_until(const std::function<bool()>& cond, Millis limit) const { return wait_for(cond, limit); }

bool Sandbox::wait_state(const std::string& name, const std::string& content, Millis limit) const {
  return wait_file(wan_path(name), content, limit);
}

bool Sandbox::wait_file(const std::string& path, const std::string& content, Millis limit) const {
  return wait_for([&] { return read(path) == content; }, limit);
}

int Sandbox::count_log(const std::string& text) const {
  std::string l = log();
  int n = 0;
  for (size_t pos = 0; (pos = l.find(text, pos)) != std::string::npos; pos += text.size()) ++n;
  return n;
}

bool Sandbox::wait_log(const std::string& text, Millis limit, int count) const {
  return wait_for([&] { return count_log(text) >= count; }, limit);
}

std::string Sandbox::sim_raw(const std::string& command) const {
  return sim::control_request(exchange("sim.sock"), command);
}

std::string Sandbox::sim(const std::string& command) const {
  std::string reply = sim_raw(command);
  if (!reply.starts_with("ok")) throw std::runtime_error("simulator refused '" + command + "': " + reply);
  return trim(reply.size() > 2 ? reply.substr(3) : "");
}

std::map<std::string, std::string> Sandbox::sim_state() const {
  std::map<std::string, std::string> out;
  for (const auto& w : sim::split_words(sim("get"))) {
    auto [k, v] = sim::key_value(w);
    out[k] = v;
  }
  return out;
}

std::vector<DeviceRecord> Sandbox::device_log() const {
  std::vector<DeviceRecord> out;
  for (const auto& line : whole_lines(slurp(exchange("device.log")).value_or(""))) {
    std::istringstream s(line);
    DeviceRecord r;
    s >> r.seq >> r.t_us >> r.kind;
    std::string rest;
    std::getline(s, rest);
    if (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
    if (r.kind == "ev") {
      r.data = rest;
    } else {
      auto bytes = sim::from_hex(rest);
      r.data = bytes.value_or("");
    }
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<QmiRequest> Sandbox::qmi_requests() const {
  std::vector<QmiRequest> out;
  for (const auto& r : device_log()) {
    if (r.kind != "rx" || r.data.size() < 7) continue;
    auto b = [&](size_t i) { return static_cast<uint8_t>(r.data[i]); };
    QmiRequest q;
    q.t_us = r.t_us;
    q.bytes = r.data;
    q.ctl = b(0);
    q.tx = static_cast<uint16_t>(b(1) << 8 | b(2));
    q.id = static_cast<uint16_t>(b(3) << 8 | b(4));
    q.mlen = static_cast<uint16_t>(b(5) << 8 | b(6));
    out.push_back(std::move(q));
  }
  return out;
}

std::vector<QmiRequest> Sandbox::qmi_requests(uint16_t id) const {
  std::vector<QmiRequest> out;
  for (auto& q : qmi_requests())
    if (q.id == id) out.push_back(std::move(q));
  return out;
}

bool Sandbox::wait_qmi_request(uint16_t id, Millis limit, size_t count) const {
  return wait_for([&] { return qmi_requests(id).size() >= count; }, limit);
}

std::vector<std::string> Sandbox::at_lines() const {
  std::string stream;
  for (const auto& r : device_log())
    if (r.kind == "rx") stream += r.data;
  std::vector<std::string> lines;
  size_t start = 0;
  for (size_t cr; (cr = stream.find('\r', start)) != std::string::npos; start = cr + 1) {
    std::string line = stream.substr(start, cr - start);
    while (!line.empty() && line[0] == '\n') line.erase(0, 1);
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

bool Sandbox::wait_at_line(const std::string& prefix, Millis limit, size_t count) const {
  return wait_for(
      [&] {
        size_t n = 0;
        for (const auto& l : at_lines())
          if (l.starts_with(prefix)) ++n;
        return n >= count;
      },
      limit);
}

std::vector<BusMessage> Sandbox::bus() const {
  std::vector<BusMessage> out;
  for (const auto& line : whole_lines(slurp(exchange("bus.log")).value_or(""))) {
    auto w = sim::split_words(line);
    if (w.size() != 5) continue;
    BusMessage m;
    m.t_us = std::stoll(w[0]);
    m.sender = w[1] == "-" ? "" : sim::unescape(w[1]).value_or(w[1]);
    m.type = static_cast<uint32_t>(std::stoul(w[2], nullptr, 16));
    m.len = static_cast<uint32_t>(std::stoul(w[3]));
    m.payload = w[4] == "-" ? "" : sim::from_hex(w[4]).value_or("");
    out.push_back(std::move(m));
  }
  return out;
}

bool Sandbox::wait_bus(uint32_t type, Millis limit, size_t count) const {
  return wait_for(
      [&] {
        size_t n = 0;
        for (const auto& m : bus())
          if (m.type == type) ++n;
        return n >= count;
      },
      limit);
}

std::vector<std::string> Sandbox::atcmd_calls() const {
  return whole_lines(slurp(exchange("atcmd.log")).value_or(""));
}

CommandResult Sandbox::run(const std::vector<std::string>& argv, Millis limit) const {
  if (init_pid_ <= 0) throw std::runtime_error("sandbox not started");
  std::vector<std::string> args = {"nsenter", "-t", std::to_string(init_pid_), "-m", "-n", "-p", "-u", "-i", "--"};
  args.insert(args.end(), argv.begin(), argv.end());
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(out[1], 2);
    std::vector<char*> a;
    for (auto& s : args) a.push_back(s.data());
    a.push_back(nullptr);
    const char* env[] = {"PATH=/run/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", nullptr};
    execvpe("nsenter", a.data(), const_cast<char**>(env));
    _exit(127);
  }
  close(out[1]);
  CommandResult result;
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    auto left = std::chrono::duration_cast<Millis>(deadline - std::chrono::steady_clock::now()).count();
    pollfd p{out[0], POLLIN, 0};
    if (left <= 0 || poll(&p, 1, static_cast<int>(left)) == 0) {
      kill(pid, SIGKILL);
      break;
    }
    char buf[4096];
    ssize_t n = ::read(out[0], buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    result.output.append(buf, static_cast<size_t>(n));
  }
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

std::string Sandbox::init(const std::string& command) const {
  std::string reply = sim::control_request(exchange("init.sock"), command);
  if (!reply.starts_with("ok")) throw std::runtime_error("sandbox refused '" + command + "': " + reply);
  return trim(reply.size() > 2 ? reply.substr(3) : "");
}

void Sandbox::udp(const std::string& addr, int port, int len, int count) const {
  init("udp " + addr + " " + std::to_string(port) + " " + std::to_string(len) + " " + std::to_string(count));
}

std::optional<NetDevCounters> Sandbox::net_dev(const std::string& ifname) const {
  // The host's view of PID 1's network namespace.
  auto text = slurp("/proc/" + std::to_string(init_pid_) + "/net/dev");
  if (!text) return std::nullopt;
  for (const auto& line : whole_lines(*text)) {
    auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    auto name = sim::split_words(line.substr(0, colon));
    if (name.size() != 1 || name[0] != ifname) continue;
    auto f = sim::split_words(line.substr(colon + 1));
    if (f.size() < 10) return std::nullopt;
    NetDevCounters c;
    c.rx_bytes = std::stoull(f[0]);
    c.rx_packets = std::stoull(f[1]);
    c.tx_bytes = std::stoull(f[8]);
    c.tx_packets = std::stoull(f[9]);
    return c;
  }
  return std::nullopt;
}

void Sandbox::signal(int sig) const { init("kill " + std::to_string(sig)); }

void Sandbox::start_daemon() const { init("start"); }

std::optional<pid_t> Sandbox::daemon_pid() const {
  auto text = slurp(exchange("daemon.pid"));
  if (!text || text->empty()) return std::nullopt;
  return std::stoi(*text);
}

std::optional<std::string> Sandbox::daemon_exit() const {
  auto text = slurp(exchange("daemon.exit"));
  if (!text || text->empty()) return std::nullopt;
  return trim(*text);
}

std::optional<std::string> Sandbox::wait_daemon_exit(Millis limit) const {
  std::optional<std::string> result;
  wait_for([&] { return (result = daemon_exit()).has_value(); }, limit);
  return result;
}

}  // namespace wds::e2e
