#include "procman/spawn.h"

#include <unistd.h>

#include <cstdio>

#include "lib/bounded.h"
#include "lib/launch.h"
#include "lib/split_args.h"
#include "procman/task.h"

pid_t spawn_background_process(const pm_process& rec, const pm_request& req) {
  std::fflush(stdout);  // the child must not write the task's lines again
  pid_t pid = fork();
  if (pid != 0) return pid;

  char args[kPmPathSize];
  copy_field(args, req.args);
  char* argv[kMaxArgumentWords + 2] = {};
  argv[0] = const_cast<char*>(rec.cmd);
  split_arguments(args, std::span<char*>(argv + 1, kMaxArgumentWords));

  // The same names that the task records for this pid.
  char stdout_file[kPmPathSize];
  char stderr_file[kPmPathSize];
  bounded_format(stdout_file, "/tmp/kolta-bkprocess-stdout.%d", getpid());
  bounded_format(stderr_file, "/tmp/kolta-bkprocess-stderr.%d", getpid());
  exec_with_output_files(stdout_file, stderr_file, argv);
}
