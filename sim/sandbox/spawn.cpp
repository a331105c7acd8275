// SPDX-License-Identifier: ISC
#include "sim/sandbox/spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstring>

namespace sandbox {

std::string run_to_end(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                       const std::string& output) {
  std::vector<char*> args, envp;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  args.push_back(nullptr);
  envp.push_back(nullptr);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&files, 1, 2);
  pid_t pid;
  int rc = posix_spawn(&pid, args[0], &files, &attr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&files);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) return std::string("not run: ") + strerror(rc);
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return "lost";
  return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status)) : "signal " + std::to_string(WTERMSIG(status));
}

}  // namespace sandbox
