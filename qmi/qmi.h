// WDS client over the QMI tty: codec, transport, requests, error tables.
#pragma once
#include <cstdint>

#include "core/core.h"

// ---- Transport (transport.cpp) ---------------------------------------------

extern int qmitty_fd;                   // -1 while closed
extern volatile uint8_t g_wait_ticks;   // advanced by the daemon's tick

struct qmi_expect {
  uint8_t ctl_flag;   // 0x02 response, 0x04 indication
  uint16_t txId;
  uint16_t msg_type;
};

int get_wds_client_id();
int send_msg(const uint8_t* buf, int len);
int read_msg(const qmi_expect* expect, uint8_t limit);
int wait_srvc_status_ind(uint8_t limit);

// ---- Requests and connection state (wds.cpp) -----------------------------------

extern uint8_t connection_status;
extern uint8_t reconfiguration_flag;
extern uint8_t g_connection_status_rsp;
extern uint32_t conn_handle;
extern uint32_t g_connect_ticks;
extern link_settings_t link_settings;

int wds_reset_service();
int wds_abort(uint16_t tx_id);
int wds_start_network();
int wds_stop_network();
int wds_get_srv_state();
int wds_get_runtime_settings();
