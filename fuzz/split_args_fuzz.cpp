// The argument splitter on arbitrary text: it never writes past the word
// table, each word lies within the text, and joining the words with blanks
// gives the text back (all of it, unless the table filled up).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

#include "lib/split_args.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string original(reinterpret_cast<const char*>(data), size);
  const std::string text_seen(original.c_str());  // the splitter stops at the first NUL
  std::string buffer = original;
  char* words[kMaxArgumentWords + 1];
  words[kMaxArgumentWords] = nullptr;  // the slot behind the table stays untouched
  const int count = split_arguments(buffer.data(), std::span<char*>(words, kMaxArgumentWords));
  if (count < 1 || count > kMaxArgumentWords || words[kMaxArgumentWords] != nullptr) __builtin_trap();

  std::string joined;
  for (int i = 0; i < count; ++i) {
    if (words[i] < buffer.data() || words[i] > buffer.data() + buffer.size()) __builtin_trap();
    if (i > 0) joined += ' ';
    joined += words[i];
  }
  if (count < kMaxArgumentWords ? joined != text_seen : !text_seen.starts_with(joined)) {
    __builtin_trap();
  }
  return 0;
}
