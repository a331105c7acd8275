// SPDX-License-Identifier: ISC
// The AT channel on vector files: replies sorted however the reads split
// them, and the port, the commands, the NDIS operations and the reply
// parsers against a scripted modem.
#include <fcntl.h>
#include <pty.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <termios.h>

#include "at/internal.h"
#include "log/internal.h"
#include "platform/platform.h"
#include "tests/unit/support/unit.h"

namespace {
uint32_t g_slept_ms, g_pauses;  // the pauses asked for, in ms, and their number
int g_lists;                     // the AT response parser's lists not freed
}  // namespace

extern "C" int __wrap__Z6msleepj(unsigned ms) {
  if (++g_pauses > 1000) abort();  // a retry loop that never ends
  g_slept_ms += ms;
  return 0;
}
extern "C" int __real_at_cmd_parse(at_cmd_field**, const char*, const char*, int, int);
extern "C" int __wrap_at_cmd_parse(at_cmd_field** head, const char* prefix, const char* text, int selector, int flags) {
  const int ret = __real_at_cmd_parse(head, prefix, text, selector, flags);
  if (head != nullptr && *head != nullptr) ++g_lists;
  return ret;
}
extern "C" void __real_free_at_cmd(at_cmd_field*);
extern "C" void __wrap_free_at_cmd(at_cmd_field* head) {
  if (head != nullptr) --g_lists;
  __real_free_at_cmd(head);
}

namespace {

int g_ret, g_err, g_unread, g_cap, g_timeout, g_save;
uint32_t g_result, g_word;
std::string g_response, g_taken;
char g_prefix[kAtPrefixSize], g_text[kAtSmallFileSize];
link_settings_t g_record;

#define STRING_VAR(name, x) Var{name, [] { return x; }, [](const std::string& v) { x = v; }}
const Vars kVars = {
    NUM_VAR("ret", g_ret),      NUM_VAR("err", g_err),       NUM_VAR("unread", g_unread), NUM_VAR("cap", g_cap),
    NUM_VAR("timeout", g_timeout), NUM_VAR("save", g_save), NUM_VAR("slept", g_slept_ms),  NUM_VAR("result", g_result), NUM_VAR("word", g_word), TEXT_VAR("prefix", g_prefix),
    STRING_VAR("response", g_response), STRING_VAR("taken", g_taken),
    TEXT_VAR("text", g_text),   NUM_VAR("ip", g_record.ipv4_addr), NUM_VAR("mask", g_record.subnet_mask),
    NUM_VAR("gw", g_record.gateway), NUM_VAR("dns1", g_record.primary_dns), NUM_VAR("dns2", g_record.secondary_dns),
    TEXT_VAR("username", g_record.username), NUM_VAR("wpos", at_rx_ring.wpos), NUM_VAR("rpos", at_rx_ring.rpos),
    NUM_VAR("set_up", at_rx_ring.set_up), NUM_VAR("port", g_at_fd), NUM_VAR("wait_state", g_at_wait_state),
    NUM_VAR("seq", g_at_seq),  TEXT_VAR("line", g_at_line_acc), TEXT_VAR("apn", wan_profile.apn),
    TEXT_VAR("user", wan_profile.username), TEXT_VAR("pass", wan_profile.password), NUM_VAR("auth", wan_profile.auth),
};

void fresh(const std::string& values) {
  at_port_reset();
  at_response_reset();
  wan_reset();
  g_ret = g_err = g_unread = g_cap = g_timeout = g_save = g_result = g_word = 0;
  g_response = g_taken = std::string();
  g_prefix[0] = g_text[0] = '\0';
  g_slept_ms = g_pauses = 0;
  g_lists = 0;
  g_record = {};
  memset(at_rx_ring.buf, 0, sizeof at_rx_ring.buf);
  log_reset();
  reset_var("rmnet_tarvek0");
  ASSERT_GE(log_open(), 0);
  set_vars(kVars, values);
}

int take_all() {
  for (uint8_t c; at_ring_take(&c) == 0;) g_taken += static_cast<char>(c);
  return 0;
}

// One command through at_send_command, with the reply prefix, time-out and
// save mode of the variables.
int send(const std::string& command) {
  at_request req = {};
  req.timeout = g_timeout;
  req.save_to_file = static_cast<uint32_t>(g_save);
  memcpy(req.body.in.command, command.data(), std::min(command.size(), sizeof req.body.in.command));
  memcpy(req.body.in.reply_prefix, g_prefix, sizeof g_prefix);
  g_ret = at_send_command(&req, &g_err);
  g_result = req.body.out.result;
  g_response.assign(req.body.out.response, strnlen(req.body.out.response, sizeof req.body.out.response));
  return g_ret;
}

// An operation and its argument, unescaped, as a call.
std::function<int()> operation(const std::string& text) {
  const std::string name = text.substr(0, text.find(' '));
  const std::string arg = name.size() < text.size() ? unescape(text.substr(name.size() + 1)) : "";
  const int n = atoi(arg.c_str());
  const std::map<std::string, std::function<int()>> ops = {
      {"send", [=] { return send(arg); }},       {"write", [=] { return at_write_command(arg.c_str(), &g_err); }},
      {"read", [] { return at_read_into_ring() + take_all(); }},  {"drain", at_drain_reports},
      {"probe", at_probe_ok},                    {"close", at_port_close},
      {"cleanup", at_port_cleanup},  {"assemble", [] { at_request req = {}; return at_assemble_lines(&req); }},              {"seq", [] { return static_cast<int>(at_next_seq()); }},
      {"dial", [] { return ndis_at_connect(&wan_profile); }},  {"hangup", ndis_at_disconnect},
      {"dup", [=] { return ndis_dup_request(n, &wan_profile, &g_err); }},
      {"add", [=] {
         const Strings a = split(arg, ",");
         auto at = [&](size_t i) { return a.size() > i && a[i] != "(null)" ? a[i].c_str() : nullptr; };
         return ndis_add_request(at(0), at(1), at(2) != nullptr ? at(2) : "", &g_err);
       }},
      {"cmee", [] { return at_enable_cme_errors(&g_err); }},   {"echo_off", [] { return at_echo_off(&g_err); }},
      {"curc", [=] { return at_set_curc(&g_err, n); }},         {"dhcp_query", [] { return at_query_dhcp(&g_err); }},
      {"ipv6_query", [] { return at_query_ipv6cap(&g_err); }},
      {"dhcp_fetch", [=] { return ndis_get_dhcp_result(&g_record, n); }},
      {"ipv6_fetch", [] { return ndis_get_ipv6cap(&g_cap); }},
      {"hex", [=] { return static_cast<int>(g_word = hex_to_u32(arg.c_str())) * 0; }},
      {"dhcp_reply", [=] { return parse_dhcp_reply(arg.c_str(), &g_record); }},
      {"ipv6_reply", [=] { return parse_ipv6cap_reply(arg.c_str(), &g_cap); }},
      {"write_file", [=] { return write_var_log_file("small", "%s", arg.c_str()), 0; }},
      {"read_file", [=] { return read_small_file(arg.c_str(), g_text); }},
      {"tty_open", [=] { int fd = -1; return at_tty_open(arg.c_str(), &fd); }},
  };
  return ops.at(name);
}

// An operation against the scripted modem; "closed" closes the daemon's end first.
void run_operation(const Row& row) {
  fresh(row["before"]);
  Modem modem(&g_at_fd, at_tick);
  const bool closed = row["script"] == "closed";
  if (closed) modem.close_daemon_end();
  fill_fd0();
  const int fds = open_fds();
  free_fd0();
  g_ret = modem.run(operation(row["operation"]), Modem::script(closed ? "" : row["script"], unescape));
  EXPECT_LT(open_fds(), fds) << "descriptors left open, 0 among them";
  fill_fd0();
  g_unread = modem.unread();
  check_vars(kVars, row["after"]);
  std::string written;
  for (const std::string& w : modem.written) written += w;
  EXPECT_EQ(written, unescape(row["written"]));
  EXPECT_EQ(log_texts(), row.from("log"));
  EXPECT_EQ(g_lists, 0) << "the AT response parser's lists not freed";
}
VECTOR_TESTS("At", "at/operations.vec", run_operation);
VECTOR_TESTS("At", "at/ndis.vec", run_operation);

// Reads of at most 500 bytes: a read takes 511 at most.
std::vector<Strings> splits(const std::string& bytes, const std::string& how) {
  if (isdigit(how[0])) return {{bytes.substr(0, stoul(how)), bytes.substr(stoul(how))}};
  std::vector<Strings> out;
  if (how != "pieces") out.push_back({bytes});
  for (size_t cut = 1; how == "all" && cut < bytes.size(); ++cut) out.push_back({bytes.substr(0, cut), bytes.substr(cut)});
  for (size_t size : {1, 7, 100, 500}) {
    if (how != "pieces" && (how != "all" || size > 1)) continue;
    out.emplace_back();
    for (size_t at = 0; at < bytes.size(); at += size) out.back().push_back(bytes.substr(at, size));
  }
  return out;
}

// "AT" answered by the output, however the reads split it.
VECTOR_TESTS("At", "at/replies.vec", [](const Row& row) {
  for (const Strings& reads : splits(unescape(row["output"]), row["reads"])) {
    SCOPED_TRACE("reads: " + testing::PrintToString(reads));
    fresh(row["prefix"].empty() ? "" : "prefix=" + row["prefix"]);
    Modem modem(&g_at_fd, at_tick);
    modem.run([] { return send("AT"); }, {reads});
    check_vars(kVars, row["after"] + " line=");
    EXPECT_EQ(g_response, unescape(row["response"]));
    EXPECT_EQ(at_rx_ring.rpos, at_rx_ring.wpos);
    EXPECT_EQ(modem.written, Strings{"AT\r"});
  }
});

// What is left in the ring after a final result answers the next command,
// also on a port opened anew; a partial line waits in the accumulator.
TEST(At, BytesLeftInTheRingAnswerTheNextCommand) {
  fresh("prefix=^DHCP");
  {
    Modem first(&g_at_fd, at_tick);
    EXPECT_EQ(first.run([] { return send("AT"); }, {{"\r\nOK\r\n\r\n^DHCP: z\r\nOK\r\npar"}}), 0);
  }
  Modem second(&g_at_fd, at_tick);
  EXPECT_EQ(second.run([] { return send("AT^DHCP?"); }, {}), 0);
  EXPECT_EQ(g_response, "^DHCP: z");
  EXPECT_EQ(second.run([] { return send("AT"); }, {{}, {"tial\r\nOK\r\n"}}), 0);
  EXPECT_EQ(g_response, "partial");
}

// The port opened raw on a terminal, as the modem's tty is: the modes that
// would change the bytes are cleared, the rest kept; the ppp state cleared first.
TEST(At, WaitWmReadyOpensTheTtyRaw) {
  fresh("");
  int master = -1, slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  termios cooked = {};  // zeroed: musl's tcgetattr fills only the kernel's control characters
  ASSERT_EQ(tcgetattr(slave, &cooked), 0);
  cooked.c_iflag |= INLCR | ICRNL | IXON | IXANY | IXOFF | IGNBRK;
  cooked.c_oflag |= OPOST | ONLCR;
  cooked.c_lflag |= ICANON | ECHO | ECHOE | ECHONL | ISIG | IEXTEN;
  cooked.c_cc[VMIN] = 3;
  ASSERT_EQ(tcsetattr(slave, TCSANOW, &cooked), 0);
  ASSERT_EQ(mount("wds-test-dev", "/dev", "tmpfs", 0, "size=64k"), 0);
  close(open("/dev/qmitty0", O_CREAT | O_WRONLY, 0600));
  ASSERT_EQ(mount(("/proc/self/fd/" + std::to_string(slave)).c_str(), "/dev/qmitty0", nullptr, MS_BIND, nullptr), 0);
  mkdir("/var/log/ppp_state", 0755);

  testing::internal::CaptureStdout();
  free_fd0();  // the port on descriptor 0
  EXPECT_EQ(wait_wm_ready(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "wait_wm_ready:Ndis tty is opened successfully\n");
  umount2("/dev", MNT_DETACH);
  EXPECT_EQ(read_file("/var/log/ppp_state"), "(none)");
  termios now = {};
  ASSERT_EQ(tcgetattr(g_at_fd, &now), 0);
  EXPECT_EQ(now.c_iflag, cooked.c_iflag & ~tcflag_t{0x1dc0});
  EXPECT_EQ(now.c_oflag, 0u);
  EXPECT_EQ(now.c_lflag, cooked.c_lflag & ~tcflag_t{0x5a});
  EXPECT_EQ(now.c_cc[VMIN], 3);
  // A daemon started with its standard input closed holds the port on 0:
  // the probe works there, and closing the port closes that descriptor.
  EXPECT_EQ(g_at_fd, 0);
  ASSERT_EQ(write(master, "\r\nOK\r\n", 6), 6);
  EXPECT_EQ(at_probe_ok(), 0);
  char probe[8] = {};
  EXPECT_EQ(read(master, probe, sizeof probe), 3);
  EXPECT_STREQ(probe, "at\r");
  EXPECT_EQ(at_port_close(), 0);
  EXPECT_EQ(g_at_fd, -1);
  EXPECT_LT(fcntl(0, F_GETFD), 0);
  fill_fd0();
  close(slave);
  close(master);
}

// The port that cannot be opened: three passes of five opens, a second apart
// (after a second's pause each), and then exactly -1, the failure bring-up
// looks for.
TEST(At, WaitWmReadyGivesUpAfterThreePassesOfFiveOpens) {
  fresh("");
  ASSERT_EQ(mount("wds-test-dev", "/dev", "tmpfs", 0, "size=64k"), 0);
  mkdir("/var/log/ppp_state", 0755);
  EXPECT_EQ(wait_wm_ready(), -1);
  umount2("/dev", MNT_DETACH);
  EXPECT_EQ(g_slept_ms, 3 * (1000 + 5 * 1000u));
  EXPECT_EQ(g_at_fd, -1);
  EXPECT_EQ(read_file("/var/log/ppp_state"), "(none)");
}

TEST(At, MissingArgumentsAreRefused) {
  fresh("");
  int fd = -1, err = 5;
  const std::vector<std::function<int()>> calls = {
      [&] { return at_tty_open(nullptr, &fd); },        [&] { return at_tty_open("/dev/qmitty0", nullptr); },
      [&] { return at_write_command("AT", nullptr); },  [&] { return at_send_command(nullptr, &err); },
      [&] { return ndis_dup_request(1, nullptr, &err); }, [&] { return ndis_dup_request(0, nullptr, nullptr); },
      [&] { return ndis_add_request("a", "b", nullptr, &err); }, [] { return ndis_get_dhcp_result(nullptr, 1); },
      [] { return ndis_get_ipv6cap(nullptr); },          [] { return parse_dhcp_reply(nullptr, &g_record); },
      [] { return parse_dhcp_reply("^DHCP: 1,2,3,4,5,6", nullptr); }, [] { return parse_ipv6cap_reply("^IPV6CAP: 1", nullptr); },
      [] { return parse_ipv6cap_reply(nullptr, &g_cap); }, [] { return read_small_file(nullptr, g_text); },
      [] { return read_small_file("/var/log/wds.log", nullptr); }, [] { return at_echo_off(nullptr); },
      [] { return at_enable_cme_errors(nullptr); },     [] { int e = 0; return at_write_command(nullptr, &e); },
      [] { int e = 0; return at_wait_response(nullptr, &e); },  [] { at_request r = {}; return at_wait_response(&r, nullptr); }};
  for (size_t i = 0; i < calls.size(); ++i) EXPECT_EQ(calls[i](), -1) << "call " << i;
  EXPECT_EQ(err, 5);
  EXPECT_EQ(log_texts(), Strings(2, "path or tty_fd is null. errno"));
}

}  // namespace
