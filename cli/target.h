// The devices a command goes to: "-H a,b:10001,[fe80::1]:10002".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct target {
  std::string host;   // name or address, without brackets
  int port;
  std::string label;  // as the user wrote it: prefixes the output lines of several hosts
};

// Splits a comma-separated host list; an element's own ":port" overrides
// `default_port`. nullopt (with `why`) for an empty element or a bad port.
std::optional<std::vector<target>> parse_targets(std::string_view list, int default_port,
                                                 std::string* why);

// A port number 1..65535; nullopt otherwise.
std::optional<int> parse_port(std::string_view text);

// "host:port", with brackets around an IPv6 address.
std::string endpoint_text(const target& t);
