// wds-sandbox: runs the unchanged daemon without hardware. Makes new mount,
// network, pid, uts and ipc namespaces; its child, PID 1 inside, prepares
// private /run, /dev, /proc, /sys and /var, starts the modem simulator and
// then the daemon, reaps every process, records the daemon's exit status and
// stands in for the bus peer "cms". Everything lives and dies with PID 1.
//
// The exchange directory (--dir, a host directory) appears inside as
// /run/sandbox and holds:
//   init.pid     PID 1 as the host sees it (for nsenter and /proc/<pid>/root)
//   ready        written once the simulator and the daemon have been started
//   failed       why the sandbox could not start
//   init.sock    commands to PID 1 (status, kill, start, udp, shutdown)
//   sim.sock     commands to the simulator
//   device.log   what crossed the modem's tty, see sim/runtime.h
//   bus.log      messages received by "cms": <µs> <sender> <type hex> <payload hex>
//   atcmd.log    arguments of each call of the stub atcmd
//   daemon.out   the daemon's standard output and error
//   daemon.pid   the detached daemon's pid inside the sandbox
//   daemon.exit  "exit N" or "signal N" once the daemon has ended
//   final/       copy of /var/log and /var/wan taken at shutdown
//
// Inside, /proc is a tmpfs of links into a fresh procfs (at /run/realproc)
// plus the datacard chip file; pids stay below 2048 so each has its link.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/platform.h"
#include "sim/control.h"
#include "sim/runtime.h"
#include "sim/text.h"

namespace {

constexpr char kExchange[] = "/run/sandbox";
constexpr char kBinDir[] = "/run/bin";
constexpr int kPidMax = 2048;
constexpr char kPath[] = "/run/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

constexpr char kDefaultProfile[] =
    "dialnumber = *99#\n"
    "username = user1\n"
    "password = pass1\n"
    "dial_mode = auto\n"
    "auth = 2\n"
    "idletime = 60\n"
    "setapn = internet\n"
    "mru = 1500\n";

struct Options {
  std::string dir;
  std::string daemon;
  std::string sim;
  std::string mode = "qmi";           // qmi, ndis or none (no chip file)
  std::optional<std::string> chip;    // exact chip file content
  std::string sim_mode;               // follows the chip unless given
  std::optional<std::string> profile;
  bool no_profile = false;
  std::optional<std::string> dial;
  std::vector<std::string> sim_commands;
  bool start_daemon = true;
  bool ro_root = true;
  bool no_tun = false;
  std::string ifname;
};

[[noreturn]] void usage(const std::string& why) {
  fprintf(stderr,
          "wds-sandbox: %s\n"
          "usage: wds-sandbox --dir DIR [--daemon PATH] [--sim PATH]\n"
          "         [--mode qmi|ndis|none] [--chip TEXT] [--sim-mode qmi|ndis]\n"
          "         [--profile TEXT | --profile-file FILE | --no-profile] [--dial N]\n"
          "         [--sim-do 'COMMAND']... [--no-start] [--rw-root] [--no-tun]\n"
          "TEXT arguments take C escapes (\\n, \\r, \\xHH).\n",
          why.c_str());
  exit(2);
}

std::string read_file(const std::string& path) {
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) throw std::runtime_error("cannot read " + path);
  std::string out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  fclose(f);
  return out;
}

void write_file(const std::string& path, const std::string& text, mode_t mode = 0644) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
  size_t off = 0;
  while (off < text.size()) {
    ssize_t w = write(fd, text.data() + off, text.size() - off);
    if (w <= 0) break;
    off += static_cast<size_t>(w);
  }
  close(fd);
}

void append_file(const std::string& path, const std::string& text) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  ssize_t w = write(fd, text.data(), text.size());
  (void)w;
  close(fd);
}

std::string unescaped(const std::string& opt, const std::string& text) {
  auto v = sim::unescape(text);
  if (!v) usage("bad escape in " + opt);
  return *v;
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) usage("missing value for " + a);
      return argv[++i];
    };
    if (a == "--dir") o.dir = value();
    else if (a == "--daemon") o.daemon = value();
    else if (a == "--sim") o.sim = value();
    else if (a == "--mode") o.mode = value();
    else if (a == "--chip") o.chip = unescaped(a, value());
    else if (a == "--sim-mode") o.sim_mode = value();
    else if (a == "--profile") o.profile = unescaped(a, value());
    else if (a == "--profile-file") o.profile = read_file(value());
    else if (a == "--no-profile") o.no_profile = true;
    else if (a == "--dial") o.dial = unescaped(a, value());
    else if (a == "--sim-do") o.sim_commands.push_back(value());
    else if (a == "--no-start") o.start_daemon = false;
    else if (a == "--rw-root") o.ro_root = false;
    else if (a == "--no-tun") o.no_tun = true;
    else usage("unknown option " + a);
  }
  if (o.dir.empty()) usage("--dir is required");
  if (o.mode != "qmi" && o.mode != "ndis" && o.mode != "none") usage("--mode must be qmi, ndis or none");
  if (!o.chip) {
    if (o.mode == "qmi") o.chip = "0\n";
    if (o.mode == "ndis") o.chip = "1\n";
  }
  // The daemon picks NDIS mode from a chip file that starts with the digit 1.
  bool ndis = o.chip && !o.chip->empty() && (*o.chip)[0] == '1';
  if (o.sim_mode.empty()) o.sim_mode = ndis ? "ndis" : "qmi";
  if (o.sim_mode != "qmi" && o.sim_mode != "ndis") usage("--sim-mode must be qmi or ndis");
  o.ifname = o.sim_mode == "ndis" ? "rmnet_tarvek0" : "rmnet0";
  if (!o.profile && !o.no_profile) o.profile = kDefaultProfile;
  if (o.sim.empty()) {
    // By default the simulator sits next to this program.
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) usage("cannot find myself; give --sim");
    self[n] = 0;
    std::string s = self;
    o.sim = s.substr(0, s.rfind('/') + 1) + "wds-sim";
  }
  if (o.start_daemon && o.daemon.empty()) usage("--daemon is required unless --no-start");
  // Both are started from / inside.
  for (std::string* path : {&o.daemon, &o.sim}) {
    if (path->empty()) continue;
    char* abs = realpath(path->c_str(), nullptr);
    if (!abs) usage("cannot find " + *path);
    *path = abs;
    free(abs);
  }
  return o;
}

void check(int rc, const std::string& what) {
  if (rc != 0) throw std::runtime_error(what + ": " + strerror(errno));
}

void make_dir(const std::string& path, mode_t mode = 0755) {
  if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) throw std::runtime_error("mkdir " + path + ": " + strerror(errno));
}

// A program to run later, whatever gets mounted over its directory.
int open_program(const std::string& path) {
  int fd = open(path.c_str(), O_PATH | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("open " + path + ": " + strerror(errno));
  return fd;
}

// ---- PID 1 -----------------------------------------------------------------

class Init {
 public:
  Init(Options o, int exchange_fd) : o_(std::move(o)), exchange_fd_(exchange_fd) {}

  int run() {
    try {
      // The programs are reached through descriptors opened before /run,
      // /var, /dev and /proc are covered: the build may live below one.
      sim_exe_fd_ = open_program(o_.sim);
      if (!o_.daemon.empty()) daemon_exe_fd_ = open_program(o_.daemon);
      prepare_filesystems();
      prepare_network();
      open_bus();
      start_sim();
      if (o_.start_daemon) start_daemon();
      control_ = std::make_unique<sim::ControlServer>(std::string(kExchange) + "/init.sock",
                                                      [this](const std::string& line) { return post(line); });
    } catch (const std::exception& e) {
      write_failed(e.what());
      return 1;
    }
    return loop();
  }

 private:
  // ---- setup ----
  void prepare_filesystems() {
    // /run first: the exchange directory is reached through a descriptor
    // opened before anything was covered.
    check(mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"), "mount /run");
    make_dir(kExchange);
    std::string src = "/proc/self/fd/" + std::to_string(exchange_fd_);
    check(mount(src.c_str(), kExchange, nullptr, MS_BIND | MS_REC, nullptr), "bind exchange directory");

    // /dev: only what the daemon, ifconfig, route and the simulator need.
    check(mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755"), "mount /dev");
    struct Node {
      const char* path;
      unsigned maj, min;
    };
    static constexpr Node kNodes[] = {{"/dev/null", 1, 3},   {"/dev/zero", 1, 5},    {"/dev/full", 1, 7},
                                      {"/dev/random", 1, 8}, {"/dev/urandom", 1, 9}, {"/dev/tty", 5, 0},
                                      {"/dev/net/tun", 10, 200}, {"/dev/fuse", 10, 229}};
    make_dir("/dev/net");
    for (const auto& n : kNodes) check(mknod(n.path, S_IFCHR | 0666, makedev(n.maj, n.min)), std::string("mknod ") + n.path);
    make_dir("/dev/pts");
    check(mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=0620"),
          "mount devpts");
    check(symlink("pts/ptmx", "/dev/ptmx"), "ptmx link");
    make_dir("/dev/shm", 01777);
    check(mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777"), "mount /dev/shm");
    check(symlink("/proc/self/fd", "/dev/fd"), "fd link");
    check(symlink("/proc/self/fd/0", "/dev/stdin"), "stdin link");
    check(symlink("/proc/self/fd/1", "/dev/stdout"), "stdout link");
    check(symlink("/proc/self/fd/2", "/dev/stderr"), "stderr link");
    // The simulator mounts the modem's tty on this file.
    write_file("/dev/qmitty0", "", 0666);

    // /proc cannot take new files: a tmpfs with links into a fresh procfs,
    // plus the chip file.
    make_dir("/run/realproc");
    check(mount("proc", "/run/realproc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr), "mount procfs");
    check(mount("tmpfs", "/proc", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0555"), "mount /proc");
    DIR* d = opendir("/run/realproc");
    if (!d) throw std::runtime_error("cannot list /run/realproc");
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name == "." || name == ".." || name.find_first_not_of("0123456789") == std::string::npos) continue;
      check(symlink(("/run/realproc/" + name).c_str(), ("/proc/" + name).c_str()), "link /proc/" + name);
    }
    closedir(d);
    // Process directories cannot follow the processes into a tmpfs, so the
    // namespace's pids are kept below a small limit and every possible one
    // gets its link in advance (sanitizers and ps look there by number).
    int fd = open("/run/realproc/sys/kernel/pid_max", O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
      std::string max = std::to_string(kPidMax);
      ssize_t w = write(fd, max.data(), max.size());
      (void)w;
      close(fd);
    }
    for (int pid = 1; pid <= kPidMax; ++pid) {
      std::string n = std::to_string(pid);
      check(symlink(("/run/realproc/" + n).c_str(), ("/proc/" + n).c_str()), "link /proc/" + n);
    }
    if (o_.chip) write_file("/proc/proc_user_datacardchip", *o_.chip, 0444);

    // sysfs of this network namespace: lo and the modem's interface only.
    check(mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC | MS_RDONLY, nullptr), "mount /sys");

    check(mount("tmpfs", "/var", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"), "mount /var");
    for (const char* p : {"/var/wan", "/var/log", "/var/tmp"}) make_dir(p);
    make_dir("/var/wan/" + o_.ifname);
    check(symlink("/run", "/var/run"), "/var/run link");
    if (o_.profile) write_file("/var/wan/" + o_.ifname + "/config", *o_.profile);
    if (o_.dial) write_file("/var/wan/" + o_.ifname + "/dial", *o_.dial);

    make_dir(kBinDir);
    write_file(std::string(kBinDir) + "/atcmd",
               "#!/bin/sh\n"
               "# Stand-in for the gateway's AT command tool: records its arguments.\n"
               "echo \"$*\" >> /run/sandbox/atcmd.log\n",
               0755);

    if (o_.ro_root) {
      // Only this namespace's view of / changes; dropping MS_BIND here would
      // remount the host's root filesystem read-only.
      if (mount(nullptr, "/", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
        fprintf(stderr, "wds-sandbox: read-only root not available: %s\n", strerror(errno));
    }
    sethostname("wds-sandbox", 11);
  }

  void prepare_network() {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) throw std::runtime_error("socket failed");
    ifreq ifr{};
    snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "lo");
    check(ioctl(s, SIOCGIFFLAGS, &ifr), "SIOCGIFFLAGS lo");
    ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
    check(ioctl(s, SIOCSIFFLAGS, &ifr), "SIOCSIFFLAGS lo");
    close(s);
    // Without this, bringing the interface up sends IPv6 router
    // solicitations that move its transmit counters.
    for (const char* p : {"/proc/sys/net/ipv6/conf/all/disable_ipv6", "/proc/sys/net/ipv6/conf/default/disable_ipv6"}) {
      int fd = open(p, O_WRONLY | O_CLOEXEC);
      if (fd < 0) continue;
      ssize_t w = write(fd, "1", 1);
      (void)w;
      close(fd);
    }
  }

  void open_bus() {
    bus_fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bus_fd_ < 0) throw std::runtime_error("bus socket failed");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string name = std::string(kZunMsgAddrPrefix) + "cms";
    memcpy(addr.sun_path + 1, name.data(), name.size());
    socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    check(bind(bus_fd_, reinterpret_cast<sockaddr*>(&addr), len), "bind bus name cms");
  }

  static void reset_child_state() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
  }

  static void redirect_output(const char* path) {
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND, 0644);
    int null = open("/dev/null", O_RDONLY);
    if (null >= 0) dup2(null, 0);
    if (fd >= 0) {
      dup2(fd, 1);
      dup2(fd, 2);
    }
  }

  void start_sim() {
    int ready[2];
    check(pipe2(ready, O_CLOEXEC), "pipe");
    std::vector<std::string> args = {o_.sim, "--mode", o_.sim_mode, "--dir", kExchange, "--device", "/dev/qmitty0",
                                     "--ready-fd", "3"};
    if (o_.no_tun) args.push_back("--no-tun");
    for (const auto& c : o_.sim_commands) {
      args.push_back("--do");
      args.push_back(c);
    }
    sim_pid_ = fork();
    if (sim_pid_ < 0) throw std::runtime_error("fork failed");
    if (sim_pid_ == 0) {
      reset_child_state();
      redirect_output("/run/sandbox/sim.out");
      dup2(ready[1], 3);  // dup2 clears close-on-exec
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      std::string path = std::string("PATH=") + kPath;
      char* envp[] = {path.data(), nullptr};
      execveat(sim_exe_fd_, "", argv.data(), envp, AT_EMPTY_PATH);
      _exit(127);
    }
    close(ready[1]);
    pollfd p{ready[0], POLLIN, 0};
    int n = poll(&p, 1, 20000);
    char b = 0;
    bool ok = n == 1 && read(ready[0], &b, 1) == 1 && b == 'R';
    close(ready[0]);
    if (!ok) {
      std::string out;
      try {
        out = read_file("/run/sandbox/sim.out");
      } catch (...) {
      }
      throw std::runtime_error("simulator did not start: " + out);
    }
  }

  void start_daemon() {
    if (daemon_state_ == DaemonState::kRunning) throw sim::CommandError("daemon already running");
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
      reset_child_state();
      redirect_output("/run/sandbox/daemon.out");
      for (int fd = 3; fd < 1024; ++fd) {
        if (fd != daemon_exe_fd_) close(fd);  // close-on-exec: gone once the daemon runs
      }
      if (chdir("/") != 0) _exit(127);
      std::string path = std::string("PATH=") + kPath;
      char* envp[] = {path.data(), nullptr};
      char* argv[] = {o_.daemon.data(), nullptr};
      execveat(daemon_exe_fd_, "", argv, envp, AT_EMPTY_PATH);
      _exit(127);
    }
    launcher_pid_ = pid;
    daemon_pid_ = pid;
    daemon_state_ = DaemonState::kRunning;
    unlink("/run/sandbox/daemon.exit");
    unlink("/run/sandbox/daemon.pid");
  }

  void write_failed(const std::string& why) {
    fprintf(stderr, "wds-sandbox: %s\n", why.c_str());
    // Through the descriptor: the failure may come before the bind mount.
    int fd = openat(exchange_fd_, "failed", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return;
    std::string line = why + "\n";
    ssize_t w = write(fd, line.data(), line.size());
    (void)w;
    close(fd);
  }

  // ---- running ----
  enum class DaemonState { kNotStarted, kRunning, kExited };

  static std::string describe_status(int status) {
    if (WIFEXITED(status)) return "exit " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "signal " + std::to_string(WTERMSIG(status));
    return "unknown " + std::to_string(status);
  }

  // The detached daemon: re-parented to us and named after the daemon's
  // binary (it may not have made itself a session leader yet). Zombies still
  // show these fields.
  pid_t find_detached_daemon() {
    std::string want = o_.daemon.substr(o_.daemon.rfind('/') + 1).substr(0, 15);
    pid_t best = 0;
    DIR* d = opendir("/run/realproc");
    if (!d) return 0;
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
      pid_t pid = std::stoi(name);
      if (pid == 1 || pid == sim_pid_ || pid == launcher_pid_) continue;
      std::string stat;
      try {
        stat = read_file("/run/realproc/" + name + "/stat");
      } catch (...) {
        continue;
      }
      size_t open_paren = stat.find('('), close_paren = stat.rfind(')');
      if (open_paren == std::string::npos || close_paren == std::string::npos) continue;
      std::string comm = stat.substr(open_paren + 1, close_paren - open_paren - 1);
      auto fields = sim::split_words(stat.substr(close_paren + 1));
      if (fields.size() < 4) continue;
      int ppid = std::stoi(fields[1]);
      if (comm == want && ppid == 1 && pid != daemon_pid_ && (best == 0 || pid < best)) best = pid;
    }
    closedir(d);
    return best;
  }

  void daemon_ended(int status) {
    daemon_state_ = DaemonState::kExited;
    daemon_status_ = describe_status(status);
    write_file("/run/sandbox/daemon.exit", daemon_status_ + "\n");
  }

  void reap() {
    for (;;) {
      siginfo_t info{};
      if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) return;
      pid_t pid = info.si_pid;
      if ((pid == launcher_pid_ || pid == daemon_pid_) && info.si_code == CLD_EXITED && info.si_status == 0) {
        // daemon(): the parent has exited, the child now belongs to us. musl's
        // daemon() forks twice, so the first child ends too and hands over to
        // the second. Look before reaping, while the ending pid cannot be
        // reused.
        pid_t detached = find_detached_daemon();
        if (detached > 0) {
          daemon_pid_ = detached;
          write_file("/run/sandbox/daemon.pid", std::to_string(detached) + "\n");
        }
      }
      int status = 0;
      if (waitpid(pid, &status, 0) != pid) return;
      append_file("/run/sandbox/reaped.log", std::to_string(pid) + " " + describe_status(status) + "\n");
      if (pid == sim_pid_) {
        sim_pid_ = -1;
        sim_status_ = describe_status(status);
      } else if (pid == launcher_pid_) {
        launcher_pid_ = -1;
        if (daemon_pid_ == pid) daemon_ended(status);  // it did not detach
      } else if (pid == daemon_pid_ && daemon_state_ == DaemonState::kRunning) {
        daemon_ended(status);
      }
    }
  }

  std::optional<int> signal_number(const std::string& name) {
    static const std::map<std::string, int> kNames = {
        {"TERM", SIGTERM}, {"KILL", SIGKILL}, {"HUP", SIGHUP},   {"INT", SIGINT},   {"USR1", SIGUSR1},
        {"USR2", SIGUSR2}, {"ALRM", SIGALRM}, {"QUIT", SIGQUIT}, {"STOP", SIGSTOP}, {"CONT", SIGCONT},
        {"SEGV", SIGSEGV}, {"ABRT", SIGABRT}, {"PIPE", SIGPIPE}};
    std::string n = name.starts_with("SIG") ? name.substr(3) : name;
    if (auto it = kNames.find(n); it != kNames.end()) return it->second;
    if (n.starts_with("RTMIN+")) {
      auto v = sim::parse_uint(n.substr(6), 32);
      if (v) return SIGRTMIN + static_cast<int>(*v);
    }
    auto v = sim::parse_uint(n, 64);
    if (v && *v > 0) return static_cast<int>(*v);
    return std::nullopt;
  }

  // Control commands arrive on the control thread; PID 1's state belongs to
  // the main loop, so they are handed over and answered from there.
  std::string post(const std::string& line) {
    std::unique_lock lock(post_mu_);
    posted_.push_back(line);
    uint64_t ticket = ++posted_seq_;
    uint64_t w = 1;
    ssize_t n = write(event_fd_, &w, sizeof w);
    (void)n;
    post_cv_.wait(lock, [&] { return answered_seq_ >= ticket || closed_; });
    if (answered_seq_ < ticket) return "err sandbox is shutting down";
    std::string answer = std::move(answers_[ticket]);
    answers_.erase(ticket);
    return answer;
  }

  std::string command(const std::string& line) {
    auto words = sim::split_words(line);
    if (words.empty()) return "err empty command";
    const std::string& verb = words[0];
    try {
      if (verb == "ping") return "ok";
      if (verb == "status") {
        std::string state = daemon_state_ == DaemonState::kNotStarted ? "not-started"
                            : daemon_state_ == DaemonState::kRunning  ? "running"
                                                                      : "exited";
        std::string out = "ok daemon=" + state + " pid=" + std::to_string(daemon_state_ == DaemonState::kNotStarted ? 0 : daemon_pid_);
        if (daemon_state_ == DaemonState::kExited) {
          auto parts = sim::split_words(daemon_status_);
          out += " " + parts[0] + "=" + parts[1];
        }
        out += " sim=" + std::string(sim_pid_ > 0 ? "running" : "exited");
        if (sim_pid_ <= 0) out += " sim-status=" + sim_status_;
        return out;
      }
      if (verb == "kill") {
        if (words.size() != 2) return "err usage: kill SIGNAL";
        auto sig = signal_number(words[1]);
        if (!sig) return "err unknown signal " + words[1];
        if (daemon_state_ != DaemonState::kRunning) return "err daemon not running";
        if (kill(daemon_pid_, *sig) != 0) return std::string("err kill: ") + strerror(errno);
        return "ok";
      }
      if (verb == "start") {
        if (o_.daemon.empty()) return "err no daemon given";
        start_daemon();
        return "ok";
      }
      if (verb == "udp") return send_udp(words);
      if (verb == "shutdown") {
        shutting_down_ = true;
        return "ok";
      }
      return "err unknown command '" + verb + "'";
    } catch (const std::exception& e) {
      return std::string("err ") + e.what();
    }
  }

  // Traffic from inside the sandbox, e.g. towards the demand-mode route. The
  // namespace has no way out: packets end in the simulator's tun reader.
  std::string send_udp(const std::vector<std::string>& words) {
    if (words.size() < 3 || words.size() > 5) return "err usage: udp ADDR PORT [LEN] [COUNT]";
    auto addr = sim::parse_ipv4(words[1]);
    auto port = sim::parse_uint(words[2], 65535);
    auto len = words.size() > 3 ? sim::parse_uint(words[3], 65507) : std::optional<uint64_t>(32);
    auto count = words.size() > 4 ? sim::parse_uint(words[4], 10000) : std::optional<uint64_t>(1);
    if (!addr || !port || !len || !count) return "err usage: udp ADDR PORT [LEN] [COUNT]";
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0) return "err socket failed";
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(*port));
    to.sin_addr.s_addr = htonl(*addr);
    std::string payload(*len, 'x');
    uint64_t sent = 0;
    for (uint64_t i = 0; i < *count; ++i)
      if (sendto(s, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) >= 0) ++sent;
    int err = errno;
    close(s);
    if (sent == 0) return std::string("err sendto: ") + strerror(err);
    return "ok sent=" + std::to_string(sent);
  }

  void record_bus() {
    for (;;) {
      unsigned char buf[sizeof(zun_msg_header) + kZunMsgMaxPayload + 1];
      ssize_t n = recv(bus_fd_, buf, sizeof buf, 0);
      if (n < 0) return;
      std::string line = std::to_string(sim::monotonic_us()) + " ";
      if (static_cast<size_t>(n) < sizeof(zun_msg_header)) {
        line += "short " + sim::to_hex(std::string_view(reinterpret_cast<char*>(buf), static_cast<size_t>(n)));
      } else {
        zun_msg_header h;
        memcpy(&h, buf, sizeof h);
        std::string sender(h.sender, strnlen(h.sender, sizeof h.sender));
        char type[16];
        snprintf(type, sizeof type, "0x%x", h.type);
        size_t payload = static_cast<size_t>(n) - sizeof h;
        line += (sender.empty() ? "-" : sim::escape(sender)) + " " + type + " " + std::to_string(h.len) + " " +
                (payload ? sim::to_hex(std::string_view(reinterpret_cast<char*>(buf) + sizeof h, payload)) : "-");
      }
      append_file("/run/sandbox/bus.log", line + "\n");
    }
  }

  void copy_tree(const std::string& from, const std::string& to) {
    DIR* d = opendir(from.c_str());
    if (!d) return;
    mkdir(to.c_str(), 0755);
    while (dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      std::string src = from + "/" + name, dst = to + "/" + name;
      struct stat st;
      if (lstat(src.c_str(), &st) != 0) continue;
      if (S_ISDIR(st.st_mode)) {
        copy_tree(src, dst);
      } else if (S_ISREG(st.st_mode)) {
        try {
          write_file(dst, read_file(src));
        } catch (...) {
        }
      }
    }
    closedir(d);
  }

  int loop() {
    event_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    sigset_t set;
    sigemptyset(&set);
    for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, s);
    int sfd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    control_->start();
    write_file(std::string(kExchange) + "/ready", "ok\n");
    std::string host_pid = "PID1";
    try {
      host_pid = sim::split_words(read_file(std::string(kExchange) + "/init.pid")).at(0);
    } catch (...) {
    }
    fprintf(stderr,
            "wds-sandbox: ready in %s (%s, %s)\n"
            "  wds-simctl %s get                  the simulator\n"
            "  wds-simctl %s init status          PID 1 and the daemon\n"
            "  nsenter -t %s -m -n -p ip addr     a command inside\n"
            "  /proc/%s/root/var/log/wds.log      the daemon's log\n"
            "  Ctrl-C or SIGTERM ends it all.\n",
            o_.dir.c_str(), o_.sim_mode.c_str(), o_.ifname.c_str(), o_.dir.c_str(), o_.dir.c_str(), host_pid.c_str(),
            host_pid.c_str());
    reap();
    while (!shutting_down_) {
      pollfd fds[3] = {{sfd, POLLIN, 0}, {bus_fd_, POLLIN, 0}, {event_fd_, POLLIN, 0}};
      if (poll(fds, 3, -1) < 0 && errno != EINTR) break;
      if (fds[0].revents & POLLIN) {
        signalfd_siginfo si;
        while (read(sfd, &si, sizeof si) == sizeof si) {
          if (si.ssi_signo != SIGCHLD) shutting_down_ = true;
        }
        reap();
      }
      if (fds[1].revents & POLLIN) record_bus();
      if (fds[2].revents & POLLIN) {
        uint64_t v;
        ssize_t n = read(event_fd_, &v, sizeof v);
        (void)n;
        std::lock_guard lock(post_mu_);
        while (!posted_.empty()) {
          answers_[++answered_seq_] = command(posted_.front());
          posted_.pop_front();
        }
        post_cv_.notify_all();
      }
    }
    // Files of /var die with the namespace: keep a copy for the test.
    mkdir((std::string(kExchange) + "/final").c_str(), 0755);
    copy_tree("/var/log", std::string(kExchange) + "/final/log");
    copy_tree("/var/wan", std::string(kExchange) + "/final/wan");
    append_file(std::string(kExchange) + "/ended", "ok\n");
    {
      std::lock_guard lock(post_mu_);
      closed_ = true;
      post_cv_.notify_all();
    }
    control_->stop();
    // Leaving as PID 1 kills every process of the namespace; the mounts and
    // the interface go with the last of them.
    return 0;
  }

  Options o_;
  int exchange_fd_;
  int sim_exe_fd_ = -1;
  int daemon_exe_fd_ = -1;
  int bus_fd_ = -1;
  int event_fd_ = -1;
  pid_t sim_pid_ = -1;
  std::string sim_status_;
  pid_t launcher_pid_ = -1;
  pid_t daemon_pid_ = -1;
  DaemonState daemon_state_ = DaemonState::kNotStarted;
  std::string daemon_status_;
  bool shutting_down_ = false;
  std::unique_ptr<sim::ControlServer> control_;
  std::mutex post_mu_;
  std::condition_variable post_cv_;
  std::deque<std::string> posted_;
  uint64_t posted_seq_ = 0, answered_seq_ = 0;
  bool closed_ = false;
  std::map<uint64_t, std::string> answers_;
};

// ---- the host side -----------------------------------------------------------

pid_t g_init = -1;

void forward_to_init(int) {
  if (g_init > 0) kill(g_init, SIGTERM);
}

}  // namespace

int main(int argc, char** argv) {
  Options o = parse(argc, argv);
  make_dir(o.dir);
  if (char* abs = realpath(o.dir.c_str(), nullptr)) {
    o.dir = abs;
    free(abs);
  }
  for (const char* f : {"ready", "failed", "ended", "init.pid", "daemon.exit", "daemon.pid"})
    unlink((o.dir + "/" + f).c_str());

  // Only the pid namespace is made here (it takes effect for the child);
  // PID 1 makes the others itself, so this runner stays wholly on the host.
  if (unshare(CLONE_NEWPID) != 0) {
    fprintf(stderr, "wds-sandbox: unshare: %s (root needed)\n", strerror(errno));
    return 1;
  }

  int go[2];
  if (pipe2(go, O_CLOEXEC) != 0) return 1;
  sigset_t set, old;
  sigemptyset(&set);
  for (int s : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, s);
  sigprocmask(SIG_BLOCK, &set, &old);

  pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) {
    // PID 1 of the new namespace: dies with us, whatever kills us.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(go[1]);
    char b;
    if (read(go[0], &b, 1) != 1) _exit(1);
    close(go[0]);
    if (unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWUTS | CLONE_NEWIPC) != 0) {
      fprintf(stderr, "wds-sandbox: unshare: %s\n", strerror(errno));
      _exit(1);
    }
    // Nothing mounted from here on may reach the host.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      fprintf(stderr, "wds-sandbox: cannot make / private: %s\n", strerror(errno));
      _exit(1);
    }
    // Opened in the new mount namespace: a bind mount cannot take its
    // source from another namespace.
    int exchange_fd = open(o.dir.c_str(), O_DIRECTORY | O_CLOEXEC);
    if (exchange_fd < 0) _exit(1);
    Init init(std::move(o), exchange_fd);
    _exit(init.run());
  }
  close(go[0]);
  g_init = child;
  write_file(o.dir + "/init.pid", std::to_string(child) + "\n");
  ssize_t n = write(go[1], "G", 1);
  (void)n;
  close(go[1]);

  struct sigaction sa{};
  sa.sa_handler = forward_to_init;
  sigemptyset(&sa.sa_mask);
  for (int s : {SIGTERM, SIGINT, SIGHUP}) sigaction(s, &sa, nullptr);
  sigprocmask(SIG_SETMASK, &old, nullptr);

  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  // _exit: after unshare(CLONE_NEWPID) this process can start no thread, which
  // a leak checker run at exit would need; there is nothing left to release.
  fflush(nullptr);
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}
