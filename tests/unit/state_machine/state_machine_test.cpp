// SPDX-License-Identifier: ISC
// The connection manager's states, tick, events and signals on a vector
// file, against fakes of the operations they drive.
#include <sys/time.h>

#include <chrono>

#include "at/at.h"
#include "core/core.h"
#include "link/link.h"
#include "log/internal.h"
#include "qmi/qmi.h"
#include "tests/unit/support/unit.h"

namespace {
struct {
  int bring_up, connect, srv, srv_status, post_mid, echo;
  std::string tx, calls;  // traffic readings to come ("-1": unreadable), and the calls made
} fake;

int record(const std::string& call) {
  fake.calls += call + " ";
  if (fake.echo) fprintf(stderr, "%s ", call.c_str());
  return 0;
}
}  // namespace

volatile uint8_t g_wait_ticks = 0;
uint8_t g_connection_status_rsp = 1;
void qmi_tty_close() {}
void at_tick() {}
int at_port_cleanup() { return record("at_port_cleanup"); }
int wds_disconnect() { return record("disconnect"); }
int ndis_disconnect() { return record("ndis_disconnect"); }
void wds_link_init() { record("link_init"); }
void wds_link_down() { record("link_down"); }
int wds_bring_up() { return record("bring_up") + fake.bring_up; }
int wds_connect() {
  if (fake.connect == 0) g_connected = 1;
  return record("connect") + fake.connect;
}
int wds_get_srv_state() {
  if (fake.post_mid) qmi_event_post(QMI_EVENT_DEMAND_IDLE);
  if (fake.srv == 0) g_connection_status_rsp = static_cast<uint8_t>(fake.srv_status);
  return record("srv_state") + fake.srv;
}
int get_dev_traffic(const char*, dev_traffic* traffic) {
  const long long tx = fake.tx.empty() ? 0 : std::stoll(fake.tx);
  const size_t comma = fake.tx.find(',');
  fake.tx.erase(0, comma == std::string::npos ? comma : comma + 1);  // the readings still to come
  traffic->tx_bytes = static_cast<uint32_t>(tx);
  return record("traffic") - (tx < 0);
}
int demand_traffic_check(int reset) {
  if (reset == 0 && g_dial == WDS_DIAL_DEMAND) g_demand_dial = 1;
  return record("demand_check(" + std::to_string(reset) + ")");
}

namespace {

constexpr const char* kStates[] = {"init", "ready", "connecting", "connected", "disconnected", "idle", "exit"};
int g_seconds, g_ret;  // g_ret: what the last action that returns something returned
std::string g_pauses;  // the seconds each plain sleep asked for, in order
std::string g_path;  // the states a walk went through, after the one it started from

const Vars kVars = {
    Var{"path", [] { return g_path; }, nullptr}, NUM_VAR("seconds", g_seconds), NUM_VAR("ret", g_ret),
    Var{"pauses", [] { return g_pauses; }, nullptr},
    NUM_VAR("dial", g_dial),        NUM_VAR("connected", g_connected),   NUM_VAR("lost", g_link_lost),
    NUM_VAR("idle_timeout", g_idle_timeout), NUM_VAR("ndis", g_ndis_mode), NUM_VAR("marked", ndis_ctx.connected),
    NUM_VAR("demand", g_demand_dial), NUM_VAR("reinit", g_reinit_req),  NUM_VAR("tick", g_tick),
    NUM_VAR("wait_ticks", g_wait_ticks), NUM_VAR("idle_started", g_idle_started), NUM_VAR("idle_last", g_idle_last_tx),
    NUM_VAR("idle_secs", g_idle_secs), NUM_VAR("idletime", wan_profile.idletime), NUM_VAR("manual", g_manual_connect),
    NUM_VAR("mark", g_connected_mark), NUM_VAR("busy", g_manual_connect_busy), NUM_VAR("armed", g_timer_armed),
    NUM_VAR("head", qmi_event_queue.head), NUM_VAR("tail", qmi_event_queue.tail),
    Var{"events", [] {  // the pending events in order; set: each posted
          std::string out;
          for (uint32_t at = qmi_event_queue.head; at != qmi_event_queue.tail; at = (at + 1) % kEventRingSlots) {
            if (!out.empty()) out += ',';
            out += std::to_string(qmi_event_queue.slot[at]);
          }
          return out;
        }, [](const std::string& v) { for (auto& c : split(v, ",")) qmi_event_post(std::stoul(c)); }},
    Var{"alarm_mask", [] {  // which of HUP, INT, TERM and CHLD the tick's handler holds off
          struct sigaction now = {};
          sigaction(SIGALRM, nullptr, &now);
          std::string out;
          for (int sig : {SIGHUP, SIGINT, SIGTERM, SIGCHLD}) out += sigismember(&now.sa_mask, sig) ? "1" : "0";
          return out;
        }, nullptr},
    Var{"interval", [] { itimerval t; getitimer(ITIMER_REAL, &t); return std::to_string(t.it_interval.tv_sec); }, nullptr},
    NUM_VAR("bring_up", fake.bring_up), NUM_VAR("connect", fake.connect), NUM_VAR("srv", fake.srv),
    NUM_VAR("srv_status", fake.srv_status), NUM_VAR("post_mid", fake.post_mid),
    Var{"tx", [] { return fake.tx; }, [](const std::string& v) { fake.tx = v; }},
};

void fresh(const std::string& values) {
  wds_timer_stop();
  wan_reset();
  wds_core_reset();
  qmi_event_ring_reset();
  fake = {};
  g_path.clear();
  g_pauses.clear();
  g_ret = -9;
  fake.srv_status = 2;
  g_connection_status_rsp = 1;
  g_wait_ticks = 0;
  snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
  wds_install_signal_handlers();
  log_reset();
  reset_var("rmnet0");
  ASSERT_GE(log_open(), 0);
  set_vars(kVars, values);
}

}  // namespace

// A plain pause is recorded and still taken: the signal of a walk's step
// ends it.
extern "C" unsigned __real_sleep(unsigned seconds);
extern "C" unsigned __wrap_sleep(unsigned seconds) {
  g_pauses += (g_pauses.empty() ? "" : ",") + std::to_string(seconds);
  return __real_sleep(seconds);
}

namespace {

// In 20 ms a signal whose handler does nothing ends a pause or wait of the step.
void wake_soon() {
  signal(SIGALRM, [](int) {});
  const itimerval once = {{0, 0}, {0, 20 * 1000}};
  setitimer(ITIMER_REAL, &once, nullptr);
}

// "walk STATE N": N steps of the machine from STATE, each state taking the
// one the step before returned; or one of the actions below.
void act(const std::string& action) {
  const Strings words = split(action, " ");
  const int n = words.size() > 1 ? std::stoi(words.back()) : 0;
  if (words[0] == "walk") {
    int state = static_cast<int>(std::find(std::begin(kStates), std::end(kStates), words[1]) - std::begin(kStates));
    for (int step = 0; step < std::stoi(words[2]); ++step) {
      wake_soon();
      state = wds_state_step(state);
      if (!g_path.empty()) g_path += ',';
      g_path += kStates[state];
    }
    return;
  }
  const std::map<std::string, std::function<void()>> actions = {
      {"tick", [] { qmi_timer_handle(SIGALRM); }},  {"drain", qmi_event_drain},
      {"idle_event", qmi_event_demand_idle_handle}, {"print", [=] { g_ret = wds_state_print(n); }},
      {"timer_start", [] { g_ret = wds_timer_start(); }},   {"timer_stop", [] { g_ret = wds_timer_stop(); }},
      {"signal", [=] { raise(n); }},                {"notes", wds_report_signal_notes}};
  actions.at(words[0])();
}

// Actions "; " apart, then the fakes' calls and the log's records.
VECTOR_TESTS("StateMachine", "state_machine/steps.vec", [](const Row& row) {
  fresh(row["before"]);
  const auto start = std::chrono::steady_clock::now();
  for (const std::string& action : split(row["actions"], "; ")) act(action);
  g_seconds = static_cast<int>((std::chrono::steady_clock::now() - start) / std::chrono::seconds(1));
  check_vars(kVars, row["after"]);
  EXPECT_EQ(fake.calls, row["calls"].empty() ? "" : row["calls"] + " ");
  EXPECT_EQ(log_texts(), row.from("log"));
});

// The daemon's pause: a select that times out ends it at once, also with an
// EINTR left in errno by an earlier call, and says nothing.
TEST(Sleep, APauseEndsWhenItsTimeIsUpWhateverErrnoHeld) {
  for (const int stale : {0, EINTR}) {
    fresh("");
    errno = stale;
    EXPECT_EQ(msleep(10), 0);
    EXPECT_EQ(log_texts(), Strings{}) << "errno " << stale;
  }
}

// The way out: the call hung up in its mode and torn down, the pid file
// removed, exit status 0.
TEST(StateMachine, ExitPath) {
  testing::FLAGS_gtest_death_test_style = "fast";
  for (const auto& [values, calls] : {std::pair{"connected=1", "disconnect link_down "},
                                      {"connected=1 ndis=1", "ndis_disconnect link_down at_port_cleanup "},
                                      {"connected=0", ""}}) {
    fresh(values);
    ASSERT_EQ(wds_pid_file_create(), 0);
    EXPECT_EXIT((fake.echo = 1, wds_state_step(WDS_STATE_EXIT)), testing::ExitedWithCode(0), std::string("^") + calls + "$");
    EXPECT_EQ(read_file("/var/wan/rmnet0/pid"), "(none)");
  }
}

}  // namespace
