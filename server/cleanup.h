// The daemon's exit: removes the output files of "system" and "execute",
// stops the process-manager task and ends the process with status 0.
#pragma once

// Runs the clean-up and ends the process. Safe to run as a signal handler.
[[noreturn]] void kolta_cleanup(int sig);

// Installs kolta_cleanup for SIGTERM, SIGHUP and SIGINT. Workers inherit it,
// so a worker that gets one of them runs the whole clean-up.
void install_cleanup_handlers();

// Prints "Exiting slave : <pid>".
void st_exit();
