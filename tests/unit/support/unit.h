// SPDX-License-Identifier: ISC
// What the unit programs share: each runs in mount and network namespaces of
// its own with a tmpfs on /var (main in unit.cpp); vector files; the log's
// records; variables of the code under test set and checked by name; and the
// modem's end of the daemon's tty.
#pragma once
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using Strings = std::vector<std::string>;

std::string read_file(const std::string& path);  // "(none)" when it cannot be read
void write_file(const std::string& path, const std::string& text);
// /var/log and /var/wan/<ifname>/ emptied.
void reset_var(const char* ifname);
// Descriptors this process holds.
int open_fds();
// Standard input closed, so that the next file opened is descriptor 0, as
// it is in a daemon an init system started with its standard input closed:
// a valid descriptor that no check may take for closed. fill_fd0() puts
// /dev/null back.
void free_fd0();
void fill_fd0();
// A peer of the platform's message bus, bound under this name; its socket.
int bus_peer(const char* name);

// ---- Vector files ------------------------------------------------------------
// A vector file under tests/unit opens with the line naming its columns,
// "columns: before | operation | after | log...", where a last column marked
// "..." takes every field from there on. Then one case per line, fields
// separated by " | ", "-" for a field with nothing in it; lines starting with
// '#' and blank lines are skipped, and a line that starts with blanks
// continues the row above (joined with one blank), so that long hex or a
// long row can wrap. Each row is a test of its own, Suite.<file's
// stem>_<line> (ctest -R 'At.ndis_12$' runs one alone), that names its file
// and line when it fails. VECTOR_TESTS("Suite", "folder/file.vec", body)
// in a runner registers a file's rows.
struct Row {
  std::string where;  // file:line
  Strings columns, fields;
  // The column's field, "" for "-" or none.
  std::string operator[](const std::string& column) const;
  // The fields from this column on, without those that are "-".
  Strings from(const std::string& column) const;
};
// Every row of `file` a test in `suite`, run by `body`; called by VECTOR_TESTS.
bool register_vector_tests(const char* suite, const char* file, std::function<void(const Row&)> body);
#define WDS_CONCAT2(a, b) a##b
#define WDS_CONCAT(a, b) WDS_CONCAT2(a, b)
#define VECTOR_TESTS(suite, file, ...) \
  [[maybe_unused]] static const bool WDS_CONCAT(vector_tests_, __LINE__) = register_vector_tests(suite, file, __VA_ARGS__)

// Nothing in "" and in "-".
Strings split(const std::string& text, const std::string& separator);
// Fields in the notation of decode/notation.h, with a shorthand for long runs on
// top: in a text, \*N before a character or an escape repeats it N times;
// in hex, a word XX*N repeats its bytes N times. A field that is not in the
// notation fails the test.
std::string unescape(const std::string& text);
std::string hex(const std::string& text);

// The log's lines: a record without its prefix, its error suffix as " errno"
// (number and text are the C library's), blanks at the end dropped.
Strings log_texts();
// Each of these among them, in this order.
void expect_logged(const Strings& texts);

// A variable of the code under test by name, for "name=value ..." texts
// (values unescaped; numbers compare by value whatever their base). A name
// with a '/' is the file of that name under /var, "(none)" when absent; set
// to "->path" it is a symbolic link to path.
struct Var {
  std::string name;
  std::function<std::string()> get;
  std::function<void(const std::string&)> set;
};
using Vars = std::vector<Var>;
#define NUM_VAR(name, x)                                                                                  \
  Var{name, [] { return std::to_string(x); },                                                             \
      [](const std::string& v) { x = static_cast<std::remove_cvref_t<decltype(x)>>(std::stoll(v, nullptr, 0)); }}
#define TEXT_VAR(name, x)                                                \
  Var{name, [] { return std::string(x, strnlen(x, sizeof x)); }, \
      [](const std::string& v) { snprintf(x, sizeof x, "%s", v.c_str()); }}
// An IPv4 address in network byte order, as dotted text.
#define ADDR_VAR(name, x)                                                       \
  Var{name, [] { in_addr a; a.s_addr = x; return std::string(inet_ntoa(a)); }, \
      [](const std::string& v) { x = inet_addr(v.c_str()); }}
void set_vars(const Vars& vars, const std::string& assignments);
void check_vars(const Vars& vars, const std::string& expected);
// Every variable as "name=value", for comparing a state with another.
std::string all_vars(const Vars& vars);

// The modem's end of the daemon's tty, a SOCK_SEQPACKET pair: each write is
// one read on the other side. While run() calls into the daemon, a peer
// thread plays a script: step 0 at once, step i when the daemon's i-th write
// arrives. A step is blocks to send and ticks ("tick", "tick*N": SIGALRM once
// the daemon is blocked, the handler calling on_tick), and "eof", which shuts
// the modem's end. After its step, the peer ticks whenever the daemon blocks
// with nothing of it to answer, so that a wait nobody answers times out.
class Modem {
 public:
  using Script = std::vector<Strings>;
  // Steps " / ", their items " ; ", each item decoded (hex or unescape).
  static Script script(const std::string& text, std::string (*decode)(const std::string&));
  Modem(int* daemon_fd, void (*on_tick)());
  ~Modem();
  int run(const std::function<int()>& call, const Script& script);
  void close_daemon_end();  // the daemon's reads and writes fail
  int unread();             // messages the daemon did not read
  Strings written;          // the daemon's writes, in order
  int ticks = 0;

 private:
  void play(const Script& script);
  bool daemon_sleeping();
  void tick();
  int* daemon_fd_;
  int peer_ = -1;
  int tid_ = 0;
  pthread_t main_ = {};
  std::atomic<bool> done_{false};
  struct sigaction saved_ = {};
};
