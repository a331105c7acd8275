#include "fake_operations.h"

#include <algorithm>
#include <cstdio>

#include "core/core.h"
#include "link/link.h"
#include "qmi/qmi.h"

fake_operations fakes;

void reset_fakes() { fakes = fake_operations{}; }

namespace {
void record(const char* name) {
  fakes.calls.push_back(name);
  if (fakes.echo_calls) fprintf(stderr, "call:%s\n", name);
}
}  // namespace

int count_calls(const std::string& name) {
  return static_cast<int>(std::count(fakes.calls.begin(), fakes.calls.end(), name));
}

// ---- qmi ----
int qmitty_fd = -1;
volatile uint8_t g_wait_ticks = 0;
uint8_t g_connection_status_rsp = 1;
int wds_get_srv_state() {
  record("get_srv_state");
  if (fakes.post_during_srv_state) qmi_event_post(QMI_EVENT_DEMAND_IDLE);
  if (fakes.srv_state_result == 0) g_connection_status_rsp = fakes.srv_state_status;
  return fakes.srv_state_result;
}

// ---- at ----
void at_tick() {}
int at_port_cleanup() {
  record("at_port_cleanup");
  return 0;
}

// ---- core operations of later modules ----
ndis_ctx_t ndis_ctx;
int wds_bring_up() {
  record("bring_up");
  if (fakes.bring_up_result == 0) snprintf(g_acIfname, sizeof g_acIfname, "rmnet0");
  return fakes.bring_up_result;
}
int wds_connect() {
  record("connect");
  if (fakes.connect_result == 0) g_connected = 1;
  return fakes.connect_result;
}
int wds_disconnect() {
  record("disconnect");
  return 0;
}
int ndis_disconnect() {
  record("ndis_disconnect");
  return 0;
}

// ---- link ----
void wds_link_init() { record("link_init"); }
void wds_link_up() { record("link_up"); }
void wds_link_down() { record("link_down"); }
int get_dev_traffic(const char*, dev_traffic* traffic) {
  record("get_dev_traffic");
  if (fakes.dev_traffic_result != 0) return fakes.dev_traffic_result;
  if (fakes.tx_index < fakes.tx_bytes.size()) traffic->tx_bytes = fakes.tx_bytes[fakes.tx_index++];
  return 0;
}
int demand_traffic_check(int reset) {
  record("demand_check");
  fakes.demand_check_args.push_back(reset);
  if (reset == 0 && fakes.demand_check_raises) g_demand_dial = 1;
  return 0;
}
