#include "client/shell_quote.h"

std::string shell_quote(std::string_view word) {
  std::string out = "'";
  for (char c : word) {
    if (c == '\'')
      out += "'\\''";
    else
      out.push_back(c);
  }
  out.push_back('\'');
  return out;
}

std::string shell_command(std::span<const std::string> words) {
  std::string out;
  for (const std::string& w : words) {
    if (!out.empty()) out.push_back(' ');
    out += shell_quote(w);
  }
  return out;
}
