#include "procman/requests.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string_view>
#include <sys/msg.h>
#include <sys/time.h>
#include <unistd.h>

#include "lib/bounded.h"

pid_t gProcessManagerPid = 0;

namespace {

void wake_up(int /*sig*/) {}

bool task_alive() { return gProcessManagerPid == 0 || ::kill(gProcessManagerPid, 0) == 0; }

// While a worker waits on the queue, a one-second timer interrupts the wait
// so that a task that has gone away is noticed; a live task is waited for
// however long it takes.
class task_watch {
 public:
  task_watch() {
    struct sigaction wake {};
    wake.sa_handler = wake_up;
    sigemptyset(&wake.sa_mask);
    sigaction(SIGALRM, &wake, &saved_action_);
    itimerval every_second{{1, 0}, {1, 0}};
    setitimer(ITIMER_REAL, &every_second, &saved_timer_);
  }
  ~task_watch() {
    setitimer(ITIMER_REAL, &saved_timer_, nullptr);
    sigaction(SIGALRM, &saved_action_, nullptr);
  }
  task_watch(const task_watch&) = delete;
  task_watch& operator=(const task_watch&) = delete;

  // Whether a wait interrupted with `error` should go on.
  static bool keep_waiting(int error) { return error == EINTR && task_alive(); }

 private:
  struct sigaction saved_action_ {};
  itimerval saved_timer_{};
};

pm_msg new_request(pm_command cmd) {
  pm_msg msg{};
  msg.mtype = kPmRequestType;
  msg.body.request.sender_pid = getpid();
  msg.body.request.cmd = cmd;
  return msg;
}

pm_msg new_pid_request(pm_command cmd, int pid) {
  pm_msg msg = new_request(cmd);
  msg.body.request.target_pid = pid;
  return msg;
}

// The error texts of one call: msgget, msgsnd and msgrcv failures.
struct failure_texts {
  const char* get;
  const char* send;
  const char* receive;
};

// Sends `request` and receives the answer. Returns 0, or -4, -1, -2 with the
// matching text in `err`.
int transact(pm_msg* request, pm_msg* answer, const failure_texts& texts, char (&err)[kPmTextSize]) {
  int queue = msgget(kPmQueueKey, kPmQueueFlags);
  if (queue < 0) {
    bounded_copy(err, texts.get);
    return -4;
  }
  task_watch watch;
  while (msgsnd(queue, request, kPmBodySize, 0) != 0) {
    if (!task_watch::keep_waiting(errno)) {
      bounded_copy(err, texts.send);
      return -1;
    }
  }
  while (msgrcv(queue, answer, kPmBodySize, getpid(), 0) < 0) {
    if (!task_watch::keep_waiting(errno)) {
      bounded_copy(err, texts.receive);
      return -2;
    }
  }
  return 0;
}

}  // namespace

int pm_launch_process(const char* cmd, const char* args, const char* env_path,
                      char (&err)[kPmTextSize]) {
  pm_msg request = new_request(kPmLaunch);
  bounded_copy(request.body.request.env_path, env_path);
  bounded_copy(request.body.request.cmd_path, cmd);
  bounded_copy(request.body.request.args, args);
  std::fflush(stdout);
  pm_msg answer{};
  int r = transact(&request, &answer,
                   {"FATAL: Error in msgget", "PM_LAUNCH: Error in msgsnd.\n",
                    "PM_LAUNCH: error in msgrcv !"},
                   err);
  if (r != 0) return r;
  if (answer.body.launch.failed != 0) {
    copy_field(err, answer.body.launch.text);
    return -3;
  }
  return answer.body.launch.pid;
}

int pm_kill_process(int pid, int* state, char (&err)[kPmTextSize], int* exit_code,
                    char (&stdout_file)[kPmPathSize], char (&stderr_file)[kPmPathSize]) {
  pm_msg request = new_pid_request(kPmKill, pid);
  pm_msg answer{};
  int r = transact(&request, &answer,
                   {"FATAL: Error in msgget", "Error in msgsnd.\n", "PM: error in msgrcv !"}, err);
  if (r != 0) return r;
  const pm_kill_answer& a = answer.body.kill;
  *state = a.state;
  *exit_code = a.exit_code;
  copy_field(err, a.text);
  copy_field(stdout_file, a.stdout_file);
  copy_field(stderr_file, a.stderr_file);
  return a.failed;
}

int pm_process_state(int pid, int* state, char (&text)[kPmTextSize], char (&cmd_path)[kPmPathSize],
                     char (&args)[kPmPathSize], char (&env_path)[kPmEnvPathSize],
                     char (&stdout_file)[kPmPathSize], char (&stderr_file)[kPmPathSize],
                     int* exit_code) {
  pm_msg request = new_pid_request(kPmStateQuery, pid);
  pm_msg answer{};
  int r = transact(&request, &answer,
                   {"FATAL: Error in msgget", "FATAL: Error in msgsnd.\n",
                    "FATAL: error in msgrcv !"},
                   text);
  if (r != 0) return r;
  const pm_state_answer& a = answer.body.state;
  copy_field(text, a.text);
  if (a.state == kStateUnknown) return -3;
  *state = a.state;
  *exit_code = a.exit_code;
  copy_field(cmd_path, a.cmd_path);
  copy_field(args, a.args);
  copy_field(env_path, a.env_path);
  copy_field(stdout_file, a.stdout_file);
  copy_field(stderr_file, a.stderr_file);
  return 0;
}

void pm_process_remove(int pid) {
  int queue = msgget(kPmQueueKey, kPmQueueFlags);
  if (queue < 0) {
    std::fputs("PM_PROCESS_REMOVE: Error in msgget\n", stderr);
    return;
  }
  pm_msg request = new_pid_request(kPmRemove, pid);
  if (msgsnd(queue, &request, kPmBodySize, 0) != 0) {
    std::fputs("PM_PROCESS_REMOVE: Error in msgsnd\n", stderr);
  }
}
