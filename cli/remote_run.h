// sh and exec: a command line or a program run on the device, with a time
// limit and standard input, its whole standard output and error printed
// here, its exit status returned. The client library's remote commands do
// the work (client/remote_command.h): the command runs with files of its own
// under /tmp/kolta-cli-*, which are fetched and removed afterwards.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "cli/device.h"

// The exit status after a time limit, as timeout(1) has it.
inline constexpr int kExitTimedOut = 124;

struct run_options {
  // Stop the command (and what it started) after this many seconds.
  std::optional<double> timeout_s;
  // Its standard input: `input_length` bytes of `input_fd` from the start
  // (a file of kolta's own); 0 for an empty one.
  int input_fd = -1;
  std::uint64_t input_length = 0;
};

// Runs `command` with the device's shell. Returns its exit status (128+N
// when signal N ended it), 124 after its time limit, or the tool's status
// after an error.
int run_shell(device& dev, const std::string& command, const run_options& options);

// Runs a program with exactly these arguments, found in the device's PATH
// when it has no slash.
int run_program(device& dev, std::span<const std::string> argv, const run_options& options);
