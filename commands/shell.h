// "system": one command line through the shell, its output in two fixed
// files; "system_getDetails": the return code or either file afterwards.
#pragma once

#include "protocol/request.h"

inline constexpr char kSystemStdoutFile[] = "/tmp/kolta-system-stdout.st";
inline constexpr char kSystemStderrFile[] = "/tmp/kolta-system-stderr.st";

// Raw result of this worker's last system(3) call (a wait status).
extern int gLastRC;

int system_fn(vesk_request* request, resp_obj* resp);
int system_getDetails_fn(vesk_request* request, resp_obj* resp);
