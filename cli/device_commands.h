// test, wait-online, version, setup, reset, reboot, shutdown, exit and raw.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "cli/device.h"

int check_alive(device& dev);
int show_version(device& dev);
// `settings` are "name=value" words, checked by the caller.
int change_settings(device& dev, std::span<const std::string> settings);
int reset_settings(device& dev);
// Waits until the daemon answers, for at most `timeout_s` seconds (exit 3
// after that, saying what the last try saw).
int wait_online(device& dev, double timeout_s);
// With `wait_s`, returns once the device has booted anew (its boot id has
// changed) and answers again; exit 3 when that takes longer, saying what was
// seen (a device that never went down included).
int reboot_device(device& dev, const std::string& mode, std::optional<double> wait_s);
int shut_down(device& dev);
int exit_daemon(device& dev);
// Any request; the reply is printed as it came: its header lines, an empty
// line, then the body.
int raw_request(device& dev, const std::string& command, std::span<const std::string> pairs,
                const std::optional<std::string>& body_file);
