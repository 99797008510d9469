// Collecting ended children from a SIGCHLD handler.
#pragma once

// Reaps every ended child without blocking and logs how it ended:
// "<prefix>: WARNING pid=%d has exited with error state=%d. (%s)" on standard
// error for a death by signal, "<prefix>: pid=%d has exited normally with
// state=%d." on standard output otherwise. Safe in a signal handler.
void reap_children_logged(const char* prefix);

// Installs `handler` for SIGCHLD (restarting, not for stopped children);
// prints "zombie signal" when that fails.
void install_child_reaper(void (*handler)(int));
