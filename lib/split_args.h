// The argument splitter shared by the process launcher and timed execution.
#pragma once

#include <span>

// The most argument words a program gets: with the program path in front and
// the terminating null behind, they fill an argument vector of 64 slots.
inline constexpr int kMaxArgumentWords = 62;

// Splits `text` in place into words stored in `words`, and returns how many
// it stored (at most words.size()). Only the blank separates, outside double
// quotes; quotes stay part of their word. Every blank outside quotes ends a
// word, so an empty text gives one empty word, two blanks give an empty word
// between them and a trailing blank an empty last word.
int split_arguments(char* text, std::span<char*> words);
