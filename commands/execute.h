// "execute": runs one program directly (no shell) under a time limit, its
// output in two fixed files; "execute_getDetails": the return code or either
// file afterwards.
#pragma once

#include "protocol/request.h"

inline constexpr char kExecuteStdoutFile[] = "/tmp/kolta-execute-stdout.st";
inline constexpr char kExecuteStderrFile[] = "/tmp/kolta-execute-stderr.st";
inline constexpr int kDefaultExecuteTimeout = 180;

// Return code of this worker's last "execute": the exit code, its lowest bit
// set when the program wrote to standard error.
extern int gExecRC;

int execute_fn(vesk_request* request, resp_obj* resp);
int execute_getDetails_fn(vesk_request* request, resp_obj* resp);
