// Ctrl-C, SIGTERM and SIGHUP while a command runs: the connection being
// waited on is shut down, so the wait ends at once, and the command then
// tidies up on the device (its scripts and output files) before kolta ends
// with 128+N, as a program killed by the signal would.
#pragma once

// Installs the handlers.
void catch_interrupts();
// Lets the handlers go back to the default (the parent of several hosts).
void ignore_interrupts();
// The signal that arrived, or 0.
int interrupt_signal();
// The connection a signal shuts down; -1 for none.
void set_interruptible_socket(int fd);
