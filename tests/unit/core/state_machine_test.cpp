// The connection state machine driven step by step against fake operations.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <time.h>

#include <chrono>
#include <regex>
#include <string>

#include "core/core.h"
#include "fake_operations.h"
#include "link/link.h"
#include "log/log.h"
#include "private_var.h"
#include "qmi/qmi.h"

namespace {

const std::string kDialPath = "/var/wan/rmnet0/dial";
const std::string kLogPath = "/var/log/wds.log";

void on_wake(int) {}

// Arms a one-shot SIGUSR1 that ends the next sigsuspend or sleep.
void wake_soon() {
  static timer_t timer;
  static bool created = false;
  if (!created) {
    struct sigaction action = {};
    action.sa_handler = on_wake;
    sigaction(SIGUSR1, &action, nullptr);
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = SIGUSR1;
    ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
    created = true;
  }
  itimerspec when = {};
  when.it_value.tv_nsec = 20 * 1000 * 1000;
  ASSERT_EQ(timer_settime(timer, 0, &when, nullptr), 0);
}

void dial(const std::string& value) { write_text_file(kDialPath, value); }

// Runs one tick of the real tick handler with g_tick landing on `tick`.
void tick_to(uint32_t tick) {
  g_tick = tick - 1;
  qmi_timer_handle(SIGALRM);
}

std::string log_text() { return read_text_file(kLogPath); }

bool log_has(const std::string& message) {
  return log_text().find("] " + message + "\n") != std::string::npos;
}

class StateMachine : public testing::Test {
 protected:
  void SetUp() override {
    reset_private_var("rmnet0");
    reset_fakes();
    snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
    g_tick = 0;
    g_connected = 0;
    g_dial = 0;
    g_ndis_mode = 0;
    g_reinit_req = 0;
    g_link_lost = 0;
    g_idle_timeout = 0;
    g_idle_started = 0;
    g_idle_last_tx = 0;
    g_idle_secs = 0;
    g_demand_dial = 0;
    g_manual_connect = 0;
    g_manual_connect_busy = 0;
    ndis_ctx = {};
    wan_profile = {};
    qmi_event_ring_reset();
    log_bytes = 0;
    ASSERT_GE(log_open(), 0);
  }
  void TearDown() override { log_close(); }
};

TEST_F(StateMachine, ConnectOnceTakesTheRequestAndDoesNotRedialAfterALoss) {
  dial("2");
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_CONNECTING);
  EXPECT_EQ(read_text_file(kDialPath), "0");  // exactly "0", no newline
  EXPECT_EQ(wds_state_step(WDS_STATE_CONNECTING), WDS_STATE_CONNECTED);
  EXPECT_EQ(g_connected, 1);

  g_link_lost = 1;
  EXPECT_EQ(wds_state_step(WDS_STATE_CONNECTED), WDS_STATE_DISCONNECTED);
  EXPECT_EQ(g_link_lost, 0);
  EXPECT_EQ(wds_state_step(WDS_STATE_DISCONNECTED), WDS_STATE_READY);
  EXPECT_EQ(g_connected, 0);
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_IDLE);
  EXPECT_EQ(count_calls("connect"), 1);
  EXPECT_EQ(fakes.calls, (std::vector<std::string>{"connect", "disconnect", "link_down"}));
}

TEST_F(StateMachine, ConnectOnceThatFailsIsNotRepeated) {
  dial("2");
  fakes.connect_result = -1;
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_CONNECTING);
  wake_soon();  // cuts the 5-second pause short
  EXPECT_EQ(wds_state_step(WDS_STATE_CONNECTING), WDS_STATE_READY);
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_IDLE);
  EXPECT_EQ(count_calls("connect"), 1);
}

TEST_F(StateMachine, StayConnectedRedialsAfterThePollReportsDisconnected) {
  dial("3");
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_CONNECTING);
  EXPECT_EQ(wds_state_step(WDS_STATE_CONNECTING), WDS_STATE_CONNECTED);
  EXPECT_EQ(wds_state_step(WDS_STATE_CONNECTED), WDS_STATE_IDLE);

  fakes.srv_state_status = 1;
  tick_to(3);
  wake_soon();
  EXPECT_EQ(wds_state_step(WDS_STATE_IDLE), WDS_STATE_CONNECTED);
  EXPECT_TRUE(log_has("qmi_event_msm_state_query: wds_get_srv_state ok, g_connection_status_rsp:1"));
  EXPECT_EQ(g_link_lost, 1);
  EXPECT_EQ(wds_state_step(WDS_STATE_CONNECTED), WDS_STATE_DISCONNECTED);
  EXPECT_EQ(wds_state_step(WDS_STATE_DISCONNECTED), WDS_STATE_READY);
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_CONNECTING);
  EXPECT_TRUE(log_has("wds state : connected"));
}

TEST_F(StateMachine, FailedPollChangesNothing) {
  g_connected = 1;
  g_dial = 3;
  fakes.srv_state_result = -1;
  tick_to(3);
  qmi_event_drain();
  EXPECT_TRUE(log_has("qmi_event_msm_state_query: wds_get_srv_state failed"));
  EXPECT_EQ(g_link_lost, 0);
}

TEST_F(StateMachine, PollReportingConnectedKeepsTheLink) {
  g_connected = 1;
  g_dial = 3;
  fakes.srv_state_status = 2;
  tick_to(3);
  qmi_event_drain();
  EXPECT_EQ(g_link_lost, 0);
}

TEST_F(StateMachine, DemandModeIdlesUntilTrafficRaisesTheFlag) {
  dial("4");
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_IDLE);
  wake_soon();
  EXPECT_EQ(wds_state_step(WDS_STATE_IDLE), WDS_STATE_IDLE);  // no event yet

  fakes.demand_check_raises = 1;
  tick_to(3);
  wake_soon();
  EXPECT_EQ(wds_state_step(WDS_STATE_IDLE), WDS_STATE_READY);
  EXPECT_EQ(fakes.demand_check_args, (std::vector<int>{0}));
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_CONNECTING);
  EXPECT_EQ(g_demand_dial, 0);
}

TEST_F(StateMachine, DialOneWhileConnectedDisconnectsAndThenIdles) {
  g_connected = 1;
  g_dial = 3;
  dial("1");
  EXPECT_EQ(wds_state_step(WDS_STATE_CONNECTED), WDS_STATE_DISCONNECTED);
  EXPECT_EQ(g_dial, 3);  // the connected state reads the file without storing it
  EXPECT_EQ(wds_state_step(WDS_STATE_DISCONNECTED), WDS_STATE_READY);
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_IDLE);
  wake_soon();
  EXPECT_EQ(wds_state_step(WDS_STATE_IDLE), WDS_STATE_IDLE);
  EXPECT_EQ(fakes.calls, (std::vector<std::string>{"disconnect", "link_down"}));
}

TEST_F(StateMachine, DialValuesFromReadyAndIdle) {
  struct Case {
    std::string file;
    int demand_flag;
    int from_ready;
    int from_idle;
  };
  const Case cases[] = {
      {"0", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},        {"1", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},
      {"3\n", 0, WDS_STATE_CONNECTING, WDS_STATE_READY}, {"  4", 1, WDS_STATE_CONNECTING, WDS_STATE_READY},
      {"4", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},        {"7", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},
      {"abc", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},      {"", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},
      {"-2", 0, WDS_STATE_IDLE, WDS_STATE_IDLE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("dial file '" + c.file + "'");
    dial(c.file);
    g_demand_dial = c.demand_flag;
    wake_soon();
    EXPECT_EQ(wds_state_step(WDS_STATE_IDLE), c.from_idle);
    g_demand_dial = c.demand_flag;
    EXPECT_EQ(wds_state_step(WDS_STATE_READY), c.from_ready);
  }
  remove(kDialPath.c_str());
  EXPECT_EQ(wds_state_step(WDS_STATE_READY), WDS_STATE_IDLE);  // missing file reads as 0
}

TEST_F(StateMachine, ReinitialisationFromReadyAndIdleCleansUpWithoutDisconnect) {
  for (int from : {WDS_STATE_READY, WDS_STATE_IDLE}) {
    SCOPED_TRACE(from);
    reset_fakes();
    g_connected = 1;
    g_dial = 4;
    g_reinit_req = 1;
    if (from == WDS_STATE_IDLE) wake_soon();
    EXPECT_EQ(wds_state_step(from), WDS_STATE_INIT);
    EXPECT_EQ(g_reinit_req, 0);
    EXPECT_EQ(g_connected, 0);
    EXPECT_EQ(count_calls("disconnect"), 0);
    EXPECT_EQ(count_calls("link_down"), 1);
    EXPECT_EQ(fakes.demand_check_args, (std::vector<int>{1}));
  }
}

TEST_F(StateMachine, IdleWithALiveLinkGoesBackToConnected) {
  g_connected = 1;
  g_dial = 3;
  wake_soon();
  EXPECT_EQ(wds_state_step(WDS_STATE_IDLE), WDS_STATE_CONNECTED);
}

TEST_F(StateMachine, InitPollsTheDialFileUntilItAsksForALink) {
  dial("3");
  wake_soon();  // cuts the 3-second poll pause short
  EXPECT_EQ(wds_state_step(WDS_STATE_INIT), WDS_STATE_READY);
  EXPECT_EQ(g_dial, 3);
  EXPECT_EQ(fakes.calls, (std::vector<std::string>{"bring_up", "link_init"}));
}

TEST_F(StateMachine, FailedBringUpCleansUpAndRetriesAfterThreeSeconds) {
  fakes.bring_up_result = -1;
  auto start = std::chrono::steady_clock::now();
  wake_soon();  // msleep resumes after the signal: the pause stays whole
  EXPECT_EQ(wds_state_step(WDS_STATE_INIT), WDS_STATE_INIT);
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(2990));
  EXPECT_EQ(count_calls("link_init"), 0);
}

TEST_F(StateMachine, DemandIdleTimeoutDisconnectsAndResetsTheDemandCheck) {
  g_connected = 1;
  g_dial = 4;
  g_idle_timeout = 1;
  dial("4");
  EXPECT_EQ(wds_state_step(WDS_STATE_CONNECTED), WDS_STATE_DISCONNECTED);
  EXPECT_EQ(g_idle_timeout, 0);
  EXPECT_EQ(wds_state_step(WDS_STATE_DISCONNECTED), WDS_STATE_READY);
  EXPECT_EQ(fakes.demand_check_args, (std::vector<int>{1}));
}

TEST_F(StateMachine, IdleTimeoutOutsideDemandModeIsIgnored) {
  g_connected = 1;
  g_dial = 3;
  g_idle_timeout = 1;
  dial("3");
  EXPECT_EQ(wds_state_step(WDS_STATE_CONNECTED), WDS_STATE_IDLE);
}

TEST_F(StateMachine, NdisTeardownHangsUpOnlyAMarkedCall) {
  g_ndis_mode = 1;
  g_connected = 1;
  ndis_ctx.connected = 1;
  EXPECT_EQ(wds_state_step(WDS_STATE_DISCONNECTED), WDS_STATE_READY);
  EXPECT_EQ(ndis_ctx.connected, 0);
  EXPECT_EQ(fakes.calls, (std::vector<std::string>{"ndis_disconnect", "link_down"}));

  reset_fakes();
  g_connected = 1;
  EXPECT_EQ(wds_state_step(WDS_STATE_DISCONNECTED), WDS_STATE_READY);
  EXPECT_EQ(fakes.calls, (std::vector<std::string>{"link_down"}));
}

TEST_F(StateMachine, TickPostsEventsOnEveryThirdTick) {
  struct Case {
    int connected;
    int dial;
    std::vector<uint32_t> expected;  // codes posted over ticks 1..6
  };
  const Case cases[] = {
      {1, 4, {1, 3, 1, 3}},
      {1, 3, {3, 3}},
      {0, 4, {2, 2}},
      {0, 3, {}},
      {1, 2, {3, 3}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "connected " << c.connected << " dial " << c.dial);
    g_connected = c.connected;
    g_dial = c.dial;
    g_tick = 0;
    std::vector<uint32_t> posted;
    for (int i = 1; i <= 6; ++i) {
      qmi_event_ring_reset();
      qmi_timer_handle(SIGALRM);
      for (uint32_t at = qmi_event_queue.head; at != qmi_event_queue.tail; at = (at + 1) % kEventRingSlots) {
        posted.push_back(static_cast<uint32_t>(qmi_event_queue.slot[at]));
      }
    }
    EXPECT_EQ(posted, c.expected);
  }
}

TEST_F(StateMachine, TickAdvancesTheWaitCountWhichWrapsAt256) {
  g_wait_ticks = 254;
  g_tick = 0xffffffffu;
  qmi_timer_handle(SIGALRM);
  EXPECT_EQ(g_wait_ticks, 255);
  EXPECT_EQ(g_tick, 0u);
  qmi_timer_handle(SIGALRM);
  EXPECT_EQ(g_wait_ticks, 0);
}

TEST_F(StateMachine, EventRingRefusesDuplicatesDropsWhenFullAndStopsAtCodeZero) {
  qmi_event_post(3);
  qmi_event_post(3);
  EXPECT_EQ(qmi_event_queue.tail, 1u);

  qmi_event_ring_reset();
  for (uint32_t code = 100; code < 140; ++code) qmi_event_post(code);
  EXPECT_EQ((qmi_event_queue.tail + kEventRingSlots - qmi_event_queue.head) % kEventRingSlots, 31u);
  EXPECT_EQ(qmi_event_queue.slot[30], 130u);

  // A zero slot is consumed and ends this drain; what follows waits.
  qmi_event_ring_reset();
  qmi_event_queue.slot[0] = 0;
  qmi_event_queue.slot[1] = QMI_EVENT_MSM_STATE_QUERY;
  qmi_event_queue.tail = 2;
  g_connected = 1;
  qmi_event_drain();
  EXPECT_EQ(qmi_event_queue.head, 1u);
  EXPECT_EQ(count_calls("get_srv_state"), 0);
  qmi_event_drain();
  EXPECT_EQ(count_calls("get_srv_state"), 1);

  // Wrapping: the ring keeps working past slot 31.
  qmi_event_ring_reset();
  qmi_event_queue.head = 31;
  qmi_event_queue.tail = 31;
  qmi_event_post(QMI_EVENT_MSM_STATE_QUERY);
  EXPECT_EQ(qmi_event_queue.tail, 0u);
  qmi_event_drain();
  EXPECT_EQ(count_calls("get_srv_state"), 2);
}

TEST_F(StateMachine, EventPostedDuringADrainIsHandledInTheSameDrain) {
  g_connected = 1;
  g_dial = 4;
  fakes.post_during_srv_state = true;
  qmi_event_post(QMI_EVENT_MSM_STATE_QUERY);
  qmi_event_drain();
  EXPECT_EQ(fakes.calls, (std::vector<std::string>{"get_srv_state", "get_dev_traffic"}));
  EXPECT_EQ(qmi_event_queue.head, qmi_event_queue.tail);
}

TEST_F(StateMachine, IdleAccountingCountsNinePerIdleEventAndTimesOut) {
  g_connected = 1;
  g_dial = 4;
  wan_profile.idletime = 27;
  fakes.tx_bytes = {1000, 1000, 1500, 1500, 1500, 1500};
  std::vector<uint32_t> secs;
  for (int i = 0; i < 6; ++i) {
    qmi_event_demand_idle_handle();
    secs.push_back(g_idle_secs);
  }
  // baseline, +9, traffic resets, +9, +18, +27 -> time-out clears the count
  EXPECT_EQ(secs, (std::vector<uint32_t>{0, 9, 0, 9, 18, 0}));
  EXPECT_EQ(g_idle_timeout, 1);
  EXPECT_EQ(g_idle_started, 0);
  EXPECT_TRUE(log_has("qmi_event_demand_idle_handle : idletime:[27]out"));
}

TEST_F(StateMachine, IdleTimeZeroDropsAtTheSecondIdleEvent) {
  g_connected = 1;
  g_dial = 4;
  fakes.tx_bytes = {5, 5};
  qmi_event_demand_idle_handle();
  EXPECT_EQ(g_idle_timeout, 0);
  EXPECT_EQ(g_idle_started, 1);
  qmi_event_demand_idle_handle();
  EXPECT_EQ(g_idle_timeout, 1);
}

TEST_F(StateMachine, IdleAccountingIgnoresUnreadableCounters) {
  fakes.dev_traffic_result = -1;
  qmi_event_demand_idle_handle();
  EXPECT_EQ(g_idle_started, 0);
  g_idle_started = 1;
  g_idle_secs = 9;
  qmi_event_demand_idle_handle();
  EXPECT_EQ(g_idle_secs, 9u);
}

TEST_F(StateMachine, StateLinesAreLoggedWithTheRecordPrefix) {
  for (int state = 0; state <= 7; ++state) wds_state_print(state);
  const std::string log = log_text();
  const char* expected[] = {"wds state : init...",      "wds state : ready",
                            "wds state : connecting...", "wds state : connected",
                            "wds state : disconnected", "wds state : idle",
                            "wds state : exit",         "wds state : unknown."};
  std::string pattern;
  for (const char* line : expected) {
    pattern += R"(\[ info\]\[            main:\s*\d+:pid=\s*\d+\] )" + std::regex_replace(
        std::string(line), std::regex(R"([.])"), R"(\.)") + "\n";
  }
  EXPECT_TRUE(std::regex_match(log, std::regex(pattern))) << log;
}

TEST_F(StateMachine, SignalThirtySevenWhileConnectedIsLoggedByTheMainLoop) {
  g_connected = 0;
  wds_manual_connect_handle(37);
  EXPECT_EQ(g_manual_connect, 1);
  wds_report_signal_notes();
  EXPECT_FALSE(log_has("wds_manual_connect_handle : connected or connecting"));

  g_connected = 1;
  wds_manual_connect_handle(37);
  wds_report_signal_notes();
  EXPECT_TRUE(log_has("wds_manual_connect_handle : connected or connecting"));

  wds_reinit_handle(38);
  EXPECT_EQ(g_reinit_req, 1);
  g_connected_mark = 0;
  wds_connected_mark_handle(36);
  EXPECT_EQ(g_connected_mark, 1);
}

void on_fast_tick(int) {}

TEST_F(StateMachine, MsleepLastsItsFullLengthThroughTicks) {
  struct sigaction action = {};
  action.sa_handler = on_fast_tick;  // no SA_RESTART: select sees EINTR
  struct sigaction saved;
  sigaction(SIGALRM, &action, &saved);
  itimerval fast = {{0, 5000}, {0, 5000}};
  setitimer(ITIMER_REAL, &fast, nullptr);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(msleep(250), 0);
  auto took = std::chrono::steady_clock::now() - start;
  itimerval off = {};
  setitimer(ITIMER_REAL, &off, nullptr);
  sigaction(SIGALRM, &saved, nullptr);
  EXPECT_GE(took, std::chrono::milliseconds(249));
  EXPECT_LT(took, std::chrono::milliseconds(2000));
}

TEST_F(StateMachine, TimerStartIsGuardedAndStopRestoresTheTimer) {
  g_timer_armed = 0;
  EXPECT_EQ(wds_timer_start(), 0);
  itimerval running;
  getitimer(ITIMER_REAL, &running);
  EXPECT_EQ(running.it_interval.tv_sec, 4);
  EXPECT_EQ(g_timer_armed, 1);
  EXPECT_EQ(wds_timer_start(), 0);  // second start changes nothing
  EXPECT_EQ(wds_timer_stop(), 0);
  getitimer(ITIMER_REAL, &running);
  EXPECT_EQ(running.it_interval.tv_sec, 0);
  EXPECT_EQ(running.it_value.tv_sec, 0);
  EXPECT_EQ(g_timer_armed, 0);
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
