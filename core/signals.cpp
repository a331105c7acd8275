// SPDX-License-Identifier: ISC
// Signal handlers, and their installation: the handlers only set flags or
// leave through the restart point.
#include "core/core.h"

namespace {

constexpr int kSigConnectedMark = 36;
constexpr int kSigManualConnect = 37;
constexpr int kSigReinit = 38;

struct handler_entry {
  int sig;
  void (*handler)(int);
};

// Installation order matters only for which failure is reported first.
constexpr handler_entry kHandlers[] = {
    {SIGHUP, wds_term_handle},     {SIGINT, wds_term_handle},    {SIGTERM, wds_term_handle},
    {SIGCHLD, wds_chld_handle},    {SIGUSR1, wds_term_handle2},  {SIGUSR2, wds_term_handle2},
    {SIGABRT, wds_term_handle2},   {SIGFPE, wds_term_handle2},   {SIGILL, wds_term_handle2},
    {SIGPIPE, wds_term_handle2},   {SIGQUIT, wds_term_handle2},  {SIGSEGV, wds_term_handle2},
    {SIGBUS, wds_term_handle2},    {SIGIO, wds_term_handle2},    {SIGPROF, wds_term_handle2},
    {SIGSYS, wds_term_handle2},    {SIGTRAP, wds_term_handle2},  {SIGVTALRM, wds_term_handle2},
    {SIGXCPU, wds_term_handle2},   {SIGXFSZ, wds_term_handle2},
};

constexpr handler_entry kRealtimeHandlers[] = {
    {kSigManualConnect, wds_manual_connect_handle},
    {kSigConnectedMark, wds_connected_mark_handle},
    {kSigReinit, wds_reinit_handle},
};

void install_handler(const handler_entry& entry) {
  struct sigaction action = {};
  action.sa_handler = entry.handler;
  sigfillset(&action.sa_mask);
  action.sa_flags = 0;  // no restart: every signal must end a blocking call
  if (sigaction(entry.sig, &action, nullptr) != 0) {
    MAIN_ERROR("Couldn't establish signal handl (%d)", entry.sig);
    wds_exit();
  }
}

}  // namespace

void wds_install_signal_handlers() {
  for (const auto& entry : kHandlers) install_handler(entry);
  signal(SIGPIPE, SIG_IGN);  // cannot fail for a valid signal
  for (const auto& entry : kRealtimeHandlers) install_handler(entry);
}

void wds_term_handle(int /*sig*/) { siglongjmp(wds_restart_point, 1); }

// The fault signals leave the same way as a request to stop.
void wds_term_handle2(int /*sig*/) { siglongjmp(wds_restart_point, 1); }

// Empty on purpose: the delivery alone wakes the main loop from sigsuspend.
void wds_chld_handle(int /*sig*/) {}

void wds_manual_connect_handle(int /*sig*/) {
  if (!g_connected) {
    g_manual_connect = 1;
  } else {
    g_manual_connect_busy = 1;  // logged by the main loop, not from here
  }
}

void wds_connected_mark_handle(int /*sig*/) {
  if (g_connected) g_connected_mark = 1;
}

void wds_reinit_handle(int /*sig*/) { g_reinit_req = 1; }

void wds_report_signal_notes() {
  if (g_manual_connect_busy) {
    g_manual_connect_busy = 0;
    MAIN_INFO("wds_manual_connect_handle : connected or connecting\n");
  }
}
