// Text for the device's shell and for the daemon's argument splitter.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "client/shell_quote.h"


// The "args" text that the daemon's process starter splits into exactly
// `words`: it splits at blanks outside double quotes and keeps the quotes,
// so a word with a blank passes only inside its own double quotes. nullopt
// (with `why`) for a list it cannot pass: none, more than 62, or a word the
// splitter would change.
std::optional<std::string> splitter_args(std::span<const std::string> words, std::string* why);

// 16 random hexadecimal digits, for names of temporary files on the device.
std::string random_name();
