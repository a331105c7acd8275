// SPDX-License-Identifier: ISC
// One AT command, one outcome: the modem's output is taken from the receive
// ring, assembled into lines and sorted into reply lines, a final result and
// unsolicited reports.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "at/internal.h"
#include "platform/platform.h"

volatile uint32_t g_at_ticks = 0;
uint32_t g_at_seq = 0;
int g_at_wait_state = AT_WAIT_PARSE;
int g_at_cr = AT_CR_NONE;
char g_at_line_acc[kAtAccumulatorSize] = {};

namespace {

// The prefix of a wait without reply lines of its own.
constexpr char kAtNoPrefix[] = "REP_CMD";
constexpr int32_t kDefaultTimeout = 30;
constexpr int32_t kDrainTimeout = 10;
constexpr int kSavePathSize = 512;
constexpr int kRemoveCmdSize = 518;

struct at_code_text {
  int code;
  const char* text;
};

// Matched by substring in this order, so "+CME ERROR" wins over "ERROR".
constexpr at_code_text at_final_results[] = {
    {AT_RESULT_OK, "OK"},
    {AT_RESULT_CME_ERROR, "+CME ERROR"},
    {AT_RESULT_CMS_ERROR, "+CMS ERROR"},
    {AT_RESULT_ERROR, "ERROR"},
    {AT_RESULT_NO_CARRIER, "NO CARRIER"},
    {AT_RESULT_NO_ANSWER, "NO ANSWER"},
    {AT_RESULT_NOT_SUPPORTED, "COMMAND NOT SUPPORT"},
    {AT_RESULT_TOO_MANY_PARAMETERS, "TOO MANY PARAMETERS"},
    {-1, nullptr},
};

// Matched by substring in this order, so "+CMTI" wins over "+CMT".
constexpr at_code_text at_unsolicited_reports[] = {
    {0, "^BOOT"},       {1, "+CMTI"},      {2, "+CMT"},           {3, "+CDSI"},   {4, "^SMMEMFULL"},
    {5, "RING"},        {6, "CONNECT"},    {7, "+CLIP"},          {8, "^SRVST"},  {9, "^SIMST"},
    {10, "^MODE"},      {11, "^RSSI"},     {12, "^DSFLOWRPT"},    {13, "+CREG"},  {14, "^CEND"},
    {15, "^CONN"},      {16, "^CONF"},     {17, "^ORIG"},         {18, "^EARST"}, {19, "+CCWA"},
    {20, "+CSSI"},      {21, "+CSSU"},     {22, "+COLP"},         {24, "^MMIENTER"},
    {25, "^ANSWER"},    {26, "^ROUTESHUTDOWN"}, {28, "^NDISSTAT"},
    {-1, nullptr},
};

constexpr size_t kMaxLineLen = kAtAccumulatorSize - 1;

int table_lookup(const at_code_text* table, const char* line) {
  for (const at_code_text* entry = table; entry->text != nullptr; ++entry) {
    if (text_contains(line, entry->text)) return entry->code;
  }
  return -1;
}

bool ring_has_bytes() { return at_rx_ring.set_up != 0 && at_rx_ring.rpos != at_rx_ring.wpos; }

// Takes bytes from the ring straight into the line accumulator, one at a
// time, up to the end of a line. True when the line ended; false when the
// ring ran empty first (the partial line then waits in the accumulator).
//
// A CR is not stored: the byte after it decides. LF ends the line; any other
// byte, a second CR included, is stored. A CR that was the last byte of a
// pass stays pending, and the next pass's first byte settles it: LF ends the
// line, a CR is a new CR of its own, any other byte is stored.
bool collect_line() {
  size_t len = strnlen(g_at_line_acc, kMaxLineLen);
  uint8_t c;
  while (at_ring_take(&c) == 0) {
    if (c == '\r' && g_at_cr != AT_CR_TAKEN) {
      g_at_cr = AT_CR_TAKEN;
      continue;
    }
    if (c == '\n' && g_at_cr != AT_CR_NONE) {
      g_at_cr = AT_CR_NONE;
      return true;
    }
    if (len < kMaxLineLen) {
      g_at_line_acc[len++] = static_cast<char>(c);
      g_at_line_acc[len] = '\0';
    }
    g_at_cr = AT_CR_NONE;
  }
  if (g_at_cr == AT_CR_TAKEN) g_at_cr = AT_CR_PENDING;
  return false;
}

struct save_file {
  int fd = -1;
  char path[kSavePathSize] = {};
  ~save_file() {
    if (fd >= 0) close(fd);
  }
};

}  // namespace

void at_response_reset() {
  g_at_ticks = 0;
  g_at_seq = 0;
  g_at_wait_state = AT_WAIT_PARSE;
  g_at_cr = AT_CR_NONE;
  g_at_line_acc[0] = '\0';
}

void at_tick() { g_at_ticks = g_at_ticks + 1; }

uint32_t at_next_seq() {
  g_at_seq = (g_at_seq > 255) ? 0 : g_at_seq + 1;
  return g_at_seq;
}

int at_find_final_result(const char* line, int* code) {
  const int found = table_lookup(at_final_results, line);
  if (found < 0) return -1;
  *code = found;
  return 0;
}

int at_find_unsolicited(const char* line, int* code) {
  *code = -1;
  if (text_contains(line, ">")) return 0;  // the text-input prompt, among others
  if (line[0] != '^' && line[0] != '+' && !text_contains(line, "RING") && !text_contains(line, "CONNECT")) return -1;
  *code = table_lookup(at_unsolicited_reports, line);
  return 0;
}

int at_assemble_lines(at_request* req) {
  at_reply_out& out = req->body.out;
  save_file save;
  if (req->save_to_file == 1) {
    // The prefix copy is terminated by the wait: "+CMGL" gives /var/log/CMGL.
    const char* name = out.prefix[0] != '\0' ? out.prefix + 1 : out.prefix;
    snprintf(save.path, sizeof save.path, wds_paths::kVarLogFileFmt, name);
    save.fd = var_file_open(save.path, O_RDWR | O_APPEND);
    if (save.fd < 0) return -1;
  }

  for (;;) {
    if (!collect_line()) return -1;
    if (g_at_line_acc[0] == '\0') continue;  // empty line

    const char* line = g_at_line_acc;
    if (text_contains(line, "+CMGR") || text_contains(line, "+CMGL") || text_contains(line, "^CMGR")) {
      text_append(g_at_line_acc, sizeof g_at_line_acc, "\r\n");
    }

    int code;
    bool reply_line = text_contains(g_at_line_acc, out.prefix);
    if (!reply_line && at_find_final_result(g_at_line_acc, &code) == 0) {
      out.result = static_cast<uint32_t>(code);
      if (save.fd >= 0) {
        if (code == AT_RESULT_OK) {
          snprintf(out.response, sizeof out.response, "%s", save.path);
        } else {
          char remove_cmd[kRemoveCmdSize];
          snprintf(remove_cmd, sizeof remove_cmd, "rm -f %s", save.path);
          ZUN_UTIL_ExecCmdNoHang(remove_cmd);  // a file left behind is rewritten by the next save
        }
      }
      // The caller gets the error text with its number.
      if (code == AT_RESULT_CME_ERROR || code == AT_RESULT_CMS_ERROR) {
        text_append(out.response, sizeof out.response, "%s", g_at_line_acc);
      }
      g_at_line_acc[0] = '\0';
      return 0;
    }
    if (!reply_line) reply_line = at_find_unsolicited(g_at_line_acc, &code) != 0;

    if (reply_line) {
      if (save.fd >= 0) {
        // A line that cannot be saved is lost, as one past the response's end is.
        var_file_write(save.fd, g_at_line_acc, "\r\n");
      } else {
        text_append(out.response, sizeof out.response, "%s", g_at_line_acc);
      }
    }
    g_at_line_acc[0] = '\0';
  }
}

int at_wait_response(at_request* req, int* err) {
  if (req == nullptr || err == nullptr) return -1;
  at_reply_out& out = req->body.out;
  g_at_ticks = 0;
  if (req->timeout == 0) req->timeout = kDefaultTimeout;
  const int64_t limit = req->timeout;
  out.prefix[kAtPrefixSize - 1] = '\0';
  if (out.prefix[0] == '\0') snprintf(out.prefix, sizeof out.prefix, "%s", kAtNoPrefix);
  memset(out.response, 0, sizeof out.response);
  const bool single_pass = req->single_pass == 1;
  if (single_pass) g_at_wait_state = AT_WAIT_READ;

  for (;;) {
    // Checked before every read and every pass, so a modem that keeps talking
    // without a final result still times out.
    if (limit < static_cast<int64_t>(g_at_ticks)) {
      out.result = AT_RESULT_TIMEOUT;
      *err = 1;
      return -1;
    }
    switch (g_at_wait_state) {
      case AT_WAIT_READ: {
        const int rc = at_read_into_ring();
        if (rc == ENODEV) {
          *err = ENODEV;
          return -1;
        }
        if (rc == 0) {
          g_at_wait_state = AT_WAIT_PARSE;
        } else if (single_pass) {
          g_at_wait_state = AT_WAIT_DONE;
        }
        break;
      }
      case AT_WAIT_PARSE:
        if (ring_has_bytes() && at_assemble_lines(req) == 0) {
          g_at_wait_state = AT_WAIT_DONE;
        } else {
          g_at_wait_state = single_pass ? AT_WAIT_DONE : AT_WAIT_READ;
        }
        break;
      default:
        g_at_wait_state = AT_WAIT_PARSE;
        return 0;
    }
  }
}

int at_send_command(at_request* req, int* err) {
  if (req == nullptr || err == nullptr) return -1;
  const std::string_view command(req->body.in.command, strnlen(req->body.in.command, kAtCommandSize));
  if (command.find("+CMGL") != std::string_view::npos) {
    req->body.out.result = AT_RESULT_NOT_SUPPORTED;
    return -1;
  }
  // A command filling the whole field has no terminator and is refused as too long.
  char text[kAtCommandSize + 1];
  memcpy(text, command.data(), command.size());
  text[command.size()] = '\0';
  if (at_write_command(text, err) != 0) {
    memset(req->body.raw, 0, sizeof req->body.raw);
    req->body.out.result = *err == ENODEV ? AT_RESULT_DEVICE_GONE : AT_RESULT_NOT_SUPPORTED;
    return -1;
  }

  char prefix[kAtPrefixSize];
  snprintf(prefix, sizeof prefix, "%.*s", kAtPrefixSize - 1, req->body.in.reply_prefix);
  memcpy(req->body.out.prefix, prefix, sizeof prefix);
  *err = 0;
  return at_wait_response(req, err) == 0 && req->body.out.result == AT_RESULT_OK ? 0 : -1;
}

int at_drain_reports() {
  at_request req;
  memset(&req, 0, sizeof req);
  req.kind = kAtKind;
  req.single_pass = 1;
  req.seq = at_next_seq();
  req.save_to_file = 0;
  req.timeout = kDrainTimeout;
  snprintf(req.body.in.command, sizeof req.body.in.command, "%s", kAtNoPrefix);
  snprintf(req.body.out.prefix, sizeof req.body.out.prefix, "%s", kAtNoPrefix);
  int err = 0;
  return at_wait_response(&req, &err);
}
