// SPDX-License-Identifier: ISC
// Connection manager: process entry, state machine, event ring, signals,
// bring-up, control files and dial profile, connect and disconnect. Nothing
// below this folder uses it; its files and tests do.
#pragma once
#include <csetjmp>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "wan/wan.h"

// ---- Event ring (events.cpp) ----------------------------------------------------

enum qmi_event : uint32_t {
  QMI_EVENT_NONE = 0,
  QMI_EVENT_DEMAND_IDLE = 1,
  QMI_EVENT_DEMAND_DIAL = 2,
  QMI_EVENT_MSM_STATE_QUERY = 3,
};

// Single producer (the SIGALRM handler), single consumer (the main loop).
inline constexpr uint32_t kEventRingSlots = 32;
struct qmi_event_queue_t {
  volatile uint32_t slot[kEventRingSlots];
  volatile uint32_t head;
  volatile uint32_t tail;
};
extern qmi_event_queue_t qmi_event_queue;

void qmi_event_ring_reset();
void qmi_event_post(uint32_t code);
void qmi_event_drain();
void qmi_event_msm_state_query();
void qmi_event_demand_idle_handle();   // demand.cpp

// ---- Module state of the connection manager (state.cpp) -------------------------

inline constexpr size_t kPathSize = 68;

struct ndis_ctx_t {
  uint8_t connected;      // an NDIS call set up by _ndis_connect is up
  link_settings_t dhcp;   // its DHCP result
};
extern ndis_ctx_t ndis_ctx;

extern volatile uint32_t g_tick;
extern volatile sig_atomic_t g_reinit_req;
extern int g_link_lost;
extern int g_idle_timeout;
extern int g_idle_started;
extern uint32_t g_idle_last_tx;
extern uint32_t g_idle_secs;   // the idle count: 9 per idle event, not seconds
extern volatile sig_atomic_t g_manual_connect;
extern volatile sig_atomic_t g_connected_mark;
// Signal 37 while connected: the handler only raises this; the main loop logs.
extern volatile sig_atomic_t g_manual_connect_busy;
extern volatile sig_atomic_t g_timer_armed;
extern char g_acPidpath[kPathSize];
extern char g_acProfilepath[kPathSize];
extern sigjmp_buf wds_restart_point;

// Every value above back to its process-start value (the restart point aside).
void wds_core_reset();

// ---- State machine (state_machine.cpp) ----------------------------------------

int wds_state_print(int state);
int wds_state_step(int state);        // runs one state, returns the next
[[noreturn]] void wds_state_machine_run();

// ---- Signals (signals.cpp) and the tick (timer.cpp) -------------------------------

void wds_install_signal_handlers();
void wds_term_handle(int sig);
void wds_term_handle2(int sig);
void wds_chld_handle(int sig);
void wds_manual_connect_handle(int sig);
void wds_connected_mark_handle(int sig);
void wds_reinit_handle(int sig);
void wds_report_signal_notes();       // turns handler flags into log lines

void qmi_timer_handle(int sig);
int wds_timer_start();
int wds_timer_stop();

// ---- Ending a call (hang_up.cpp), exit and clean-up (exit.cpp) ----------------------

// The mode's hang-up: the QMI disconnect procedure, or the NDIS hang-up,
// which also clears the NDIS call's mark.
void wds_hang_up();
// g_connected cleared and the link torn down.
void wds_link_teardown();
[[noreturn]] void wds_exit();
void wds_cleanup();

// ---- Bring-up (bring_up.cpp) ------------------------------------------------

int wds_bring_up();
// Its steps that meet the outside: 1 (NDIS mode) when the chip file's first
// byte is the digit 1, else 0; whether the interface's driver answers the
// driver-information request, once or (0 or -1) within five tries; the QMI
// tty opened and its client identifier read, each within five tries, 0 or -1.
int wds_datacard_is_ndis();
bool wds_probe_usbnet_driver();
int wds_probe_usbnet_with_retries();
int wds_open_qmi_channel();

// ---- Control files and profile (control_files.cpp, profile.cpp) --------------

int wds_dial_read();
// The request in the first bytes of the dial file: its first line, up to 7
// characters, read as atoi reads it.
int wds_dial_parse(const char* bytes, size_t len);
void wds_dial_take_request();         // one-shot request taken: file becomes "0"
int wds_pid_file_create();
void wds_pid_file_remove();
int get_curr_profile();
// The profile's lines from `file` into wan_profile, which the caller zeroed.
void profile_read(FILE* file);

// ---- Connect and disconnect (connect.cpp) -----------------------------------

int wds_connect();
int wds_disconnect();
int _ndis_connect(ndis_ctx_t* ctx);
int ndis_disconnect();
