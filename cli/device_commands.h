// test, version, setup, reset, reboot, shutdown, exit and raw.
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
int reboot_device(device& dev, const std::string& mode);
int shut_down(device& dev);
int exit_daemon(device& dev);
// Any request; the reply is printed as it came: its header lines, an empty
// line, then the body.
int raw_request(device& dev, const std::string& command, std::span<const std::string> pairs,
                const std::optional<std::string>& body_file);
