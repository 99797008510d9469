// sh and exec: a command line or a program run on the device, its whole
// standard output and error printed here, its exit status returned.
//
// The daemon's own output files are shared by every client, so the command
// is sent up as a small script that sends its output to files of its own
// (random names under /tmp); they are fetched whole and removed afterwards.
// Commands of any length pass this way.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "cli/device.h"

// Runs `command` with the device's shell ("system"). Returns its exit
// status (128+N when signal N ended it), or the tool's status after an error.
int run_shell(device& dev, const std::string& command);

// Runs a program with its arguments ("execute"), killed after `timeout_s`
// seconds (the daemon's default of 180 when not given; negative: no limit).
int run_program(device& dev, std::span<const std::string> argv, std::optional<int> timeout_s);

// The exit status for a wait status: the exit code, or 128+N for signal N.
int exit_status_of(int wait_status);
// The signal whose description (strsignal) is `text`; 0 when none is.
int signal_named(std::string_view text);
