// The connection state machine, tick and event ring, driven step by step
// against link-time fakes of the operations they drive.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <time.h>

#include <array>
#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "at/at.h"
#include "core/core.h"
#include "link/link.h"
#include "log/internal.h"
#include "private_var.h"
#include "qmi/qmi.h"

namespace {
struct Fakes {
  int bring_up_result = 0, connect_result = 0, srv_state_result = 0;
  uint8_t srv_state_status = 2;
  std::vector<int64_t> tx_bytes;  // successive traffic counter reads; negative: unreadable
  size_t tx_read = 0;
  bool demand_check_raises = false;    // demand_traffic_check(0) raises the demand flag
  bool post_during_srv_state = false;  // an event posted in the middle of a drain
  bool echo_calls = false;             // calls also go to stderr, for death tests
  std::vector<std::string> calls;
} fakes;

int record(const std::string& call) {
  fakes.calls.push_back(call);
  if (fakes.echo_calls) fprintf(stderr, "call:%s\n", call.c_str());
  return 0;
}
using Calls = std::vector<std::string>;
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
int wds_bring_up() {
  record("bring_up");
  return fakes.bring_up_result;
}
int wds_connect() {
  record("connect");
  if (fakes.connect_result == 0) g_connected = 1;
  return fakes.connect_result;
}
int wds_get_srv_state() {
  record("get_srv_state");
  if (fakes.post_during_srv_state) qmi_event_post(QMI_EVENT_DEMAND_IDLE);
  if (fakes.srv_state_result == 0) g_connection_status_rsp = fakes.srv_state_status;
  return fakes.srv_state_result;
}
int get_dev_traffic(const char*, dev_traffic* traffic) {
  record("get_dev_traffic");
  const int64_t tx = fakes.tx_read < fakes.tx_bytes.size() ? fakes.tx_bytes[fakes.tx_read++] : 0;
  traffic->tx_bytes = static_cast<uint32_t>(tx);
  return tx < 0 ? -1 : 0;
}
int demand_traffic_check(int reset) {
  record("demand_check(" + std::to_string(reset) + ")");
  if (reset == 0 && fakes.demand_check_raises) g_demand_dial = 1;
  return 0;
}

namespace {

const std::string kDialPath = "/var/wan/rmnet0/dial";

// Arms a one-shot SIGUSR1 that ends the next idle wait or retry pause.
void wake_soon() {
  static timer_t timer = [] {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGUSR1;
    timer_t created = {};
    timer_create(CLOCK_MONOTONIC, &event, &created);
    return created;
  }();
  const itimerspec when = {{0, 0}, {0, 20 * 1000 * 1000}};
  ASSERT_EQ(timer_settime(timer, 0, &when, nullptr), 0);
}

// Steps through `path`: each state must lead to the next one.
void walk(std::initializer_list<int> path, int line = __builtin_LINE()) {
  testing::ScopedTrace trace(__FILE__, line, "walk");
  for (const int* from = path.begin(); from + 1 < path.end(); ++from) {
    wake_soon();
    EXPECT_EQ(wds_state_step(*from), from[1]) << "stepping from state " << *from;
  }
}

void dial(const std::string& value) { write_text_file(kDialPath, value); }

// Runs the real tick handler once, landing g_tick on `tick`.
void tick_to(uint32_t tick) {
  g_tick = tick - 1;
  qmi_timer_handle(SIGALRM);
}

std::vector<uint32_t> pending() {
  std::vector<uint32_t> codes;
  for (uint32_t at = qmi_event_queue.head; at != qmi_event_queue.tail; at = (at + 1) % kEventRingSlots) {
    codes.push_back(uint32_t{qmi_event_queue.slot[at]});
  }
  return codes;
}

std::string log_text() { return read_text_file("/var/log/wds.log"); }
bool log_has(const std::string& message) { return log_text().find("] " + message + "\n") != std::string::npos; }

class StateMachine : public testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet0");
    fakes = {};
    g_connection_status_rsp = 1;  // the fake's
    wan_reset();
    wds_core_reset();
    qmi_event_ring_reset();
    snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
    log_reset();
    ASSERT_GE(log_open(), 0);
  }
  void TearDown() override { log_close(); }
};

// A failed call, then a call the poll finds gone: only a stay-connected request dials again.
TEST_F(StateMachine, ConnectOnceIsNotRepeatedStayConnectedRedials) {
  struct Case { const char* dial; const char* file_after_take; int after_loss; };
  const Case cases[] = {{"2", "0", WDS_STATE_IDLE}, {"3", "3", WDS_STATE_CONNECTING}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dial);
    fakes = {};
    fakes.connect_result = -1;
    dial(c.dial);
    walk({WDS_STATE_READY, WDS_STATE_CONNECTING, WDS_STATE_READY, c.after_loss});
    fakes.connect_result = 0;
    dial(c.dial);
    walk({WDS_STATE_READY, WDS_STATE_CONNECTING, WDS_STATE_CONNECTED, WDS_STATE_IDLE});
    EXPECT_EQ(read_text_file(kDialPath), c.file_after_take);  // exactly "0", no newline
    fakes.srv_state_status = 1;
    tick_to(3);
    walk({WDS_STATE_IDLE, WDS_STATE_CONNECTED});
    EXPECT_EQ(g_link_lost, 1);
    walk({WDS_STATE_CONNECTED, WDS_STATE_DISCONNECTED, WDS_STATE_READY, c.after_loss});
    EXPECT_EQ(fakes.calls, (Calls{"connect", "connect", "get_srv_state", "disconnect", "link_down"}));
  }
  EXPECT_TRUE(log_has("wds state : connected"));
}

TEST_F(StateMachine, ConnectedStepLeavesOnALossADisconnectRequestOrADemandTimeoutAndTearsDownByMode) {
  struct Case { const char* file; int dial, lost, timeout, ndis, marked, next, timeout_after; Calls calls; };
  const Case cases[] = {
      {"3", 3, 0, 0, 0, 0, WDS_STATE_IDLE, 0, {}},
      {"3", 3, 0, 1, 0, 0, WDS_STATE_IDLE, 1, {}},  // idle time-outs count only in demand mode
      {"4", 4, 0, 0, 0, 0, WDS_STATE_IDLE, 0, {}},
      {"3", 3, 1, 0, 0, 0, WDS_STATE_DISCONNECTED, 0, {"disconnect", "link_down"}},
      {"1", 3, 0, 0, 0, 0, WDS_STATE_DISCONNECTED, 0, {"disconnect", "link_down"}},
      {"4", 4, 0, 1, 0, 0, WDS_STATE_DISCONNECTED, 0, {"disconnect", "demand_check(1)", "link_down"}},
      {"1", 3, 0, 0, 1, 1, WDS_STATE_DISCONNECTED, 0, {"ndis_disconnect", "link_down"}},
      {"1", 3, 0, 0, 1, 0, WDS_STATE_DISCONNECTED, 0, {"link_down"}},  // an unmarked NDIS call stays
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "row " << &c - cases);
    fakes = {};
    dial(c.file);
    g_dial = c.dial;
    g_link_lost = c.lost;
    g_idle_timeout = c.timeout;
    g_ndis_mode = c.ndis;
    ndis_ctx.connected = c.marked;
    g_connected = 1;
    walk({WDS_STATE_CONNECTED, c.next});
    EXPECT_EQ(g_dial, c.dial);  // the file is read, not stored
    EXPECT_EQ(g_link_lost, 0);
    EXPECT_EQ(g_idle_timeout, c.timeout_after);
    if (c.next == WDS_STATE_DISCONNECTED) walk({WDS_STATE_DISCONNECTED, WDS_STATE_READY});
    EXPECT_EQ(fakes.calls, c.calls);
    EXPECT_EQ(g_connected, c.next == WDS_STATE_IDLE);
    EXPECT_EQ(ndis_ctx.connected, c.marked && c.next == WDS_STATE_IDLE);
  }
}

TEST_F(StateMachine, DialValuesFromReadyAndIdle) {
  struct Case { std::string file; int demand_flag, from_ready, from_idle; };
  const Case cases[] = {
      {"0", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},        {"1", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},
      {"2", 0, WDS_STATE_CONNECTING, WDS_STATE_READY}, {"3", 0, WDS_STATE_CONNECTING, WDS_STATE_READY},
      {"4", 1, WDS_STATE_CONNECTING, WDS_STATE_READY}, {"4", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},
      {"7", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},        {"-2", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("dial file '" + c.file + "'");
    dial(c.file);
    g_demand_dial = c.demand_flag;
    walk({WDS_STATE_IDLE, c.from_idle});
    g_demand_dial = c.demand_flag;
    walk({WDS_STATE_READY, c.from_ready});
  }
}

TEST_F(StateMachine, ReinitialisationCleansUpWithoutDisconnectAndInitBringsUpAgain) {
  for (int from : {WDS_STATE_READY, WDS_STATE_IDLE}) {
    SCOPED_TRACE(from);
    fakes = {};
    g_connected = 1;
    g_dial = 4;
    g_reinit_req = 1;
    dial("3");
    walk({from, WDS_STATE_INIT, WDS_STATE_READY});
    EXPECT_EQ(g_reinit_req, 0);
    EXPECT_EQ(g_connected, 0);
    EXPECT_EQ(g_dial, 3);
    EXPECT_EQ(fakes.calls, (Calls{"link_down", "demand_check(1)", "bring_up", "link_init"}));
  }
  g_connected = 1;  // without a request, idle goes back to a live call
  walk({WDS_STATE_IDLE, WDS_STATE_CONNECTED});

  fakes = {};
  fakes.bring_up_result = -1;
  const auto start = std::chrono::steady_clock::now();
  walk({WDS_STATE_INIT, WDS_STATE_INIT});  // the retry pause resumes after the wake-up signal
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2990));
  EXPECT_EQ(fakes.calls, (Calls{"bring_up", "link_down"}));
}

TEST_F(StateMachine, DemandModeIdlesUntilTrafficRaisesTheFlag) {
  dial("4");
  walk({WDS_STATE_READY, WDS_STATE_IDLE, WDS_STATE_IDLE});  // no event yet
  fakes.demand_check_raises = true;
  tick_to(3);
  walk({WDS_STATE_IDLE, WDS_STATE_READY, WDS_STATE_CONNECTING});
  EXPECT_EQ(fakes.calls, (Calls{"demand_check(0)"}));
  EXPECT_EQ(g_demand_dial, 0);
}

TEST_F(StateMachine, PollMarksTheLinkLostWhenItSucceedsWithAStatusOtherThanTwo) {
  struct Case { int result; uint8_t status; const char* line; int lost; };
  const Case cases[] = {
      {-1, 1, "wds_get_srv_state failed", 0},
      {0, 2, "wds_get_srv_state ok, g_connection_status_rsp:2", 0},
      {0, 1, "wds_get_srv_state ok, g_connection_status_rsp:1", 1},
      {0, 0, "wds_get_srv_state ok, g_connection_status_rsp:0", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    g_connected = 1;
    g_dial = 3;
    g_link_lost = 0;
    g_connection_status_rsp = 1;
    fakes.srv_state_result = c.result;
    fakes.srv_state_status = c.status;
    tick_to(3);
    qmi_event_drain();
    EXPECT_TRUE(log_has(std::string("qmi_event_msm_state_query: ") + c.line));
    EXPECT_EQ(g_link_lost, c.lost);
  }
}

TEST_F(StateMachine, TickPostsEventsOnEveryThirdTickAndWrapsItsCounters) {
  struct Case { int connected, dial; std::vector<uint32_t> posted; };  // over ticks 1..6
  const Case cases[] = {{1, 4, {1, 3, 1, 3}}, {1, 3, {3, 3}}, {0, 4, {2, 2}}, {0, 3, {}}, {1, 2, {3, 3}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "connected " << c.connected << " dial " << c.dial);
    g_connected = c.connected;
    g_dial = c.dial;
    g_tick = 0;
    std::vector<uint32_t> posted;
    for (int i = 1; i <= 6; ++i) {
      qmi_event_ring_reset();
      qmi_timer_handle(SIGALRM);
      for (uint32_t code : pending()) posted.push_back(code);
    }
    EXPECT_EQ(posted, c.posted);
  }
  g_wait_ticks = 255;
  g_tick = 0xffffffffu;
  qmi_timer_handle(SIGALRM);
  EXPECT_EQ(g_wait_ticks, 0);  // both counters advance and wrap
  EXPECT_EQ(g_tick, 0u);
}

TEST_F(StateMachine, EventRingRefusesDuplicatesDropsWhenFullStopsAtCodeZeroAndWraps) {
  qmi_event_post(3);
  qmi_event_post(3);
  EXPECT_EQ(pending(), std::vector<uint32_t>{3});

  qmi_event_ring_reset();
  for (uint32_t code = 100; code < 140; ++code) qmi_event_post(code);
  EXPECT_EQ(pending().size(), 31u);  // one slot always stays free
  EXPECT_EQ(pending().back(), 130u);

  // A zero slot is consumed and ends this drain; what follows waits for the next.
  qmi_event_ring_reset();
  qmi_event_queue.slot[1] = QMI_EVENT_MSM_STATE_QUERY;
  qmi_event_queue.tail = 2;
  g_connected = 1;
  qmi_event_drain();
  EXPECT_EQ(qmi_event_queue.head, 1u);
  EXPECT_EQ(fakes.calls, Calls{});
  qmi_event_drain();
  EXPECT_EQ(fakes.calls, Calls{"get_srv_state"});

  // Past slot 31 the ring wraps, and an event posted mid-drain is handled in the same drain.
  fakes = {};
  fakes.post_during_srv_state = true;
  g_dial = 4;
  qmi_event_queue.head = 31;
  qmi_event_queue.tail = 31;
  qmi_event_post(QMI_EVENT_MSM_STATE_QUERY);
  EXPECT_EQ(qmi_event_queue.tail, 0u);
  qmi_event_drain();
  EXPECT_EQ(fakes.calls, (Calls{"get_srv_state", "get_dev_traffic"}));
  EXPECT_EQ(qmi_event_queue.head, 1u);
  EXPECT_EQ(qmi_event_queue.tail, 1u);
}

TEST_F(StateMachine, IdleAccountingCountsNinePerQuietEventAndTimesOut) {
  using After = std::array<uint32_t, 3>;  // g_idle_secs, g_idle_started, g_idle_timeout
  struct Case { uint32_t idletime; std::vector<int64_t> tx; std::vector<After> after; };
  const Case cases[] = {
      {27, {1000, 1000, 1500, 1500, 1500, 1500}, {{0, 1, 0}, {9, 1, 0}, {0, 1, 0}, {9, 1, 0}, {18, 1, 0}, {0, 0, 1}}},
      {0, {5, 5}, {{0, 1, 0}, {0, 0, 1}}},
      {36, {-1, 7, -1, 7, -1}, {{0, 0, 0}, {0, 1, 0}, {0, 1, 0}, {9, 1, 0}, {9, 1, 0}}},  // -1: unreadable
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.idletime);
    fakes = {};
    fakes.tx_bytes = c.tx;
    g_idle_secs = 0;
    g_idle_started = g_idle_timeout = 0;
    wan_profile.idletime = c.idletime;
    for (const After& want : c.after) {
      qmi_event_demand_idle_handle();
      EXPECT_EQ((After{g_idle_secs, uint32_t(g_idle_started), uint32_t(g_idle_timeout)}), want);
    }
    const std::string out = "qmi_event_demand_idle_handle : idletime:[" + std::to_string(c.idletime) + "]out";
    EXPECT_EQ(log_has(out), c.after.back()[2] == 1);
  }
}

TEST_F(StateMachine, StateLinesAreLoggedWithTheRecordPrefix) {
  for (int state = 0; state <= 7; ++state) wds_state_print(state);
  const std::regex prefix(R"(\[ info\]\[            main: *\d+:pid= *\d+\] )");
  EXPECT_EQ(std::regex_replace(log_text(), prefix, "|"),
            "|wds state : init...\n|wds state : ready\n|wds state : connecting...\n|wds state : connected\n"
            "|wds state : disconnected\n|wds state : idle\n|wds state : exit\n|wds state : unknown.\n");
}

TEST_F(StateMachine, SignalHandlersOnlySetFlagsAndTheMainLoopLogs) {
  wds_connected_mark_handle(36);  // marks only a live call
  wds_manual_connect_handle(37);
  wds_report_signal_notes();
  EXPECT_EQ(g_connected_mark, 0);
  EXPECT_EQ(g_manual_connect, 1);
  g_connected = 1;
  g_manual_connect = 0;
  wds_manual_connect_handle(37);
  wds_connected_mark_handle(36);
  wds_reinit_handle(38);
  EXPECT_EQ(log_text(), "");
  wds_report_signal_notes();
  EXPECT_TRUE(log_has("wds_manual_connect_handle : connected or connecting"));
  EXPECT_EQ(g_manual_connect, 0);
  EXPECT_EQ(g_connected_mark, 1);
  EXPECT_EQ(g_reinit_req, 1);
}

TEST_F(StateMachine, MsleepLastsItsFullLengthThroughTicks) {
  struct sigaction action = {}, saved;
  action.sa_handler = [](int) {};  // no SA_RESTART: select sees EINTR
  sigaction(SIGALRM, &action, &saved);
  itimerval fast = {{0, 5000}, {0, 5000}}, off = {};
  setitimer(ITIMER_REAL, &fast, nullptr);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(msleep(250), 0);
  const auto took = std::chrono::steady_clock::now() - start;
  setitimer(ITIMER_REAL, &off, nullptr);
  sigaction(SIGALRM, &saved, nullptr);
  EXPECT_GE(took, std::chrono::milliseconds(249));
  EXPECT_LT(took, std::chrono::milliseconds(2000));
}

TEST_F(StateMachine, TimerStartIsGuardedAndStopRestoresTheTimer) {
  itimerval running;
  g_timer_armed = 0;
  EXPECT_EQ(wds_timer_start(), 0);
  EXPECT_EQ(wds_timer_start(), 0);  // a second start must not save the running timer as the old one
  getitimer(ITIMER_REAL, &running);
  EXPECT_EQ(running.it_interval.tv_sec, 4);
  EXPECT_EQ(g_timer_armed, 1);
  EXPECT_EQ(wds_timer_stop(), 0);
  getitimer(ITIMER_REAL, &running);
  EXPECT_EQ(running.it_interval.tv_sec + running.it_value.tv_sec + g_timer_armed, 0);
}

TEST_F(StateMachine, ExitPathDisconnectsTearsDownRemovesPidFileAndExitsZero) {
  testing::FLAGS_gtest_death_test_style = "fast";
  ASSERT_EQ(wds_pid_file_create(), 0);
  ASSERT_TRUE(file_exists("/var/wan/rmnet0/pid"));
  g_connected = 1;
  fakes.echo_calls = true;
  EXPECT_EXIT(wds_exit(), testing::ExitedWithCode(0), "call:disconnect\ncall:link_down\n");
  EXPECT_FALSE(file_exists("/var/wan/rmnet0/pid"));

  ASSERT_EQ(wds_pid_file_create(), 0);
  g_connected = 0;
  EXPECT_EXIT(wds_state_step(WDS_STATE_EXIT), testing::ExitedWithCode(0), "^$");
}

}  // namespace
