// Placeholder until the QMI transport lands: every wait fails.
#include "qmi/qmi.h"

int qmitty_fd = -1;
volatile uint8_t g_wait_ticks = 0;

int get_wds_client_id() { return -1; }
int send_msg(const uint8_t*, int) { return -1; }
int read_msg(const qmi_expect*, uint8_t) { return -1; }
int wait_srvc_status_ind(uint8_t) { return -1; }
