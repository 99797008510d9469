#include "lib/launch.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

#include "lib/planted_link.h"
#include "lib/system_texts.h"

namespace {

// A link planted at the name is removed, and never followed: the program's
// output goes into that file and nowhere else.
int open_output(const char* path, const char* what) {
  remove_planted_link(path);
  int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_SYNC | O_NOFOLLOW, 0600);
  if (fd <= 0) {
    std::printf("ERROR opening %s !", what);
    std::fflush(stdout);
    _exit(1);
  }
  return fd;
}

}  // namespace

void exec_with_output_files(const char* stdout_file, const char* stderr_file, char* const argv[]) {
  for (int sig : {SIGCHLD, SIGTERM, SIGHUP, SIGINT, SIGPIPE, SIGALRM}) std::signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);

  int out = open_output(stdout_file, "stdout");
  int err = open_output(stderr_file, "stderr");
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  if (out > STDERR_FILENO) close(out);
  if (err > STDERR_FILENO) close(err);

  execv(argv[0], argv);
  std::fprintf(stderr, "FATAL: process exited unexpected.! (%s)\n", error_text(errno));
  std::fflush(stderr);
  _exit(-1);
}
