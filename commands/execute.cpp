#include "commands/execute.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "commands/output_fetch.h"
#include "commands/setup.h"
#include "lib/bounded.h"
#include "lib/launch.h"
#include "lib/split_args.h"
#include "lib/unique_fd.h"
#include "protocol/stream.h"
#include "lib/system_texts.h"

int gExecRC = 0;

namespace {

char gExecBuf[kOutputFetchMax + 1];

// Blocks until the program may have ended or `until` (a time() value) has
// come, whichever is first. Without a process descriptor it falls back to a
// short sleep.
void wait_for_exit_or(int pidfd, time_t until) {
  if (pidfd < 0) {
    usleep(1000);
    return;
  }
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  long long ms = (static_cast<long long>(until) - now.tv_sec) * 1000 - now.tv_nsec / 1000000;
  if (ms < 1) ms = 1;
  if (ms > INT_MAX) ms = INT_MAX;
  pollfd pfd{pidfd, POLLIN, 0};
  poll(&pfd, 1, static_cast<int>(ms));
}

// Waits for the program; ends it when it outlives the limit (SIGTERM, two
// seconds, SIGKILL, again until it has been collected). The limit is taken
// in whole seconds of time(), as an unsigned number. Returns its status.
int wait_with_limit(pid_t pid, int limit) {
  unique_fd pidfd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  const time_t start = time(nullptr);
  const unsigned long long limit_s = static_cast<unsigned>(limit);
  const time_t until = start + static_cast<time_t>(limit_s > LLONG_MAX / 2 ? LLONG_MAX / 2 : limit_s);
  int status = 0;
  for (;;) {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r != 0) return status;
    double elapsed = difftime(time(nullptr), start);
    if (elapsed < static_cast<double>(limit_s)) {
      wait_for_exit_or(pidfd.get(), until);
      continue;
    }
    std::fprintf(stderr, "TIMEOUT ! killing task (%f s)\n", static_cast<double>(static_cast<float>(elapsed)));
    kill(pid, SIGTERM);
    sleep(2);
    kill(pid, SIGKILL);
    usleep(1000);
  }
}

// Opens an output file for the reply; -1 (after the log line) when it cannot.
int open_for_reply(const char* path, const char* what) {
  int fd = open(path, O_RDONLY | O_SYNC | O_NOFOLLOW);
  if (fd <= 0) {
    if (fd == 0) close(fd);
    std::printf("ERROR opening %s !\n", what);
    return -1;
  }
  return fd;
}

}  // namespace

int execute_fn(vesk_request* request, resp_obj* resp) {
  gExecRC = 0;
  int limit = kDefaultExecuteTimeout;
  char cmd[kArgumentSize];
  char args[kArgumentSize];
  char timeout[kArgumentSize];
  svr_GetArgument(request, "cmd", cmd);
  svr_GetArgument(request, "args", args);
  if (svr_GetArgument(request, "timeout", timeout) != 0) std::sscanf(timeout, "%d", &limit);
  std::printf("%d: Execute: cmd: [%s] args: [%s] Timeout=%d s\n", getpid(), cmd, args, limit);
  std::fflush(stdout);

  char* argv[kMaxArgumentWords + 2] = {};
  argv[0] = cmd;
  split_arguments(args, std::span<char*>(argv + 1, kMaxArgumentWords));

  std::fflush(stdout);
  std::signal(SIGCHLD, SIG_DFL);
  pid_t pid = fork();
  if (pid == 0) exec_with_output_files(kExecuteStdoutFile, kExecuteStderrFile, argv);
  if (pid < 0) {
    reply_fail_format(resp, "%d: fatal error: cannot start external process", pid);
    std::fprintf(stderr, "ERROR: %s\n", resp->text);
    std::fflush(stderr);
    return 1;
  }

  int status = wait_with_limit(pid, limit);
  if ((status & 0x7f) != 0) {
    char description[kSystemTextSize];
    reply_fail_format(resp, "%d: Execution failed (%s)", pid, signal_text(status & 0x7f, description));
    return 1;
  }
  gExecRC = (status >> 8) & 0xff;
  // Any size but 0, taken as 64-bit: 4 GiB of error output is not nothing.
  struct stat err_st {};
  if (stat(kExecuteStderrFile, &err_st) == 0 && err_st.st_size != 0) gExecRC |= 1;

  if (gSetup.exec_type == kExecRod) {
    resp->type = kReplySuccess;
    return 1;
  }
  if (gSetup.exec_type != kExecRmd) return 1;

  const bool ok = gExecRC == 0;
  unique_fd fd(open_for_reply(ok ? kExecuteStdoutFile : kExecuteStderrFile, ok ? "stdout" : "stderr"));
  if (!fd.ok()) {
    reply_fail(resp, ok ? "STDOUT PIPE ERROR !" : "STDERR PIPE ERROR !");
    return 0;
  }
  if (ok) {
    resp->type = kReplyData;
    bounded_copy(resp->content_type, "text/plain");
  } else {
    reply_fail_format(resp, "RC=%d", gExecRC);
    std::memset(gExecBuf, 0, kOutputFetchMax);
  }
  ssize_t n = read(fd.get(), gExecBuf, kOutputFetchMax);
  resp->data.ptr = gExecBuf;
  resp->data.size = n > 0 ? n : 0;
  return 1;
}

int execute_getDetails_fn(vesk_request* request, resp_obj* resp) {
  return fetch_output(request, resp, {kExecuteStdoutFile, kExecuteStderrFile}, gExecRC, gExecBuf);
}
