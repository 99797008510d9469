// Worker side of the process-manager queue: each call sends one request to
// the process-manager task and (except remove) waits for the answer
// addressed to this process.
//
// Results: >= 0 as each call says; -1 the send failed, -2 no answer (the
// receive failed, or the task is gone), -3 the task reported an error, -4 the
// queue could not be opened. Text buffers hold kPmTextSize bytes.
#pragma once

#include <sys/types.h>

#include "procman/messages.h"

// Process id of the process-manager task; 0 until it has been forked.
extern pid_t gProcessManagerPid;

// Launches `cmd` with the argument text `args`. Returns the new pid (> 0).
int pm_launch_process(const char* cmd, const char* args, const char* env_path,
                      char (&err)[kPmTextSize]);

// Stops process `pid` (SIGTERM, SIGKILL after about six seconds). Returns 0,
// or 1 with the task's reason in `err`.
int pm_kill_process(int pid, int* state, char (&err)[kPmTextSize], int* exit_code,
                    char (&stdout_file)[kPmPathSize], char (&stderr_file)[kPmPathSize]);

// Reads the record of process `pid`. Returns 0, or -3 with only `text` set
// when the task knows no such process.
int pm_process_state(int pid, int* state, char (&text)[kPmTextSize], char (&cmd_path)[kPmPathSize],
                     char (&args)[kPmPathSize], char (&env_path)[kPmEnvPathSize],
                     char (&stdout_file)[kPmPathSize], char (&stderr_file)[kPmPathSize],
                     int* exit_code);

// Asks the task to forget process `pid` and delete its output files; does
// not wait.
void pm_process_remove(int pid);
