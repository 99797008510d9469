#include "procman/task.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/msg.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lib/bounded.h"
#include "lib/ctnr.h"
#include "lib/signal_safe.h"
#include "lib/system_texts.h"
#include "procman/spawn.h"

namespace {

ctnr_node* g_registry = nullptr;

// Requests taken off the queue to make room for an answer, served first, in
// the order they were taken: a ring that grows when it is full. There are
// never more of them than workers waiting.
struct request_backlog {
  pm_msg* items = nullptr;
  std::size_t capacity = 0;
  std::size_t first = 0;
  std::size_t count = 0;

  bool empty() const { return count == 0; }

  bool push(const pm_msg& msg) {
    if (count == capacity) {
      std::size_t grown = capacity == 0 ? 8 : capacity * 2;
      auto* bigger = static_cast<pm_msg*>(std::malloc(grown * sizeof(pm_msg)));
      if (bigger == nullptr) return false;
      for (std::size_t i = 0; i < count; ++i) bigger[i] = items[(first + i) % capacity];
      std::free(items);
      items = bigger;
      capacity = grown;
      first = 0;
    }
    items[(first + count++) % capacity] = msg;
    return true;
  }

  pm_msg pop() {
    pm_msg msg = items[first];
    first = (first + 1) % capacity;
    --count;
    return msg;
  }
};

request_backlog g_backlog;

// The requesters most recently answered: an answer that a requester did not
// live to take is looked for among them when the queue is full.
constexpr int kAnsweredKept = 64;
std::int32_t g_answered[kAnsweredKept];
int g_answered_next = 0;

constexpr int kFullQueueWaitMs = 10;

bool requester_alive(std::int32_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

// Throws away the answers of requesters that have gone: nobody will take
// them, and on a full queue they would keep every request out. True when
// there were any.
bool throw_away_gone_answers(int queue) {
  bool thrown = false;
  for (std::int32_t& pid : g_answered) {
    if (pid <= 0 || requester_alive(pid)) continue;
    pm_msg stale;
    while (msgrcv(queue, &stale, kPmBodySize, pid, IPC_NOWAIT | MSG_NOERROR) >= 0) thrown = true;
    pid = 0;
  }
  return thrown;
}

// Makes room on a full queue: moves one request into the backlog, or throws
// away the answers nobody will take. False when neither was there.
bool make_room(int queue) {
  pm_msg request;
  if (msgrcv(queue, &request, kPmBodySize, kPmRequestType, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    if (g_backlog.push(request)) return true;
    // No memory to hold it: it goes back to the end of the queue.
    msgsnd(queue, &request, kPmBodySize, IPC_NOWAIT);
    return false;
  }
  return throw_away_gone_answers(queue);
}

// While the task waits for requests, a timer wakes it every second to throw
// away answers nobody will take, which would otherwise keep requests out.
void wake_up(int /*sig*/) {}

void start_sweep_timer() {
  struct sigaction wake {};
  wake.sa_handler = wake_up;
  sigemptyset(&wake.sa_mask);
  sigaction(SIGALRM, &wake, nullptr);
  itimerval every_second{{1, 0}, {1, 0}};
  setitimer(ITIMER_REAL, &every_second, nullptr);
}

bool queue_holds_messages(int queue) {
  msqid_ds ds{};
  return msgctl(queue, IPC_STAT, &ds) == 0 && ds.msg_qnum > 0;
}

// The signals whose handlers read or change the registry. They are held
// while the loop changes the registry, so a handler always sees it whole.
sigset_t task_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

class signals_held {
 public:
  signals_held() {
    sigset_t set = task_signals();
    sigprocmask(SIG_BLOCK, &set, &saved_);
  }
  ~signals_held() { sigprocmask(SIG_SETMASK, &saved_, nullptr); }
  signals_held(const signals_held&) = delete;
  signals_held& operator=(const signals_held&) = delete;

  // Lets the held signals in for up to a second, or until the process's
  // state changes.
  void wait_one_second(const pm_process& rec) const {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += 1;
    sigprocmask(SIG_SETMASK, &saved_, nullptr);
    while (rec.state == kStateRunning &&
           clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
    sigset_t set = task_signals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
  }

 private:
  sigset_t saved_;
};

// The fields that every answer about a process carries.
template <typename Answer>
void copy_identity(Answer* a, const pm_process& rec) {
  copy_field(a->env_path, rec.env_path);
  copy_field(a->cmd_path, rec.cmd);
  copy_field(a->args, rec.args);
}

pm_process* find_process(std::int32_t pid, int* position = nullptr) {
  int pos = search_ctnr(g_registry, pm_match_pid, &pid);
  if (position != nullptr) *position = pos;
  return static_cast<pm_process*>(get_ctnr(g_registry, static_cast<std::uint32_t>(pos)));
}

void report_internal_error(int cmd) {
  std::fprintf(stderr, "%d: FATAL !! - ProcessManager internal error (CMD: %d Error: %d)!\n",
               getpid(), cmd, 1);
}

void send_answer(pm_msg* answer, std::int32_t requester, std::int32_t cmd) {
  answer->mtype = requester;
  answer->body.request.sender_pid = requester;
  answer->body.request.cmd = cmd;
  int queue = msgget(kPmQueueKey, kPmQueueFlags);
  if (queue < 0) {
    std::fputs("FATAL: Error in msgget", stderr);
    report_internal_error(cmd);
    return;
  }
  // The queue holds only a few messages. When it is full, the task makes
  // room itself (requests to its backlog, answers nobody will take thrown
  // away), or waits for the workers to take theirs. An answer is given up
  // only when its requester has gone.
  for (;;) {
    if (msgsnd(queue, answer, kPmBodySize, IPC_NOWAIT) == 0) {
      g_answered[g_answered_next] = requester;
      g_answered_next = (g_answered_next + 1) % kAnsweredKept;
      return;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN) {
      if (make_room(queue)) continue;
      if (requester_alive(requester)) {
        usleep(kFullQueueWaitMs * 1000);
        continue;
      }
      std::fprintf(stderr, "PM: requester %d has gone, its answer is dropped\n", requester);
      return;
    }
    std::fprintf(stderr, "Error in msgsnd. (%s)\n", error_text(errno));
    report_internal_error(cmd);
    return;
  }
}

void handle_state_query(const pm_request& req, pm_msg* answer) {
  signals_held held;
  pm_state_answer& a = answer->body.state;
  const pm_process* rec = find_process(req.target_pid);
  if (rec == nullptr) {
    a.state = kStateUnknown;
    bounded_copy(a.text, "your requested process id doesn't exist !");
    return;
  }
  a.state = rec->state;
  a.pid = rec->pid;
  copy_identity(&a, *rec);
  a.exit_code = rec->exit_code;
  copy_field(a.stdout_file, rec->stdout_file);
  copy_field(a.stderr_file, rec->stderr_file);
  copy_field(a.text, rec->msg);
}

// Appends `rec`. An ended record with the same pid, one that no client
// removed, is replaced: the pid is the new process's now, and so are the
// output files named after it.
void add_process(pm_process* rec) {
  int pos = -1;
  if (find_process(rec->pid, &pos) != nullptr) {
    std::free(remove_at_ctnr(g_registry, static_cast<std::uint32_t>(pos)));
  }
  push_ctnr(g_registry, rec);
}

void handle_launch(const pm_request& req, pm_msg* answer) {
  pm_launch_answer& a = answer->body.launch;
  auto* rec = static_cast<pm_process*>(std::calloc(1, sizeof(pm_process)));
  if (rec == nullptr) {
    a.failed = 1;
    bounded_format(a.text, "PM:FORK FAILED (%s)", error_text(ENOMEM));
    return;
  }
  copy_field(rec->env_path, req.env_path);
  copy_field(rec->cmd, req.cmd_path);
  copy_field(rec->args, req.args);
  rec->state = kStateRunning;

  std::fflush(stdout);
  std::fflush(stderr);
  signals_held held;
  pid_t pid = spawn_background_process(*rec, req);
  if (pid < 0) {
    bounded_format(a.text, "PM:FORK FAILED (%s)", error_text(errno));
    a.failed = 1;
    std::free(rec);
    return;
  }
  rec->pid = pid;
  rec->manager_pid = getpid();
  bounded_format(rec->stdout_file, "/tmp/kolta-bkprocess-stdout.%d", pid);
  bounded_format(rec->stderr_file, "/tmp/kolta-bkprocess-stderr.%d", pid);
  add_process(rec);
  copy_field(a.text, rec->msg);
  a.pid = pid;
  a.failed = rec->state == kStateRunning ? 0 : 1;
}

void handle_kill(const pm_request& req, pm_msg* answer) {
  signals_held held;
  pm_kill_answer& a = answer->body.kill;
  pm_process* rec = find_process(req.target_pid);
  if (rec == nullptr) {
    a.failed = 1;
    bounded_copy(a.text, "PM: process doesn't exist - what should I stop - tell me !");
    return;
  }
  copy_identity(&a, *rec);
  if (rec->state != kStateRunning) {
    a.failed = 1;
    bounded_copy(a.text, "PM: process isn't running - what should I stop - check state !");
    return;
  }
  kill(rec->pid, SIGTERM);
  if (rec->state == kStateRunning) {
    held.wait_one_second(*rec);
    int countdown = 5;
    while (rec->state == kStateRunning) {
      --countdown;
      held.wait_one_second(*rec);
      if (countdown == 0) kill(rec->pid, SIGKILL);
    }
  }
  a.failed = 0;
  a.pid = rec->pid;
  a.state = rec->state;
  a.exit_code = rec->exit_code;
  copy_field(a.text, rec->msg);
  copy_field(a.stdout_file, rec->stdout_file);
  copy_field(a.stderr_file, rec->stderr_file);
}

void handle_list_entry(const pm_request& req, pm_msg* answer) {
  signals_held held;
  pm_list_answer& a = answer->body.list;
  a.count = level_ctnr(g_registry);
  if (req.target_pid < 0) return;
  const pm_process* rec = find_process(req.target_pid);
  if (rec == nullptr) {
    a.state = kStateUnknown;
    bounded_copy(a.text, "PM: process doesn't exist !");
    return;
  }
  a.state = rec->state;
  a.pid = rec->pid;
  copy_identity(&a, *rec);
}

void handle_process_remove(const pm_request& req) {
  // The files go while the record is still registered: a clean-up signal at
  // any moment finds either the record or neither file.
  signals_held held;
  int pos = -1;
  pm_process* rec = find_process(req.target_pid, &pos);
  if (rec == nullptr) {
    std::fprintf(stderr, "PM::handle_process_remove->unknown process has been ignored ! (PID=%d)\n",
                 req.target_pid);
    report_internal_error(kPmRemove);
    return;
  }
  unlink(rec->stderr_file);
  unlink(rec->stdout_file);
  std::free(remove_at_ctnr(g_registry, static_cast<std::uint32_t>(pos)));
}

}  // namespace

void pm_handle_message(const pm_msg& msg) {
  const pm_request& req = msg.body.request;
  const std::int32_t requester = req.sender_pid;
  pm_msg answer_msg{};
  pm_msg* answer = &answer_msg;
  bool send = true;
  switch (req.cmd) {
    case kPmStateQuery:
      handle_state_query(req, answer);
      break;
    case kPmLaunch:
      handle_launch(req, answer);
      break;
    case kPmKill:
      handle_kill(req, answer);
      break;
    case kPmListEntry:
      handle_list_entry(req, answer);
      break;
    case kPmRemove:
      handle_process_remove(req);
      send = false;
      break;
    default:
      std::fputs("pm_handleMessage: ERROR: dont know what you mean !\n", stderr);
      send = false;
      break;
  }
  if (send) send_answer(answer, requester, req.cmd);
}

void pm_record_exit(std::int32_t pid, int status) {
  // The running record: an ended one with the same pid would have been
  // replaced at the launch.
  pm_process* rec = find_process(pid);
  if (rec == nullptr) return;
  if ((status & 0x7f) != 0) {
    char description[kSystemTextSize];
    rec->exit_code = status & 0x7f;
    bounded_copy(rec->msg, signal_text(status & 0x7f, description));
    rec->state = kStateDied;
  } else {
    rec->exit_code = (status >> 8) & 0xff;
    rec->state = status == 0 ? kStatePassed : kStateFailed;
  }
}

bool pm_registry_init() {
  if (g_registry == nullptr) g_registry = new_ctnr();
  return g_registry != nullptr;
}

namespace {

// SIGCHLD: records how the task's children ended.
void pm_event(int /*sig*/) {
  int saved_errno = errno;
  int status = 0;
  pid_t pid;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) pm_record_exit(pid, status);
  errno = saved_errno;
}

// SIGTERM, SIGINT: deletes the output files of every process that no client
// removed, removes the queue and ends the task.
void pm_cleanup(int /*sig*/) {
  signal_safe_print(STDOUT_FILENO, "\nPM: cleanup ..\n");
  for (std::uint32_t i = 0;; ++i) {
    auto* rec = static_cast<pm_process*>(get_ctnr(g_registry, i));
    if (rec == nullptr) break;
    signal_safe_print(STDOUT_FILENO, "WARNING: Process (PID=%d) was not used properly.\n", rec->pid);
    unlink(rec->stderr_file);
    unlink(rec->stdout_file);
  }
  if (msgctl(msgget(kPmQueueKey, kPmQueueFlags), IPC_RMID, nullptr) != 0) {
    char description[kSystemTextSize];
    signal_safe_print(STDERR_FILENO, "Remove IPC Message Queue failed: %s\n",
                      error_text(errno, description));
  }
  _exit(0);
}

}  // namespace

int pm_match_pid(const void* key, const void* item) {
  return *static_cast<const std::int32_t*>(key) == static_cast<const pm_process*>(item)->pid ? 0 : 1;
}

int pm_run() {
  if (!pm_registry_init()) return 1;

  struct sigaction sa {};
  sa.sa_handler = pm_event;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART | SA_NOCLDSTOP;
  if (sigaction(SIGCHLD, &sa, nullptr) != 0) std::fputs("zombie signal\n", stderr);

  struct sigaction stop {};
  stop.sa_handler = pm_cleanup;
  stop.sa_mask = task_signals();
  sigaction(SIGTERM, &stop, nullptr);
  sigaction(SIGINT, &stop, nullptr);

  start_sweep_timer();
  pm_msg msg{};
  for (;;) {
    int queue = msgget(kPmQueueKey, kPmQueueFlags);
    if (queue < 0) {
      std::fputs("PM: error in msgget !\n", stderr);
      std::fflush(stdout);
      usleep(100000);  // try again soon, without spinning
      continue;
    }
    if (queue_holds_messages(queue)) throw_away_gone_answers(queue);
    if (!g_backlog.empty()) {
      msg = g_backlog.pop();
    } else if (msgrcv(queue, &msg, kPmBodySize, kPmRequestType, MSG_NOERROR) < 0) {
      usleep(100);
      std::fflush(stdout);
      continue;
    }
    pm_handle_message(msg);
    std::fflush(stdout);
  }
}
