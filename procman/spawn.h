// Starting one background process for the process-manager task. Kept apart
// from the task's message handling so that a harness can drive the handling
// without starting anything.
#pragma once

#include <sys/types.h>

#include "procman/messages.h"

struct pm_process;

// Forks the program of `rec` (its path) with the argument text of `req`,
// split as for every launch, its output in the files named after the new
// pid. Returns the child's pid, or -1 with errno when the fork failed.
pid_t spawn_background_process(const pm_process& rec, const pm_request& req);
