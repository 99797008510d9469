// The process-manager task: a long-lived child of the daemon that owns every
// background process. It serves the requests of the connection workers from
// the message queue one at a time, records exits from its SIGCHLD handler,
// and removes the queue and the output files of leftover processes when it
// is told to stop (SIGTERM or SIGINT).
#pragma once

#include <cstdint>

#include "procman/messages.h"

// One background process in the registry.
struct pm_process {
  char env_path[kPmEnvPathSize];  // reported, not used for the launch
  char cmd[kPmPathSize];
  char args[kPmPathSize];  // as sent, before splitting
  std::int32_t pid;
  std::int32_t manager_pid;
  volatile std::int32_t state;  // pm_state; changed by the SIGCHLD handler
  volatile std::int32_t exit_code;
  char stdout_file[kPmPathSize];
  char stderr_file[kPmPathSize];
  char msg[kPmTextSize];  // empty, or the signal's description after a death by signal
};

// Runs the task. Returns 1 only when the registry cannot be created;
// otherwise it ends the process itself when told to stop.
int pm_run();

// Creates the empty registry (once). False when it cannot.
bool pm_registry_init();

// Serves one message taken off the queue: answers it on the queue, or logs
// why not. The registry must exist.
void pm_handle_message(const pm_msg& msg);

// Records that the process `pid` ended with the wait status `status`.
void pm_record_exit(std::int32_t pid, int status);

// 0 when the int32 pid `key` is the record's pid.
int pm_match_pid(const void* key, const void* item);
