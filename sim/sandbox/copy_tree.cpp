// SPDX-License-Identifier: ISC
#include "sim/sandbox/copy_tree.h"

#include <dirent.h>
#include <sys/stat.h>

#include "sim/sandbox/files.h"

namespace sandbox {

void copy_tree(const std::string& from, const std::string& to) {
  DIR* d = opendir(from.c_str());
  if (!d) return;
  mkdir(to.c_str(), 0755);
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    std::string src = from + "/" + name, dst = to + "/" + name;
    struct stat st;
    if (lstat(src.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      copy_tree(src, dst);
    } else if (S_ISREG(st.st_mode)) {
      try {
        write_file(dst, read_file(src));
      } catch (...) {
        // One unreadable file does not spoil the copy of the others.
      }
    }
  }
  closedir(d);
}

}  // namespace sandbox
