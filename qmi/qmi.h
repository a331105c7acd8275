// SPDX-License-Identifier: ISC
// WDS client over the QMI tty: what the connection manager uses of it, and
// the message identifiers and error tables that tools decoding the wire share.
#pragma once
#include <cerrno>
#include <cstdint>

// ---- Control flags and WDS message identifiers -----------------------------------

inline constexpr uint8_t kQmiCtlRequest = 0x00;
inline constexpr uint8_t kQmiCtlResponse = 0x02;
inline constexpr uint8_t kQmiCtlIndication = 0x04;


inline constexpr uint16_t kWdsReset = 0x0000;
inline constexpr uint16_t kWdsAbort = 0x0002;
inline constexpr uint16_t kWdsStartNetwork = 0x0020;
inline constexpr uint16_t kWdsStopNetwork = 0x0021;
inline constexpr uint16_t kWdsPktSrvcStatus = 0x0022;   // response and indication
inline constexpr uint16_t kWdsRuntimeSettings = 0x002D;

// ---- Error and call-end texts (errors.cpp) ----------------------------------------

// Text of a result TLV's error code, or "Unknown Error." past the table.
const char* qmi_error_text(uint16_t code);
// Text of a status indication's call-end reason, or "Unknown reason.".
const char* call_end_reason_text(uint16_t reason);

// ---- Results of waits and requests -----------------------------------------------

inline constexpr int kQmiOk = 0;
inline constexpr int kQmiFail = -1;
inline constexpr int kQmiTimeout = -2;
inline constexpr int kQmiTtyGone = ENODEV;
static_assert(kQmiTtyGone == 19, "the tty-gone result is the errno value ENODEV");

// Packet-service connection status, as indications and status responses report it.
enum qmi_pkt_status : uint8_t {
  QMI_PKT_DISCONNECTED = 1,
  QMI_PKT_CONNECTED = 2,
  QMI_PKT_SUSPENDED = 3,
  QMI_PKT_AUTHENTICATING = 4,
};

// ---- Transport (transport.cpp) -----------------------------------------------------

extern volatile uint8_t g_wait_ticks;   // advanced by the daemon's tick

// Opens "/dev/qmitty0" read-write, closing the earlier descriptor first;
// the descriptor, or -1.
int qmi_tty_open();
void qmi_tty_close();
// The WDS client identifier the tty driver holds (1 to 255), or -1.
int get_wds_client_id();
// Waits up to `limit` ticks for a packet-service status indication: 0, -2
// on time-out, -1 for anything else.
int wait_srvc_status_ind(uint8_t limit);

// ---- Requests and connection state (wds.cpp) ---------------------------------------

extern uint8_t connection_status;         // last status indication's qmi_pkt_status
extern uint8_t reconfiguration_flag;      // and its reconfiguration-required flag
extern uint8_t g_connection_status_rsp;   // status of the last status response
extern uint32_t conn_handle;              // packet data handle of the call, 0 when none
extern uint32_t g_connect_ticks;          // ticks the last start-network response took

// Every request but the start waits this many ticks for its response.
inline constexpr uint8_t kWdsRequestLimitTicks = 3;
// 0, -1, or -2 for a time-out. The runtime settings fill link_settings.
int wds_reset_service();
int wds_start_network();
int wds_stop_network();
int wds_get_srv_state();
int wds_get_runtime_settings();
