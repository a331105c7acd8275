#include "tests/e2e/harness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
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

constexpr Millis kStartLimit{20000};
constexpr Millis kStopLimit{15000};

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
  auto lines = sim::split(text, '\n');
  lines.pop_back();  // what follows the last newline
  return lines;
}

// True once nothing of the process is left. PID 1 of a sandbox is our
// child's child: as a subreaper we inherit it when the runner dies, and it is
// gone only when we have reaped it, which happens after every process of its
// namespace has exited (a multithreaded PID 1 shows as a zombie while its
// other thread still waits for them).
bool gone(pid_t pid) {
  pid_t r = pid <= 0 ? pid : waitpid(pid, nullptr, WNOHANG);
  return r == pid || (r < 0 && errno == ECHILD && kill(pid, 0) != 0 && errno == ESRCH);
}

bool wait_for(const std::function<bool()>& cond, Millis limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
}

// Starts args[0] (looked up on PATH) with its output and errors on `out`.
pid_t spawn(std::vector<std::string> args, int out, char* const* env = environ) {
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(out, 1);
    dup2(out, 2);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execvpe(argv[0], argv.data(), env);
    _exit(127);
  }
  return pid;
}

// The answer after "ok", or throws with what was refused.
std::string accepted(const std::string& who, const std::string& command, const std::string& reply) {
  if (!reply.starts_with("ok")) throw std::runtime_error(who + " refused '" + command + "': " + reply);
  return trim(reply.size() > 2 ? reply.substr(3) : "");
}

}  // namespace

int64_t monotonic_us() { return sim::monotonic_us(); }

std::optional<std::string> slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string to_hex(const std::string& bytes) { return sim::to_hex(bytes); }

Sandbox::Sandbox(SandboxOptions options) : opts_(std::move(options)) {
  const char* env = getenv("WDS_E2E_DAEMON");  // another binary to test
  daemon_ = env && *env ? env : WDS_E2E_DAEMON_PATH;
  ifname_ = opts_.chip && opts_.chip->starts_with('1') ? "rmnet_tarvek0" : "rmnet0";
}

Sandbox::~Sandbox() {
  try {
    stop();
  } catch (...) {
  }
  if (dir_.empty()) return;
  if (::testing::Test::HasFailure() || keep_dir_) {
    auto lines = whole_lines(slurp(dir_ + "/final/log/wds.log").value_or(""));
    fprintf(stderr, "sandbox files kept in %s; last lines of wds.log:\n", dir_.c_str());
    for (size_t i = lines.size() > 30 ? lines.size() - 30 : 0; i < lines.size(); ++i)
      fprintf(stderr, "  %s\n", lines[i].c_str());
  } else {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
}

void Sandbox::start() {
  if (runner_pid_ > 0) throw std::runtime_error("sandbox already started");
  [[maybe_unused]] static const int subreaper = prctl(PR_SET_CHILD_SUBREAPER, 1);
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
  if (!opts_.cms_route) args.push_back("--no-cms-route");
  if (opts_.start_daemon && access(daemon_.c_str(), X_OK) != 0)
    throw std::runtime_error("daemon binary not found: " + daemon_);

  int out = open((dir_ + "/sandbox.out").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  runner_pid_ = spawn(args, out);
  close(out);
  auto is = [&](const char* name) { return access(exchange(name).c_str(), F_OK) == 0; };
  wait_for(
      [&] {
        int status;
        if (is("ready") || is("failed")) return true;
        return waitpid(runner_pid_, &status, WNOHANG) == runner_pid_ && (runner_pid_ = -1, true);
      },
      kStartLimit);
  if (auto pid1 = slurp(exchange("init.pid"))) init_pid_ = std::stoi(*pid1);
  if (!is("ready")) {
    std::string why = slurp(exchange("failed")).value_or("") + slurp(exchange("sandbox.out")).value_or("");
    keep_dir_ = true;
    stop();
    throw std::runtime_error("sandbox did not start: " + (why.empty() ? std::string("time-out") : why));
  }
}

void Sandbox::stop() {
  if (runner_pid_ <= 0) return;
  try {
    sim::control_request(exchange("init.sock"), "shutdown", 5000);
  } catch (...) {
    kill(runner_pid_, SIGTERM);
  }
  int status;
  if (!wait_for([&] { return waitpid(runner_pid_, &status, WNOHANG) == runner_pid_; }, kStopLimit)) {
    kill(runner_pid_, SIGKILL);
    waitpid(runner_pid_, &status, 0);
  }
  runner_pid_ = -1;
  wait_for([&] { return gone(init_pid_); }, kStopLimit);
}

void Sandbox::kill_hard() {
  if (runner_pid_ <= 0) return;
  kill(runner_pid_, SIGKILL);
  waitpid(runner_pid_, nullptr, 0);
  runner_pid_ = -1;
  if (!wait_for([&] { return gone(init_pid_); }, kStopLimit))
    throw std::runtime_error("PID 1 of the sandbox outlived its runner");
}

std::string Sandbox::host_path(const std::string& inside) const {
  if (init_pid_ <= 0) throw std::runtime_error("sandbox not started");
  if (inside.empty()) throw std::runtime_error("empty path");
  std::string path = inside[0] == '/' ? inside : "/var/wan/" + ifname_ + "/" + inside;
  return "/proc/" + std::to_string(init_pid_) + "/root" + path;
}

std::optional<std::string> Sandbox::read(const std::string& path) const { return slurp(host_path(path)); }

void Sandbox::write(const std::string& path, const std::string& text) const {
  std::ofstream out(host_path(path), std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path + " in the sandbox");
  out << text;
}

std::string Sandbox::log() const { return slurp_untorn(host_path("/var/log/wds.log")).value_or(""); }

std::string Sandbox::daemon_output() const { return slurp(exchange("daemon.out")).value_or(""); }

bool Sandbox::wait_until(const std::function<bool()>& cond, Millis limit) const { return wait_for(cond, limit); }

bool Sandbox::wait_state(const std::string& name, const std::string& content, Millis limit) const {
  return wait_for([&] { return read(name) == content; }, limit);
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

std::string Sandbox::sim(const std::string& command) const {
  return accepted("simulator", command, sim::control_request(exchange("sim.sock"), command));
}

std::map<std::string, std::string> Sandbox::sim_state() const {
  std::map<std::string, std::string> out;
  for (const auto& w : sim::split_words(sim("get"))) out.insert(sim::key_value(w));
  return out;
}

std::vector<DeviceRecord> Sandbox::device_log() const {
  std::vector<DeviceRecord> out;
  for (const auto& line : whole_lines(slurp(exchange("device.log")).value_or(""))) {
    std::istringstream s(line);
    uint64_t seq;
    DeviceRecord r;
    s >> seq >> r.t_us >> r.kind;
    std::string rest;
    std::getline(s, rest);
    if (!rest.empty() && rest[0] == ' ') rest.erase(0, 1);
    r.data = r.kind == "ev" ? rest : sim::from_hex(rest).value_or("");
    out.push_back(std::move(r));
  }
  return out;
}

std::vector<QmiRequest> Sandbox::qmi_requests(std::optional<uint16_t> id) const {
  std::vector<QmiRequest> out;
  for (const auto& r : device_log()) {
    if (r.kind != "rx" || r.data.size() < 7) continue;
    auto be16 = [&](size_t i) { return static_cast<uint16_t>(uint8_t(r.data[i]) << 8 | uint8_t(r.data[i + 1])); };
    if (!id || be16(3) == *id) out.push_back({r.t_us, r.data, be16(1), be16(3)});
  }
  return out;
}

bool Sandbox::wait_qmi_request(uint16_t id, Millis limit, size_t count) const {
  return wait_for([&] { return qmi_requests(id).size() >= count; }, limit);
}

std::vector<AtLine> Sandbox::at_lines() const {
  std::vector<AtLine> lines;
  std::string pending;
  for (const auto& r : device_log()) {
    if (r.kind != "rx") continue;
    for (char c : r.data) {
      if (c != '\r') {
        pending.push_back(c);
      } else if (!pending.empty()) {
        lines.push_back({r.t_us, pending});
        pending.clear();
      }
    }
  }
  return lines;
}

std::vector<BusMessage> Sandbox::bus() const {
  std::vector<BusMessage> out;
  for (const auto& line : whole_lines(slurp(exchange("bus.log")).value_or(""))) {
    auto w = sim::split_words(line);  // time sender type length payload
    if (w.size() != 5) continue;
    out.push_back({w[1] == "-" ? "" : sim::unescape(w[1]).value_or(w[1]),
                   static_cast<uint32_t>(std::stoul(w[2], nullptr, 16)), static_cast<uint32_t>(std::stoul(w[3])),
                   w[4] == "-" ? "" : sim::from_hex(w[4]).value_or("")});
  }
  return out;
}

bool Sandbox::wait_bus(uint32_t type, Millis limit, size_t count) const {
  auto of_type = [&] { return std::ranges::count_if(bus(), [&](const BusMessage& m) { return m.type == type; }); };
  return wait_for([&] { return static_cast<size_t>(of_type()) >= count; }, limit);
}

std::vector<std::string> Sandbox::atcmd_calls() const {
  return whole_lines(slurp(exchange("atcmd.log")).value_or(""));
}

std::vector<std::string> Sandbox::platform_log() const {
  return whole_lines(slurp(exchange("platform.log")).value_or(""));
}

CommandResult Sandbox::run(const std::vector<std::string>& argv) const {
  if (init_pid_ <= 0) throw std::runtime_error("sandbox not started");
  std::vector<std::string> args = {"nsenter", "-t", std::to_string(init_pid_), "-m", "-n", "-p", "-u", "-i", "--"};
  args.insert(args.end(), argv.begin(), argv.end());
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  const char* env[] = {"PATH=/run/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", nullptr};
  pid_t pid = spawn(args, out[1], const_cast<char* const*>(env));
  close(out[1]);
  CommandResult result;
  auto deadline = std::chrono::steady_clock::now() + 30s;
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

std::string Sandbox::daemon_strerror(int errnum) const {
  const std::string tool = std::filesystem::path(daemon_).parent_path() / "wds-strerror";
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  pid_t pid = spawn({tool, std::to_string(errnum)}, out[1], environ);
  close(out[1]);
  std::string text;
  char buf[256];
  for (ssize_t n; (n = ::read(out[0], buf, sizeof buf)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || text.empty() || text.back() != '\n')
    throw std::runtime_error(tool + " " + std::to_string(errnum) + " failed");
  text.pop_back();
  return text;
}

std::string Sandbox::init(const std::string& command) const {
  return accepted("sandbox", command, sim::control_request(exchange("init.sock"), command));
}

void Sandbox::udp(const std::string& addr, int port, int len, int count) const {
  init("udp " + addr + " " + std::to_string(port) + " " + std::to_string(len) + " " + std::to_string(count));
}

std::optional<NetDevCounters> Sandbox::net_dev() const {
  // The host's view of PID 1's network namespace.
  for (const auto& line : whole_lines(slurp("/proc/" + std::to_string(init_pid_) + "/net/dev").value_or(""))) {
    auto colon = line.find(':');
    if (colon == std::string::npos || sim::split_words(line.substr(0, colon)) != std::vector{ifname_}) continue;
    auto f = sim::split_words(line.substr(colon + 1));
    if (f.size() < 10) return std::nullopt;
    return NetDevCounters{std::stoull(f[8]), std::stoull(f[9])};
  }
  return std::nullopt;
}

std::optional<pid_t> Sandbox::daemon_pid() const {
  auto text = slurp(exchange("daemon.pid")).value_or("");
  return text.empty() ? std::nullopt : std::optional<pid_t>(std::stoi(text));
}

std::optional<std::string> Sandbox::daemon_exit() const {
  auto text = slurp(exchange("daemon.exit")).value_or("");
  return text.empty() ? std::nullopt : std::optional(trim(text));
}

std::optional<std::string> Sandbox::wait_daemon_exit(Millis limit) const {
  std::optional<std::string> result;
  wait_for([&] { return (result = daemon_exit()).has_value(); }, limit);
  return result;
}

}  // namespace wds::e2e
