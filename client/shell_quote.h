// Text for a POSIX shell: words quoted so that the shell passes them on
// exactly.
#pragma once

#include <span>
#include <string>
#include <string_view>

// `word` in single quotes, each of its own quotes written as '\''.
std::string shell_quote(std::string_view word);

// The words quoted and joined by blanks: one shell command line.
std::string shell_command(std::span<const std::string> words);
