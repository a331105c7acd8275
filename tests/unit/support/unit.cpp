// SPDX-License-Identifier: ISC
#include "unit.h"

#include "decode/notation.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {
void (*g_on_tick)() = nullptr;
std::atomic<int> g_ticks_handled{0};
}  // namespace

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return in ? out.str() : "(none)";
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

void reset_var(const char* ifname) {
  for (const std::string& dir : {std::string("/var/log"), std::string("/var/wan/") + ifname}) {
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
  }
}

void free_fd0() { close(0); }

void fill_fd0() {
  if (fcntl(0, F_GETFD) < 0) open("/dev/null", O_RDONLY);  // takes the lowest free descriptor, 0
}

int open_fds() {
  int n = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) n += entry.exists() ? 1 : 0;
  return n;
}

int bus_peer(const char* name) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;  // abstract: a leading NUL, no terminator
  const int len = snprintf(addr.sun_path + 1, sizeof addr.sun_path - 1, "zun_msg/%s", name);
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), offsetof(sockaddr_un, sun_path) + 1 + len), 0) << name;
  return fd;
}

std::string Row::operator[](const std::string& column) const {
  const auto at = std::find(columns.begin(), columns.end(), column);
  if (at == columns.end()) {
    ADD_FAILURE() << "no column " << column;
    return "";
  }
  const size_t i = static_cast<size_t>(at - columns.begin());
  return i < fields.size() && fields[i] != "-" ? fields[i] : "";
}

Strings Row::from(const std::string& column) const {
  Strings out;
  const size_t first = static_cast<size_t>(std::find(columns.begin(), columns.end(), column) - columns.begin());
  for (size_t i = first; i < fields.size(); ++i) {
    if (fields[i] != "-") out.push_back(fields[i]);
  }
  return out;
}

namespace {

struct VectorSuite {
  const char* suite;
  const char* file;
  std::function<void(const Row&)> body;
};
std::vector<VectorSuite>& vector_suites() {
  static std::vector<VectorSuite> suites;
  return suites;
}

// A vector file's rows, each with its continuation lines joined before it is
// split into fields; the columns from the file's first line.
std::vector<Row> read_rows(const std::string& file) {
  std::ifstream in(std::string(WDS_TEST_VECTORS) + "/" + file);
  std::vector<Row> rows;
  Strings columns;
  int n = 0;
  for (std::string line; std::getline(in, line);) {
    ++n;
    if (n == 1 && line.starts_with("columns: ")) {
      columns = split(line.substr(9), " | ");
      if (!columns.empty() && columns.back().ends_with("...")) columns.back().resize(columns.back().size() - 3);
    } else if (line.starts_with(" ") && !rows.empty()) {
      rows.back().fields.back().append(1, ' ').append(line, line.find_first_not_of(' '));
    } else if (!line.empty() && line[0] != '#') {
      rows.push_back({file + ":" + std::to_string(n), columns, {line}});
    }
  }
  for (Row& row : rows) row.fields = split(row.fields[0], " | ");
  if (columns.empty() || rows.empty()) {
    fprintf(stderr, "%s: no rows, or no \"columns: \" line first\n", file.c_str());
    exit(1);
  }
  return rows;
}

class VectorTest : public testing::Test {
 public:
  VectorTest(const VectorSuite& suite, Row row) : suite_(suite), row_(std::move(row)) {}
  void TestBody() override {
    std::string text;
    for (const std::string& f : row_.fields) text += (text.empty() ? "" : " | ") + f;
    const size_t colon = row_.where.rfind(':');
    testing::ScopedTrace trace(row_.where.substr(0, colon).c_str(), std::stoi(row_.where.substr(colon + 1)), text);
    suite_.body(row_);
  }

 private:
  const VectorSuite& suite_;
  Row row_;
};

// Each row a test, before the filter picks what runs.
void register_rows() {
  for (const VectorSuite& suite : vector_suites()) {
    const std::string file = suite.file;
    const size_t slash = file.rfind('/') + 1;
    const std::string stem = file.substr(slash, file.rfind('.') - slash);
    for (const Row& row : read_rows(file)) {
      const int line = std::stoi(row.where.substr(row.where.rfind(':') + 1));
      testing::RegisterTest(suite.suite, (stem + "_" + std::to_string(line)).c_str(), nullptr, nullptr, suite.file,
                            line, [&suite, row]() -> testing::Test* { return new VectorTest(suite, row); });
    }
  }
}

// The repetition shorthand, expanded before the notation is read.
std::string expand_text_runs(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.compare(i, 2, "\\*") == 0) {
      size_t digits = 0;
      const int times = std::stoi(text.substr(i + 2), &digits);
      const size_t at = i + 2 + digits;
      const size_t len = text[at] != '\\' ? 1 : text[at + 1] == 'x' ? 4 : 2;
      for (int k = 0; k < times; ++k) out += text.substr(at, len);
      i = at + len - 1;
    } else {
      out += text[i];
      if (text[i] == '\\' && i + 1 < text.size()) out += text[++i];  // an escaped backslash starts no run
    }
  }
  return out;
}

std::string expand_hex_runs(const std::string& text) {
  std::string out;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const size_t star = word.find('*');
    for (int n = star == std::string::npos ? 1 : std::stoi(word.substr(star + 1)); n > 0; --n) {
      out += word.substr(0, star) + " ";
    }
  }
  return out;
}

}  // namespace

bool register_vector_tests(const char* suite, const char* file, std::function<void(const Row&)> body) {
  vector_suites().push_back({suite, file, std::move(body)});
  return true;
}

Strings split(const std::string& text, const std::string& separator) {
  Strings out;
  for (size_t at = 0; text != "" && text != "-";) {
    const size_t end = text.find(separator, at);
    out.push_back(text.substr(at, end - at));
    if (end == std::string::npos) break;
    at = end + separator.size();
  }
  return out;
}

std::string unescape(const std::string& text) {
  const auto out = notation::unescape(expand_text_runs(text));
  if (!out) ADD_FAILURE() << "not a text with C escapes: " << text;
  return out.value_or("");
}

std::string hex(const std::string& text) {
  const auto out = notation::from_hex(expand_hex_runs(text));
  if (!out) ADD_FAILURE() << "not hex: " << text;
  return out.value_or("");
}

Strings log_texts() {
  Strings out;
  std::istringstream in(read_file("/var/log/wds.log"));
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with("[ info][") || line.starts_with("[error][")) line.erase(0, line.find("] ", 8) + 2);
    if (const size_t e = line.find(" errno = "); e != std::string::npos && line.find(" <", e) != std::string::npos) {
      line.erase(e + 6);
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out.push_back(line);
  }
  return out;
}

void expect_logged(const Strings& texts) {
  const Strings got = log_texts();
  auto at = got.begin();
  for (const std::string& text : texts) {
    at = std::find(at, got.end(), text);
    EXPECT_NE(at, got.end()) << "not logged in this order: " << text;
  }
}

namespace {
Var file_var(const std::string& name) {
  const std::string path = "/var/" + name;
  return {name, [path] { return read_file(path); }, [path](const std::string& v) {
            unlink(path.c_str());
            if (v.starts_with("->")) {
              EXPECT_EQ(symlink(v.c_str() + 2, path.c_str()), 0);
            } else if (v != "(none)") {
              write_file(path, v);
            }
          }};
}

// name=value pairs, the value unescaped.
std::vector<std::pair<Var, std::string>> assignments(const Vars& vars, const std::string& text) {
  std::vector<std::pair<Var, std::string>> out;
  std::istringstream words(text);
  for (std::string word; words >> word && word != "-";) {
    const std::string name = word.substr(0, word.find('=')), value = unescape(word.substr(name.size() + 1));
    auto var = std::find_if(vars.begin(), vars.end(), [&](const Var& v) { return v.name == name; });
    if (name.find('/') != std::string::npos) {
      out.emplace_back(file_var(name), value);
    } else if (var == vars.end()) {
      ADD_FAILURE() << "no variable " << name;
    } else {
      out.emplace_back(*var, value);
    }
  }
  return out;
}

bool number(const std::string& text, long long* value) {
  char* end = nullptr;
  *value = strtoll(text.c_str(), &end, 0);
  return !text.empty() && *end == '\0';
}
}  // namespace

void set_vars(const Vars& vars, const std::string& text) {
  for (const auto& [var, value] : assignments(vars, text)) var.set(value);
}

void check_vars(const Vars& vars, const std::string& text) {
  for (const auto& [var, want] : assignments(vars, text)) {
    const std::string got = var.get();
    long long a, b;
    if (number(got, &a) && number(want, &b)) {
      EXPECT_EQ(a, b) << var.name;
    } else {
      EXPECT_EQ(got, want) << var.name;
    }
  }
}

std::string all_vars(const Vars& vars) {
  std::string out;
  for (const Var& var : vars) out += var.name + "=" + var.get() + " ";
  return out;
}

Modem::Script Modem::script(const std::string& text, std::string (*decode)(const std::string&)) {
  Script out;
  for (const std::string& step : split(text, " / ")) {
    out.emplace_back();
    for (const std::string& item : split(step, " ; ")) {
      const bool ticks = item.starts_with("tick");
      for (int n = item.starts_with("tick*") ? std::stoi(item.substr(5)) : 1; ticks && n > 0; --n) out.back().push_back("tick");
      if (!ticks) out.back().push_back(item == "eof" ? item : decode(item));
    }
  }
  return out;
}

Modem::Modem(int* daemon_fd, void (*on_tick)()) : daemon_fd_(daemon_fd) {
  int fds[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
  *daemon_fd_ = fds[0];
  peer_ = fds[1];
  g_on_tick = on_tick;
  struct sigaction action = {};
  action.sa_handler = [](int) {
    g_on_tick();
    ++g_ticks_handled;
  };  // no SA_RESTART: a tick ends a blocked read
  sigaction(SIGALRM, &action, &saved_);
}

Modem::~Modem() {
  close_daemon_end();
  close(peer_);
  sigaction(SIGALRM, &saved_, nullptr);
}

void Modem::close_daemon_end() {
  if (*daemon_fd_ >= 0) close(*daemon_fd_);
  *daemon_fd_ = -1;
}

int Modem::unread() {
  int n = 0;
  for (char byte; *daemon_fd_ >= 0 && recv(*daemon_fd_, &byte, 1, MSG_DONTWAIT) > 0;) ++n;
  return n;
}

int Modem::run(const std::function<int()>& call, const Script& script) {
  tid_ = static_cast<int>(syscall(SYS_gettid));
  main_ = pthread_self();
  done_ = false;
  sigset_t all, saved;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &saved);  // the peer never takes a signal
  std::thread peer([&] { play(script); });
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  const int ret = call();
  done_ = true;  // before the join, in which this thread blocks too
  peer.join();
  return ret;
}

void Modem::play(const Script& script) {
  size_t step = 0;
  const auto play_step = [&] {
    for (const std::string& item : step < script.size() ? script[step] : Strings{}) {
      if (item == "tick") {
        tick();
      } else if (item == "eof") {
        shutdown(peer_, SHUT_RDWR);
      } else {
        send(peer_, item.data(), item.size(), MSG_NOSIGNAL);
      }
    }
    ++step;
  };
  play_step();
  char buf[8192];
  while (!done_) {
    pollfd p = {peer_, POLLIN, 0};
    if (poll(&p, 1, 1) == 1) {
      const ssize_t n = recv(peer_, buf, sizeof buf, 0);
      if (n <= 0) return;
      written.emplace_back(buf, static_cast<size_t>(n));
      play_step();
    } else if (pollfd q = {peer_, POLLIN, 0}; daemon_sleeping() && poll(&q, 1, 0) == 0) {
      tick();  // a wait nobody answers
    }
  }
  for (ssize_t n; (n = recv(peer_, buf, sizeof buf, MSG_DONTWAIT)) > 0;) written.emplace_back(buf, static_cast<size_t>(n));
}

bool Modem::daemon_sleeping() {
  const std::string stat = read_file("/proc/self/task/" + std::to_string(tid_) + "/stat");
  const size_t paren = stat.rfind(") ");
  return paren != std::string::npos && stat[paren + 2] == 'S' && !done_;
}

void Modem::tick() {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!daemon_sleeping()) {
    if (done_ || std::chrono::steady_clock::now() > limit) return;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  const int before = g_ticks_handled;
  pthread_kill(main_, SIGALRM);
  while (g_ticks_handled == before) std::this_thread::yield();
  ++ticks;
}

// Every unit program runs in mount and network namespaces of its own with a
// tmpfs on /var holding /var/log and /var/wan/<ifname>/: the daemon's fixed
// paths and bus names are the test's alone (needs root).
int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  register_rows();  // read before the tmpfs covers /var, under which the sources may lie
  if (GTEST_FLAG_GET(list_tests)) return RUN_ALL_TESTS();
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("wds-test-var", "/var", "tmpfs", 0, "size=16m,mode=0755") != 0) {
    perror("cannot enter the test's own namespaces (needs root)");
    return 1;
  }
  for (const char* dir : {"/var/log", "/var/wan", "/var/wan/rmnet0", "/var/wan/rmnet_tarvek0"}) mkdir(dir, 0755);
  signal(SIGPIPE, SIG_IGN);  // as the daemon has it
  // Code under test that calls exit() must not end the program as a pass.
  static const pid_t program = getpid();
  static bool over = false;
  atexit([] {
    if (getpid() == program && !over) _exit((fputs("exited before the tests ended\n", stderr), 1));
  });
  const int result = RUN_ALL_TESTS();
  over = true;
  return result;
}
