#include "server/cleanup.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sys/wait.h>
#include <unistd.h>

#include "lib/signal_safe.h"
#include "procman/requests.h"

namespace {

constexpr const char* kRemoveOutputFiles[] = {
    "rm /tmp/kolta-execute-stdout.* 2>/dev/null",
    "rm /tmp/kolta-execute-stderr.* 2>/dev/null",
    "rm /tmp/kolta-system-stdout.* 2>/dev/null",
    "rm /tmp/kolta-system-stderr.* 2>/dev/null",
};

// system(3) from a signal handler: only fork, exec and waitpid. As in
// system(3), SIGCHLD is held while the command runs, so that the shell is
// collected here and not by the child reaper.
void run_shell(const char* command) {
  sigset_t chld, saved;
  sigemptyset(&chld);
  sigaddset(&chld, SIGCHLD);
  sigprocmask(SIG_BLOCK, &chld, &saved);
  pid_t pid = fork();
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
  }
  if (pid > 0) {
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  sigprocmask(SIG_SETMASK, &saved, nullptr);
}

void sleep_seconds(int seconds) {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += seconds;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
  }
}

}  // namespace

void kolta_cleanup(int /*sig*/) {
  // The child reaper stays in force: the process manager's exit, and that of
  // any worker ending meanwhile, is logged as every other.
  const int pid = getpid();
  signal_safe_print(STDOUT_FILENO, "\nKOLTA-%d: Cleaning up...\n", pid);
  for (const char* command : kRemoveOutputFiles) run_shell(command);
  signal_safe_print(STDOUT_FILENO, "\nKOLTA-%d: sending shutdown to the processmanager ..\n", pid);
  if (gProcessManagerPid != 0) kill(gProcessManagerPid, SIGTERM);
  sleep_seconds(2);
  if (gProcessManagerPid != 0) kill(gProcessManagerPid, SIGKILL);
  signal_safe_print(STDOUT_FILENO, "\nKOLTA-%d: cleanup done.\n", pid);
  _exit(0);
}

void install_cleanup_handlers() {
  struct sigaction sa {};
  sa.sa_handler = kolta_cleanup;
  sigemptyset(&sa.sa_mask);
  sigaddset(&sa.sa_mask, SIGTERM);
  sigaddset(&sa.sa_mask, SIGHUP);
  sigaddset(&sa.sa_mask, SIGINT);
  sa.sa_flags = SA_RESTART;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGHUP, &sa, nullptr);
  sigaction(SIGINT, &sa, nullptr);
}

void st_exit() { std::printf("Exiting slave : %d\n", getpid()); }
