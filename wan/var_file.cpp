// SPDX-License-Identifier: ISC
// Files the daemon writes under /var, opened with descriptors: no stdio
// stream, so no heap, on the paths that run every tick.
#include <fcntl.h>
#include <sys/uio.h>

#include <cstring>

#include "wan/wan.h"

namespace {
// What fopen gives a file it creates: read and write for all, less the umask.
constexpr mode_t kCreateMode = 0666;
}  // namespace

int var_file_open(const char* path, int flags) {
  // These paths are written as root: a link planted there must not redirect
  // the write. No command the daemon runs needs the descriptor.
  return open(path, flags | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kCreateMode);
}

int var_file_open_read(const char* path) {
  // A link planted there would hand the daemon another file's content as
  // its own: refused as the write refuses it.
  return open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
}

void var_file_write(int fd, const char* text, const char* end) {
  iovec parts[] = {{const_cast<char*>(text), strlen(text)}, {const_cast<char*>(end), strlen(end)}};
  // One call, as the stream's flush was: a reader never sees the text
  // without its end. Short lines on a local file: the result is not checked.
  ssize_t ignored = writev(fd, parts, 2);
  (void)ignored;
}
