// Placeholder until the WDS requests land: every request fails.
#include "qmi/qmi.h"

uint8_t connection_status = 1;
uint8_t reconfiguration_flag = 0;
uint8_t g_connection_status_rsp = 1;
uint32_t conn_handle = 0;
uint32_t g_connect_ticks = 0;
link_settings_t link_settings;

int wds_reset_service() { return -1; }
int wds_abort(uint16_t) { return -1; }
int wds_start_network() { return -1; }
int wds_stop_network() { return -1; }
int wds_get_srv_state() { return -1; }
int wds_get_runtime_settings() { return -1; }
