// The machine's floors, measured by a small process: how often it can fork,
// _exit and reap a child, and how long "/bin/sh -c true" takes when it is
// started directly. Prints "name=value" lines for tools/run-bench.sh.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace {

double now() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

bool reap(pid_t pid) {
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

}  // namespace

int main() {
  int forks = 0;
  const double start = now();
  while (now() - start < 2.0) {
    pid_t pid = fork();
    if (pid == 0) _exit(0);
    if (!reap(pid)) return 1;
    ++forks;
  }
  std::printf("fork_per_s=%.0f\n", forks / (now() - start));

  constexpr int kShells = 300;
  const double sh_start = now();
  for (int i = 0; i < kShells; ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      execl("/bin/sh", "sh", "-c", "true", static_cast<char*>(nullptr));
      _exit(127);
    }
    if (!reap(pid)) return 1;
  }
  std::printf("sh_true_ms=%.3f\n", (now() - sh_start) * 1e3 / kShells);
  return 0;
}
