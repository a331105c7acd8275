// SPDX-License-Identifier: ISC
// One daemon at a time. Two daemons on one modem reset each other's calls
// and read each other's answers, so a second start is refused: by a lock
// that the supervisor takes and the daemon inherits (so it stays taken while
// a daemon whose supervisor was killed lives on), and by a look for a daemon
// started some other way.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "supervise/supervise.h"

namespace {

struct running_query {
  const char* name;
  pid_t self;
};

bool is_running_daemon(void* ctx, pid_t pid, const proc_info& p) {
  const auto* q = static_cast<const running_query*>(ctx);
  return pid != q->self && p.state != 'Z' && strcmp(p.comm, q->name) == 0;
}

}  // namespace

int instance_lock(const char* path, int* fd) {
  *fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (*fd < 0) return -1;
  if (flock(*fd, LOCK_EX | LOCK_NB) == 0) return 0;
  int saved = errno;
  close(*fd);
  *fd = -1;
  errno = saved;
  return saved == EWOULDBLOCK ? 1 : -1;
}

pid_t instance_running(const char* name) {
  running_query q = {name, getpid()};
  return proc_find(is_running_daemon, &q);
}
