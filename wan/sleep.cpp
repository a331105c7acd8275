// SPDX-License-Identifier: ISC
// The one sleep that outlasts the tick: select() on no descriptors, resumed
// with the time that remains.
#include <sys/select.h>
#include <time.h>

#include <cerrno>

#include "wan/wan.h"

int64_t wait_deadline_us(unsigned ms) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000 + static_cast<int64_t>(ms) * 1000;
}

bool wait_time_left(int64_t deadline_us, timeval* left) {
  const int64_t us = deadline_us - wait_deadline_us(0);
  if (us <= 0) return false;
  left->tv_sec = static_cast<time_t>(us / 1000000);
  left->tv_usec = static_cast<suseconds_t>(us % 1000000);
  return true;
}

int msleep(unsigned ms) {
  const int64_t deadline = wait_deadline_us(ms);
  struct timeval timeout;
  timeout.tv_sec = ms / 1000;
  timeout.tv_usec = (ms % 1000) * 1000;
  // A tick does not cut the sleep short: it goes on for the time that remains.
  while (select(0, nullptr, nullptr, nullptr, &timeout) < 0) {
    if (errno != EINTR) {
      MAIN_ERROR("msleep : select error \n");
      break;
    }
    if (!wait_time_left(deadline, &timeout)) break;
  }
  return 0;
}
