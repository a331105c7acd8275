// NDIS-mode AT operations: dial and hang-up, the DHCP and IPv6 capability
// queries, and the few settings commands the modem offers.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "at/at.h"
#include "core/paths.h"

namespace {

// Appends formatted text to a built command, cut at its buffer.
__attribute__((format(printf, 2, 3))) void command_append(char* command, const char* fmt, ...) {
  const size_t used = strnlen(command, kAtBuiltCommandSize - 1);
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(command + used, kAtBuiltCommandSize - used, fmt, ap);
  va_end(ap);
}

// A value the modem takes as a quoted field, inserted unchanged: an empty or
// missing one leaves the field empty.
void command_append_field(char* command, const char* value, int max_len) {
  if (value != nullptr && value[0] != '\0') {
    command_append(command, ",\"%.*s\"", max_len, value);
  } else {
    command_append(command, ",");
  }
}

// Fills and sends one command; 0 only when the modem answered "OK".
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

// The queries pass their reply through a file that the fetch reads back.
int at_run_query(const char* command, const char* prefix, const char* file_name, int* err) {
  if (err == nullptr) return -1;
  *err = 0;
  at_request req;
  if (at_run_command(&req, command, prefix, kAtQueryTimeout, err) != 0) return -1;
  write_var_log_file(file_name, "%s", req.body.out.response);
  return 0;
}

constexpr int kProfileTextMax = 64;

}  // namespace

int ndis_dup_request(int mode, const wan_profile_t* profile, int* err) {
  if (err == nullptr) return -1;
  if (mode == 1 && profile == nullptr) return -1;
  *err = 0;

  char command[kAtBuiltCommandSize] = {};
  if (mode != 1) {
    snprintf(command, sizeof command, "AT^NDISDUP=%d,%d", 1, 0);
  } else {
    snprintf(command, sizeof command, "AT^NDISDUP=%d,%d", 1, 1);
    command_append_field(command, profile->apn, kProfileTextMax);
    command_append_field(command, profile->username, kProfileTextMax);
    command_append_field(command, profile->password, kProfileTextMax);
    if (profile->auth == 1 || profile->auth == 2) command_append(command, ",%d", static_cast<int>(profile->auth));
  }
  at_request req;
  return at_run_command(&req, command, "^NDISDUP", kAtDialTimeout, err);
}

int ndis_at_connect(const wan_profile_t* profile) {
  int err = 0;
  return ndis_dup_request(1, profile, &err) == 0 ? 0 : -1;
}

int ndis_at_disconnect() {
  int err = 0;
  return ndis_dup_request(0, nullptr, &err) == 0 ? 0 : -1;
}

int ndis_add_request(const char* first, const char* second, const char* third, int* err) {
  if (err == nullptr || third == nullptr) return -1;
  *err = 0;
  char command[kAtBuiltCommandSize] = {};
  snprintf(command, sizeof command, "AT^NDISADD=%d", 0);
  command_append_field(command, first, kAtBuiltCommandSize);
  command_append_field(command, second, kAtBuiltCommandSize);
  if (third[0] != '\0') command_append_field(command, third, kAtBuiltCommandSize);
  at_request req;
  return at_run_command(&req, command, "^NDISADD", kAtDialTimeout, err);
}

int at_enable_cme_errors(int* err) {
  if (err == nullptr) return -1;
  *err = 0;
  at_request req;
  return at_run_command(&req, "AT+CMEE=1", nullptr, kAtSettingTimeout, err);
}

int at_echo_off(int* err) {
  if (err == nullptr) return -1;
  *err = 0;
  at_request req;
  return at_run_command(&req, "ATE0", nullptr, kAtSettingTimeout, err);
}

int at_set_curc(int* err, int on) {
  if (err == nullptr) return -1;
  *err = 0;
  at_request req;
  return at_run_command(&req, on != 0 ? "at^curc=01" : "at^curc=00", nullptr, kAtQueryTimeout, err);
}

int at_query_dhcp(int* err) { return at_run_query("AT^DHCP?", "^DHCP", "dhcp_result", err); }

int at_query_ipv6cap(int* err) { return at_run_query("AT^IPV6CAP?", "^IPV6CAP", "ipv6cap", err); }

int ndis_get_dhcp_result(link_settings_t* record, int mode) {
  if (record == nullptr) return -1;
  if (mode == 2) return 0;
  int err = 0;
  if (at_query_dhcp(&err) != 0) return -1;
  char text[kAtSmallFileSize];
  if (read_small_file(wds_paths::kDhcpResult, text) != 0) return -1;
  return parse_dhcp_reply(text, record);
}

int ndis_get_ipv6cap(int* capability) {
  if (capability == nullptr) return -1;
  *capability = 0;
  int err = 0;
  if (at_query_ipv6cap(&err) != 0) return -1;
  char text[kAtSmallFileSize];
  if (read_small_file(wds_paths::kIpv6Cap, text) != 0) return -1;
  return parse_ipv6cap_reply(text, capability);
}
