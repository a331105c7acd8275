// SPDX-License-Identifier: ISC
// NDIS-mode AT operations: dial and hang-up, the DHCP and IPv6 capability
// queries, and the few settings commands the modem offers.
#include <cstdio>
#include <cstring>

#include "at/internal.h"

namespace {

constexpr int kBuiltCommandSize = 256;
constexpr int32_t kDialTimeout = 30;
constexpr int32_t kSettingTimeout = 3;
constexpr int32_t kQueryTimeout = 30;
constexpr int kDialMode = 1;  // ndis_dup_request's mode for a dial; any other hangs up
constexpr int kDhcpSkipMode = 2;

// A value the modem takes as a quoted field, inserted unchanged: an empty or
// missing one leaves the field empty.
void command_append_field(char (&command)[kBuiltCommandSize], const char* value, size_t max_len) {
  if (value != nullptr && value[0] != '\0') {
    text_append(command, sizeof command, ",\"%.*s\"", static_cast<int>(max_len), value);
  } else {
    text_append(command, sizeof command, ",");
  }
}

// Fills and sends one command; 0 only when the modem answered "OK". The
// reply stays in *req.
int at_run_command(at_request* req, const char* command, const char* prefix, int32_t timeout, int* err) {
  memset(req, 0, sizeof *req);
  req->seq = at_next_seq();
  req->kind = kAtKind;
  req->single_pass = 0;
  req->save_to_file = 0;
  req->timeout = timeout;
  snprintf(req->body.in.command, sizeof req->body.in.command, "%s", command);
  if (prefix != nullptr) snprintf(req->body.in.reply_prefix, sizeof req->body.in.reply_prefix, "%s", prefix);
  if (at_send_command(req, err) != 0 || req->body.out.result != AT_RESULT_OK) return -1;
  return 0;
}

// A settings command: no reply lines of its own.
int at_run_setting(const char* command, int32_t timeout, int* err) {
  if (err == nullptr) return -1;
  *err = 0;
  at_request req;
  return at_run_command(&req, command, nullptr, timeout, err);
}

// The queries pass their reply through a file under /var/log that the fetch
// reads back.
int at_run_query(const char* command, const char* prefix, const char* file_name, int* err) {
  if (err == nullptr) return -1;
  *err = 0;
  at_request req;
  if (at_run_command(&req, command, prefix, kQueryTimeout, err) != 0) return -1;
  write_var_log_file(file_name, "%s", req.body.out.response);
  return 0;
}

int read_query_result(const char* file_name, char (&text)[kAtSmallFileSize]) {
  char path[kTextBufSize];
  snprintf(path, sizeof path, wds_paths::kVarLogFileFmt, file_name);
  return read_small_file(path, text);
}

}  // namespace

int ndis_dup_request(int mode, const wan_profile_t* profile, int* err) {
  if (err == nullptr) return -1;
  if (mode == kDialMode && profile == nullptr) return -1;
  *err = 0;

  char command[kBuiltCommandSize] = {};
  if (mode != kDialMode) {
    snprintf(command, sizeof command, "AT^NDISDUP=%d,%d", 1, 0);
  } else {
    snprintf(command, sizeof command, "AT^NDISDUP=%d,%d", 1, 1);
    command_append_field(command, profile->apn, sizeof profile->apn - 1);
    command_append_field(command, profile->username, sizeof profile->username - 1);
    command_append_field(command, profile->password, sizeof profile->password - 1);
    if (profile->auth == 1 || profile->auth == 2) {
      text_append(command, sizeof command, ",%d", static_cast<int>(profile->auth));
    }
  }
  at_request req;
  return at_run_command(&req, command, "^NDISDUP", kDialTimeout, err);
}

int ndis_at_connect(const wan_profile_t* profile) {
  int err = 0;
  return ndis_dup_request(kDialMode, profile, &err) == 0 ? 0 : -1;
}

int ndis_at_disconnect() {
  int err = 0;
  return ndis_dup_request(0, nullptr, &err) == 0 ? 0 : -1;
}

int ndis_add_request(const char* first, const char* second, const char* third, int* err) {
  if (err == nullptr || third == nullptr) return -1;
  *err = 0;
  char command[kBuiltCommandSize] = {};
  snprintf(command, sizeof command, "AT^NDISADD=%d", 0);
  command_append_field(command, first, sizeof command);
  command_append_field(command, second, sizeof command);
  if (third[0] != '\0') command_append_field(command, third, sizeof command);
  at_request req;
  return at_run_command(&req, command, "^NDISADD", kDialTimeout, err);
}

int at_enable_cme_errors(int* err) { return at_run_setting("AT+CMEE=1", kSettingTimeout, err); }

int at_echo_off(int* err) { return at_run_setting("ATE0", kSettingTimeout, err); }

int at_set_curc(int* err, int on) { return at_run_setting(on != 0 ? "at^curc=01" : "at^curc=00", kQueryTimeout, err); }

int at_query_dhcp(int* err) { return at_run_query("AT^DHCP?", "^DHCP", wds_paths::kDhcpResultName, err); }

int at_query_ipv6cap(int* err) { return at_run_query("AT^IPV6CAP?", "^IPV6CAP", wds_paths::kIpv6CapName, err); }

int ndis_get_dhcp_result(link_settings_t* record, int mode) {
  if (record == nullptr) return -1;
  if (mode == kDhcpSkipMode) return 0;
  int err = 0;
  if (at_query_dhcp(&err) != 0) return -1;
  char text[kAtSmallFileSize];
  if (read_query_result(wds_paths::kDhcpResultName, text) != 0) return -1;
  return parse_dhcp_reply(text, record);
}

int ndis_get_ipv6cap(int* capability) {
  if (capability == nullptr) return -1;
  *capability = 0;
  int err = 0;
  if (at_query_ipv6cap(&err) != 0) return -1;
  char text[kAtSmallFileSize];
  if (read_query_result(wds_paths::kIpv6CapName, text) != 0) return -1;
  return parse_ipv6cap_reply(text, capability);
}
