// SPDX-License-Identifier: ISC
// The QMI tty: whole messages out, blocks of messages in, time-outs counted
// in ticks of the daemon's interval timer.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "qmi/internal.h"

int qmitty_fd = -1;
volatile uint8_t g_wait_ticks = 0;

namespace {

// Read-write, type 'x', number 4, one byte: the driver writes the client id.
constexpr unsigned long kQmiGetClientIdIoctl = 0xC0017804UL;
static_assert(kQmiGetClientIdIoctl == _IOWR('x', 4, uint8_t));

struct response_parser {
  uint16_t msg_type;
  int (*parse)(const uint8_t* at, uint32_t avail);
  uint32_t offset;   // where the parser starts: the identifier, or the result TLV
};

constexpr response_parser kResponseParsers[] = {
    {kWdsReset, unpack_result_code, kQmiHeaderSize},
    {kWdsAbort, unpack_result_code, kQmiHeaderSize},
    {kWdsStartNetwork, parse_connect_rsp, kQmiIdOffset},
    {kWdsStopNetwork, unpack_result_code, kQmiHeaderSize},
    {kWdsPktSrvcStatus, parse_status_rsp, kQmiIdOffset},
    {kWdsRuntimeSettings, parse_runtime_rsp, kQmiIdOffset},
};

const response_parser* find_response_parser(uint16_t msg_type) {
  for (const response_parser& entry : kResponseParsers) {
    if (entry.msg_type == msg_type) return &entry;
  }
  return nullptr;
}

}  // namespace

int qmi_tty_open() {
  qmi_tty_close();
  qmitty_fd = open(wds_paths::kQmiTty, O_RDWR);
  return qmitty_fd;
}

void qmi_tty_close() {
  // Nothing is pending on the tty that a failed close could lose.
  if (qmitty_fd >= 0) close(qmitty_fd);
  qmitty_fd = -1;
}

void qmi_transport_reset() {
  qmi_tty_close();
  g_wait_ticks = 0;
}

int get_wds_client_id() {
  uint8_t client_id = 0;
  const int ret = ioctl(qmitty_fd, kQmiGetClientIdIoctl, &client_id);
  if (ret >= 0) {
    printf("\n===>%s : i_ret=%d, nId=%d, errno=%d", "get_wds_client_id", ret, client_id, errno);
    fflush(stdout);
    return client_id == 0 ? -1 : client_id;
  }
  if (errno == EBADF) {
    printf("\n===>%s : valid description %d", "get_wds_client_id", qmitty_fd);
  } else if (errno == ENOTTY) {
    printf("\n===>%s : tty doesn't exist %d", "get_wds_client_id", qmitty_fd);
  } else {
    printf("\n===>%s : unknown error, errno = %d", "get_wds_client_id", errno);
  }
  fflush(stdout);
  return -1;
}

int send_msg(const uint8_t* buf, int len) {
  if (buf == nullptr || len < 0) return -1;
  // A short write sends the whole message again: the driver takes messages,
  // not byte streams, so a remainder alone would be meaningless.
  for (;;) {
    dump_msg(buf, len);
    const ssize_t written = write(qmitty_fd, buf, static_cast<size_t>(len));
    if (written < 0) {
      if (errno == EINTR) continue;
      QMI_ERROR("tty busy or tty down.");
      return -1;
    }
    if (written == len) return 0;
    QMI_INFO("have not submit whole msg.\n");
  }
}

int read_msg(const qmi_expect* expect, uint8_t limit) {
  if (expect == nullptr) return kQmiFail;
  uint8_t buf[kQmiBufSize] = {};
  g_wait_ticks = 0;
  for (;;) {
    // Tested before every read: each tick ends a blocked read with EINTR.
    if (g_wait_ticks > limit) {
      QMI_INFO("read msg timeout, msg_type = %d\n", expect->msg_type);
      return kQmiTimeout;
    }
    const ssize_t n = read(qmitty_fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == ENODEV) {
        QMI_INFO("read msg error, errno = ENODEV\n");
        return kQmiTtyGone;
      }
      if (errno == EINTR) {
        QMI_INFO("read msg : get signal, continue\n");
        continue;
      }
      QMI_ERROR("read msg : unknown error");
      return kQmiFail;
    }
    if (n == 0) return kQmiTtyGone;

    QMI_INFO("read msg len : %dbytes\n", static_cast<int>(n));
    dump_msg(buf, static_cast<int>(n));
    const int verdict = parse_msg(buf, expect, static_cast<int>(n));
    if (verdict == kQmiMismatch) {
      // The tick count goes on: a chatty modem cannot stretch the limit.
      QMI_INFO("Continue to read MATCH MSG(0x%0x)\n", static_cast<unsigned>(expect->msg_type));
      continue;
    }
    if (verdict == kQmiUnsupported) return kQmiFail;
    return verdict;
  }
}

int parse_msg(const uint8_t* buf, const qmi_expect* expect, int n) {
  if (buf == nullptr || expect == nullptr) return kQmiFail;
  int verdict = kQmiFail;
  uint32_t offset = 0;
  // Every message must fit in what is left of the block: header first, then
  // the length it claims.
  while (n > 0) {
    const uint32_t left = static_cast<uint32_t>(n);
    const uint8_t* msg = buf + offset;
    if (left < kQmiHeaderSize) {
      QMI_INFO("msg header exceeds recv bytes(need %u, recv %u)\n", kQmiHeaderSize, left);
      return kQmiFail;
    }
    uint32_t cursor = 0;
    const uint8_t ctl_flag = get_byte(msg, &cursor);
    const uint16_t tx_id = get_word(msg, &cursor);
    const uint16_t msg_type = get_word(msg, &cursor);
    const uint16_t mlen = get_word(msg, &cursor);
    QMI_INFO("ctl flag = 0x%0x, txId = 0x%0x\n", static_cast<unsigned>(ctl_flag), static_cast<unsigned>(tx_id));
    QMI_INFO("msg type = 0x%0x, mlen = 0x%0x\n", static_cast<unsigned>(msg_type), static_cast<unsigned>(mlen));
    const uint32_t msg_size = kQmiHeaderSize + mlen;
    if (msg_size > left) {
      QMI_INFO("msg exceeds recv bytes(need %u, recv %u)\n", msg_size, left);
      return kQmiFail;
    }

    if (ctl_flag == kQmiCtlIndication) {
      QMI_INFO("receice an indication msg, handle it\n");
      int outcome = kQmiFail;
      if (msg_type == kWdsPktSrvcStatus) {
        outcome = parse_srvc_status_ind(msg + kQmiIdOffset, left - kQmiIdOffset);
      } else {
        QMI_INFO("unsupport indication msg type\n");
      }
      // Parsed either way, for the connection state; it settles only a wait
      // for an indication.
      if (expect->ctl_flag == kQmiCtlIndication) verdict = outcome;
    } else if (ctl_flag == kQmiCtlResponse) {
      if (msg_type != expect->msg_type) {
        QMI_INFO("rsp msg type(0x%04x) mismatch, expect (0x%04x)\n", static_cast<unsigned>(msg_type),
                 static_cast<unsigned>(expect->msg_type));
        verdict = kQmiMismatch;
      } else if (const response_parser* parser = find_response_parser(msg_type); parser != nullptr) {
        verdict = parser->parse(msg + parser->offset, left - parser->offset);
      } else {
        QMI_INFO("Unsupport message type : 0x%0x\n\n", static_cast<unsigned>(msg_type));
        verdict = kQmiUnsupported;
      }
    } else {
      QMI_INFO("Unsupport ctrl type : 0x%0x\n\n", static_cast<unsigned>(ctl_flag));
    }

    n -= static_cast<int>(msg_size);
    offset += msg_size;
  }
  return verdict;
}

int qmi_wait_msg(const qmi_expect* expect, uint8_t limit) {
  const int ret = read_msg(expect, limit);
  if (ret == kQmiOk || ret == kQmiTimeout) return ret;
  return kQmiFail;
}

int wait_srvc_status_ind(uint8_t limit) {
  const qmi_expect expect = {kQmiCtlIndication, 0, kWdsPktSrvcStatus};
  return qmi_wait_msg(&expect, limit);
}
