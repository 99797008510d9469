// start, stop, state, output and wait: background processes on the device.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "cli/device.h"

// Starts `program` with `args` and prints its pid.
int start_process(device& dev, const std::string& program, std::span<const std::string> args);
int stop_process(device& dev, const std::string& pid);
int show_state(device& dev, const std::string& pid, bool remove);
int show_output(device& dev, const std::string& pid, const std::string& stream, bool remove);
// Polls the state until the process has ended, then prints it. Exit status
// 3 when it is still running after `timeout_s` seconds.
int wait_process(device& dev, const std::string& pid, std::optional<double> timeout_s);

// The value of "NAME=value" in a reply body; empty when absent.
std::string field_of(const std::string& body, const std::string& name);
