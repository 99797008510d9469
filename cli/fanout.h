// One command on several devices at once: a child process per device (the
// client library reads one connection per process), each line of its
// output prefixed with the device's name.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/target.h"

// Runs `run` for every target, in parallel when there is more than one, and
// returns the largest exit status. Every line a device's run writes to
// standard output or standard error appears on ours as "LABEL: line".
int run_on_all(const std::vector<target>& targets, const std::function<int(const target&)>& run);

// Splits `chunk` into lines for one stream: complete lines are returned with
// `prefix` in front, the unfinished rest stays in `pending`. With `flush` the
// rest is returned too, ended by a newline.
std::string prefix_lines(const std::string& prefix, std::string* pending, std::string_view chunk,
                         bool flush);
