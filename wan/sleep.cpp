// The one sleep that outlasts the tick: select() on no descriptors, resumed
// with the time that remains.
#include <sys/select.h>

#include <cerrno>

#include "wan/wan.h"

int msleep(unsigned ms) {
  struct timeval timeout;
  timeout.tv_sec = ms / 1000;
  timeout.tv_usec = (ms % 1000) * 1000;
  // Linux leaves the remaining time in `timeout`, so a tick does not cut the sleep short.
  while (select(0, nullptr, nullptr, nullptr, &timeout) < 0) {
    if (errno != EINTR) {
      MAIN_ERROR("msleep : select error \n");
      break;
    }
  }
  return 0;
}
