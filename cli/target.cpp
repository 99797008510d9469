#include "cli/target.h"

#include <charconv>

std::optional<int> parse_port(std::string_view text) {
  int port = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (ec != std::errc() || end != text.data() + text.size() || port < 1 || port > 65535)
    return std::nullopt;
  return port;
}

namespace {

std::optional<target> parse_one(std::string_view item, int default_port, std::string* why) {
  target t{std::string(item), default_port, std::string(item)};
  std::string_view host = item;
  std::string_view port;
  if (!item.empty() && item.front() == '[') {
    std::size_t close = item.find(']');
    if (close == std::string_view::npos) {
      *why = "missing ']' in '" + std::string(item) + "'";
      return std::nullopt;
    }
    host = item.substr(1, close - 1);
    std::string_view rest = item.substr(close + 1);
    if (!rest.empty()) {
      if (rest.front() != ':') {
        *why = "unexpected text after ']' in '" + std::string(item) + "'";
        return std::nullopt;
      }
      port = rest.substr(1);
      if (port.empty()) port = "?";
    }
  } else if (std::size_t colon = item.find(':');
             colon != std::string_view::npos && item.find(':', colon + 1) == std::string_view::npos) {
    host = item.substr(0, colon);
    port = item.substr(colon + 1);
    if (port.empty()) port = "?";
  }
  if (host.empty()) {
    *why = "empty host name in '" + std::string(item) + "'";
    return std::nullopt;
  }
  if (!port.empty()) {
    std::optional<int> p = parse_port(port);
    if (!p) {
      *why = "bad port in '" + std::string(item) + "'";
      return std::nullopt;
    }
    t.port = *p;
  }
  t.host = std::string(host);
  return t;
}

}  // namespace

std::optional<std::vector<target>> parse_targets(std::string_view list, int default_port,
                                                 std::string* why) {
  std::vector<target> targets;
  for (;;) {
    std::size_t comma = list.find(',');
    std::optional<target> t = parse_one(list.substr(0, comma), default_port, why);
    if (!t) return std::nullopt;
    targets.push_back(std::move(*t));
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  return targets;
}

std::string endpoint_text(const target& t) {
  bool v6 = t.host.find(':') != std::string::npos;
  return (v6 ? "[" + t.host + "]" : t.host) + ":" + std::to_string(t.port);
}
