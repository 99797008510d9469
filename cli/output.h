// What the commands write on our own standard output.
#pragma once

#include <string>
#include <string_view>

// Writes all of `bytes` to `fd`.
bool write_all(int fd, std::string_view bytes);

// A reply's text on standard output, ended by a newline if it lacks one.
void print_text(const std::string& text);

// "30 s", "0.5 s".
std::string seconds_text(double seconds);
