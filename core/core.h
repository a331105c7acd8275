// Connection manager: process entry, state machine, event ring, signals,
// bring-up, control files and dial profile, connect and disconnect.
#pragma once
#include <csetjmp>
#include <csignal>
#include <cstdint>

inline constexpr char kMainModule[] = "main";
#define MAIN_INFO(fmt, ...) WDS_INFO(kMainModule, fmt __VA_OPT__(,) __VA_ARGS__)
#define MAIN_ERROR(fmt, ...) WDS_ERROR(kMainModule, fmt __VA_OPT__(,) __VA_ARGS__)

// ---- Shared records ------------------------------------------------------

// IPv4 settings of a call. In `link_settings` the addresses are in network
// byte order; the NDIS DHCP result uses the same layout with host-order
// numbers.
struct link_settings_t {
  char username[65];
  uint8_t auth_pref;
  uint32_t primary_dns;
  uint32_t secondary_dns;
  uint32_t ipv4_addr;
  uint32_t subnet_mask;
  uint32_t gateway;
};

// Dial profile, parsed from "/var/wan/<ifname>/config".
struct wan_profile_t {
  char dialnumber[65];
  char username[65];
  char password[65];
  char apn[65];
  char ip[16];
  uint32_t auth;
  char dial_mode[16];
  uint32_t idletime;
  uint32_t mru;
};
extern wan_profile_t wan_profile;

// ---- Values --------------------------------------------------------------

enum wds_state : int {
  WDS_STATE_INIT = 0,
  WDS_STATE_READY = 1,
  WDS_STATE_CONNECTING = 2,
  WDS_STATE_CONNECTED = 3,
  WDS_STATE_DISCONNECTED = 4,
  WDS_STATE_IDLE = 5,
  WDS_STATE_EXIT = 6,
};

enum : int {
  WDS_DIAL_NONE = 0,
  WDS_DIAL_DISCONNECT = 1,
  WDS_DIAL_MANUAL = 2,
  WDS_DIAL_ALWAYS = 3,
  WDS_DIAL_DEMAND = 4,
};

enum : int {
  WDS_STATUS_READY = 0,
  WDS_STATUS_CONNECTED = 3,
  WDS_STATUS_DISCONNECTED = 6,
};

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

inline constexpr int kIfnameSize = 68;
inline constexpr int kPathSize = 68;

// ---- Module state of the connection manager -------------------------------

extern volatile uint32_t g_tick;
extern volatile sig_atomic_t g_connected;
extern volatile sig_atomic_t g_dial;
extern volatile sig_atomic_t g_ndis_mode;
extern volatile sig_atomic_t g_reinit_req;
extern int g_link_lost;
extern int g_idle_timeout;
extern int g_idle_started;
extern uint32_t g_idle_last_tx;
extern uint32_t g_idle_secs;
extern int g_demand_dial;
extern volatile sig_atomic_t g_manual_connect;
extern volatile sig_atomic_t g_connected_mark;
// Signal 37 while connected: the handler only raises this; the main loop logs.
extern volatile sig_atomic_t g_manual_connect_busy;
extern volatile sig_atomic_t g_timer_armed;
extern char g_acIfname[kIfnameSize];
extern char g_acPidpath[kPathSize];
extern char g_acProfilepath[kPathSize];
extern sigjmp_buf wds_restart_point;

// ---- State machine, events, signals (state_machine.cpp, events.cpp, signals.cpp)

int wds_state_print(int state);
int wds_state_step(int state);        // runs one state, returns the next
[[noreturn]] void wds_state_machine_run();
void qmi_event_post(uint32_t code);
void qmi_event_ring_reset();
void qmi_event_drain();
void qmi_event_demand_idle_handle();
void qmi_event_msm_state_query();
void qmi_timer_handle(int sig);
void wds_term_handle(int sig);
void wds_term_handle2(int sig);
void wds_chld_handle(int sig);
void wds_manual_connect_handle(int sig);
void wds_connected_mark_handle(int sig);
void wds_reinit_handle(int sig);
void wds_report_signal_notes();       // turns handler flags into log lines

// ---- Lifecycle (lifecycle.cpp) ---------------------------------------------

int msleep(unsigned ms);
[[noreturn]] void wds_exit();
void wds_cleanup();
int wds_timer_start();
int wds_timer_stop();

// ---- Bring-up (bring_up.cpp) ------------------------------------------------

int wds_bring_up();

// ---- Control files and profile (control_files.cpp, profile.cpp) --------------

int WriteToFile(const char* path, const char* text);
int wds_status_write(int code);
int wds_dial_read();
void wds_dial_take_request();         // one-shot request taken: file becomes "0"
int wds_pid_file_create();
void wds_pid_file_remove();
int get_curr_profile();

// ---- Connect and disconnect (connect.cpp) -----------------------------------

struct ndis_ctx_t {
  uint8_t connected;
  link_settings_t dhcp;
};
extern ndis_ctx_t ndis_ctx;

int wds_connect();
int wds_disconnect();
int _ndis_connect(ndis_ctx_t* ctx);
int ndis_disconnect();
