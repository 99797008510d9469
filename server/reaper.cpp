#include "server/reaper.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <sys/wait.h>
#include <unistd.h>

#include "lib/signal_safe.h"
#include "lib/system_texts.h"

void reap_children_logged(const char* prefix) {
  int saved_errno = errno;
  int status = 0;
  pid_t pid;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    if (WIFSIGNALED(status)) {
      char description[kSystemTextSize];
      signal_safe_print(STDERR_FILENO, "%s: WARNING pid=%d has exited with error state=%d. (%s)\n",
                        prefix, pid, status, signal_text(status & 0x7f, description));
    } else {
      signal_safe_print(STDOUT_FILENO, "%s: pid=%d has exited normally with state=%d.\n", prefix,
                        pid, (status >> 8) & 0xff);
    }
  }
  errno = saved_errno;
}

void install_child_reaper(void (*handler)(int)) {
  struct sigaction sa {};
  sa.sa_handler = handler;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  if (sigaction(SIGCHLD, &sa, nullptr) != 0) std::printf("zombie signal\n");
}
