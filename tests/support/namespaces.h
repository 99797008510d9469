// Reaching into a sandboxed daemon's namespaces from a test.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace kolta_test {

// Runs `fn` in a child process that has joined the IPC namespace of `pid`
// (where the daemon's queue is); the child's exit status, -1 on failure.
template <typename Fn>
int in_ipc_namespace(pid_t pid, Fn fn) {
  int ns = ::open(("/proc/" + std::to_string(pid) + "/ns/ipc").c_str(), O_RDONLY | O_CLOEXEC);
  if (ns < 0) return -1;
  pid_t child = fork();
  if (child == 0) {
    if (::setns(ns, CLONE_NEWIPC) != 0) _exit(255);
    _exit(fn());
  }
  ::close(ns);
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// Runs `command` through the shell in the mount namespace of `pid`; its
// exit status.
int in_mount_namespace(pid_t pid, const std::string& command);

}  // namespace kolta_test
