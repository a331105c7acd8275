// Module-level state of the connection manager, shared with the signal
// handlers and read by the other modules.
#include "core/core.h"

volatile uint32_t g_tick = 0;
volatile sig_atomic_t g_connected = 0;
volatile sig_atomic_t g_dial = 0;
volatile sig_atomic_t g_ndis_mode = 0;
volatile sig_atomic_t g_reinit_req = 0;
int g_link_lost = 0;
int g_idle_timeout = 0;
int g_idle_started = 0;
uint32_t g_idle_last_tx = 0;
uint32_t g_idle_secs = 0;
int g_demand_dial = 0;
volatile sig_atomic_t g_manual_connect = 0;
volatile sig_atomic_t g_connected_mark = 0;
volatile sig_atomic_t g_manual_connect_busy = 0;
volatile sig_atomic_t g_timer_armed = 0;
char g_acIfname[kIfnameSize];
char g_acPidpath[kPathSize];
char g_acProfilepath[kPathSize];
sigjmp_buf wds_restart_point;
qmi_event_queue_t qmi_event_queue;
