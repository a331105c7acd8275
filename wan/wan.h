// SPDX-License-Identifier: ISC
// The shared low layer: the records and values every subsystem of the daemon
// may use, the connection manager's state that the others read, the fixed
// paths, and the control-file and sleep helpers. It includes no subsystem.
#pragma once
#include <sys/time.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "log/log.h"

// The connection manager and the link module log as "main".
inline constexpr char kMainModule[] = "main";
#define MAIN_INFO(fmt, ...) WDS_INFO(kMainModule, fmt __VA_OPT__(,) __VA_ARGS__)
#define MAIN_ERROR(fmt, ...) WDS_ERROR(kMainModule, fmt __VA_OPT__(,) __VA_ARGS__)

// ---- Records -----------------------------------------------------------------

inline constexpr size_t kProfileTextSize = 65;       // up to 64 characters and the terminator
inline constexpr size_t kProfileShortTextSize = 16;  // up to 15

// IPv4 settings of a call. In `link_settings` the addresses are in network
// byte order; the NDIS DHCP result uses the same layout with host-order
// numbers.
struct link_settings_t {
  char username[kProfileTextSize];
  uint8_t auth_pref;
  uint32_t primary_dns;
  uint32_t secondary_dns;
  uint32_t ipv4_addr;
  uint32_t subnet_mask;
  uint32_t gateway;
};
static_assert(offsetof(link_settings_t, auth_pref) == 65 && offsetof(link_settings_t, primary_dns) == 68 &&
              offsetof(link_settings_t, gateway) == 84 && sizeof(link_settings_t) == 88);
extern link_settings_t link_settings;

// Dial profile, parsed from "/var/wan/<ifname>/config".
struct wan_profile_t {
  char dialnumber[kProfileTextSize];
  char username[kProfileTextSize];
  char password[kProfileTextSize];
  char apn[kProfileTextSize];
  char ip[kProfileShortTextSize];
  uint32_t auth;
  char dial_mode[kProfileShortTextSize];
  uint32_t idletime;
  uint32_t mru;
};
extern wan_profile_t wan_profile;

// ---- Values ------------------------------------------------------------------

enum wds_state : int {
  WDS_STATE_INIT = 0,
  WDS_STATE_READY = 1,
  WDS_STATE_CONNECTING = 2,
  WDS_STATE_CONNECTED = 3,
  WDS_STATE_DISCONNECTED = 4,
  WDS_STATE_IDLE = 5,
  WDS_STATE_EXIT = 6,
};
// The log line of each state, indexed by its value.
inline constexpr const char* kWdsStateNames[] = {
    "wds state : init...\n",   "wds state : ready\n",        "wds state : connecting...\n",
    "wds state : connected\n", "wds state : disconnected\n", "wds state : idle\n",
    "wds state : exit\n",
};
static_assert(std::size(kWdsStateNames) == WDS_STATE_EXIT + 1);

// Dial requests, the content of the dial file.
enum : int {
  WDS_DIAL_NONE = 0,
  WDS_DIAL_DISCONNECT = 1,
  WDS_DIAL_MANUAL = 2,
  WDS_DIAL_ALWAYS = 3,
  WDS_DIAL_DEMAND = 4,
};

// Codes of the status file.
enum : int {
  WDS_STATUS_READY = 0,
  WDS_STATUS_CONNECTED = 3,
  WDS_STATUS_DISCONNECTED = 6,
};

// ---- Connection manager state read by the other subsystems ----------------------

inline constexpr size_t kIfnameSize = 68;
extern char g_acIfname[kIfnameSize];   // "rmnet0" or "rmnet_tarvek0", chosen by bring-up
extern volatile sig_atomic_t g_dial;       // last dial request read
extern volatile sig_atomic_t g_connected;  // the link is up
extern volatile sig_atomic_t g_ndis_mode;  // 1: AT commands, 0: QMI
extern int g_demand_dial;                  // outgoing traffic seen while down in demand mode

// Process-start values of everything above, the two records included.
void wan_reset();

// ---- Fixed paths -------------------------------------------------------------
// The log's own file is named by the log, which is below this layer.

namespace wds_paths {
inline constexpr char kQmiTty[] = "/dev/qmitty0";
inline constexpr char kDatacardChip[] = "/proc/proc_user_datacardchip";
inline constexpr char kProcNetDev[] = "/proc/net/dev";

// Small files under /var/log, by name: the AT replies saved there, and the
// two query results, written and read back under these names.
inline constexpr char kVarLogFileFmt[] = "/var/log/%s";
inline constexpr char kDhcpResultName[] = "dhcp_result";
inline constexpr char kIpv6CapName[] = "ipv6cap";

// Per-interface control directory: each file by its name under
// /var/wan/<ifname>/, the path built with kWanFileFmt.
inline constexpr char kWanFileFmt[] = "/var/wan/%s/%s";
inline constexpr char kWanConfig[] = "config";
inline constexpr char kWanDial[] = "dial";
inline constexpr char kWanStatus[] = "status";
inline constexpr char kWanPid[] = "pid";
inline constexpr char kWanIpaddr[] = "ipaddr";
inline constexpr char kWanMask[] = "mask";
inline constexpr char kWanGateway[] = "gateway";
inline constexpr char kWanDns[] = "dns";
inline constexpr char kWanTcpMss[] = "pppc_tcp_mss";
}  // namespace wds_paths

// The daemon's name on the platform message bus.
inline constexpr char kQmiBusName[] = "qmi";

// Paths, file texts and command lines built at each use are cut to this.
inline constexpr size_t kTextBufSize = 128;

// ---- Helpers -----------------------------------------------------------------

// Opens a file the daemon writes under /var with `flags` (access mode and
// O_TRUNC or O_APPEND), created if absent as fopen creates it (0666 less the
// umask). A symbolic link at the path is refused (ELOOP), not followed; the
// descriptor is closed on exec. The descriptor, or -1 with errno set.
int var_file_open(const char* path, int flags);
// Opens for reading a file the daemon wrote under /var and reads back, with
// the same refusal of a link; the descriptor, or -1 with errno set.
int var_file_open_read(const char* path);
// Writes `text` and then `end` with one call; the result is not checked.
void var_file_write(int fd, const char* text, const char* end);
// Replaces the file's content with `text` and a newline; 0, or -1 (logged)
// when it cannot be opened.
int WriteToFile(const char* path, const char* text);
// The status file of g_acIfname; 0 whatever the write did.
int wds_status_write(int code);
// Sleeps the whole `ms` although ticks interrupt it; 0.
int msleep(unsigned ms);
// Waits in select() that a tick interrupts resume with the time left until
// their deadline, taken from the monotonic clock: not every C library
// leaves the remaining time in select's time-out (musl's does not).
int64_t wait_deadline_us(unsigned ms);
// The time left until `deadline_us` as a select() time-out; false once it has passed.
bool wait_time_left(int64_t deadline_us, timeval* left);
// Appends formatted text to the terminated text in `size` bytes, cut to fit.
__attribute__((format(printf, 3, 4))) void text_append(char* text, size_t size, const char* fmt, ...);
