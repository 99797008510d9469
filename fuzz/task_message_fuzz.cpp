// The process-manager task's handling of queue messages, from arbitrary
// bytes: a sequence of messages (and of exits of the processes it started),
// each served as the task serves it, in a private IPC namespace. Nothing is
// started: the launcher hands out pids that no process can have. Every
// answer must come back to its requester, well-formed.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <sys/msg.h>
#include <unistd.h>
#include <vector>

#include "lib/bounded.h"
#include "procman/spawn.h"
#include "procman/task.h"

namespace {

// Above the largest pid_max: kill(2) finds no such process.
constexpr std::int32_t kFirstFakePid = 5000000;
std::int32_t g_next_pid;
std::vector<std::int32_t> g_launched;

template <std::size_t N>
void check_text(const char (&field)[N]) {
  if (bounded_length(field) >= N) __builtin_trap();
}

void check_answer(const pm_msg& answer, std::int32_t cmd) {
  if (answer.mtype != getpid() || answer.body.request.cmd != cmd) __builtin_trap();
  switch (cmd) {
    case kPmStateQuery: {
      const pm_state_answer& a = answer.body.state;
      if (a.state < kStateUnknown || a.state > kStateDied) __builtin_trap();
      check_text(a.text), check_text(a.env_path), check_text(a.cmd_path), check_text(a.args);
      check_text(a.stdout_file), check_text(a.stderr_file);
      break;
    }
    case kPmLaunch: {
      const pm_launch_answer& a = answer.body.launch;
      if (a.failed != 0 && a.failed != 1) __builtin_trap();
      check_text(a.text);
      if (a.failed == 0) g_launched.push_back(a.pid);
      break;
    }
    case kPmKill: {
      const pm_kill_answer& a = answer.body.kill;
      if (a.failed != 0 && a.failed != 1) __builtin_trap();
      check_text(a.text), check_text(a.env_path), check_text(a.cmd_path), check_text(a.args);
      check_text(a.stdout_file), check_text(a.stderr_file);
      break;
    }
    case kPmListEntry:
      check_text(answer.body.list.text), check_text(answer.body.list.cmd_path);
      break;
    default:
      __builtin_trap();  // no other command is answered
  }
}

// Serves one message and takes its answer, if any.
void serve(pm_msg msg, int queue) {
  msg.mtype = kPmRequestType;
  msg.body.request.sender_pid = getpid();
  const std::int32_t cmd = msg.body.request.cmd;
  pm_handle_message(msg);
  pm_msg answer{};
  const bool answered = msgrcv(queue, &answer, kPmBodySize, getpid(), IPC_NOWAIT | MSG_NOERROR) >= 0;
  const bool expected = cmd == kPmStateQuery || cmd == kPmLaunch || cmd == kPmKill || cmd == kPmListEntry;
  if (answered != expected) __builtin_trap();
  if (answered) check_answer(answer, cmd);
}

}  // namespace

pid_t spawn_background_process(const pm_process& /*rec*/, const pm_request& /*req*/) {
  return g_next_pid++ % 4 + kFirstFakePid;  // pids come round again: records are replaced
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  if (unshare(CLONE_NEWIPC) != 0) {
    std::perror("task_message_fuzz needs root for a private IPC namespace");
    std::abort();
  }
  if (!pm_registry_init()) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const int queue = msgget(kPmQueueKey, kPmQueueFlags);
  if (queue < 0) __builtin_trap();
  g_next_pid = 0;
  g_launched.clear();
  // Each step: one byte that says what happens, then a message body or a status.
  while (size > 0) {
    const std::uint8_t op = data[0];
    ++data, --size;
    if (op % 4 == 0 && size >= 4) {
      // A started process ends: the byte chooses which, the next ones how.
      int status = 0;
      std::memcpy(&status, data, 4);
      data += 4, size -= 4;
      pm_record_exit(kFirstFakePid + op / 4 % 4, status & 0xffff);
      continue;
    }
    const std::size_t take = op % 4 == 1 ? 16 : size < kPmBodySize ? size : kPmBodySize;
    pm_msg msg{};
    std::memcpy(msg.body.raw, data, take < size ? take : size);
    data += take < size ? take : size, size -= take < size ? take : size;
    // A kill waits for the process to end; here it has ended already.
    if (msg.body.request.cmd == kPmKill) pm_record_exit(msg.body.request.target_pid, 9);
    serve(msg, queue);
  }
  // Forget every process this input started.
  for (std::int32_t pid : g_launched) {
    pm_msg remove{};
    remove.body.request.cmd = kPmRemove;
    remove.body.request.target_pid = pid;
    serve(remove, queue);
  }
  return 0;
}
