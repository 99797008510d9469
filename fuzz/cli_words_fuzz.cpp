// The command line's parsers on any bytes: host lists, a command's words and
// options (the input split at NUL bytes, the first word naming the command),
// "NAME=value" fields of reply bodies and the line prefixer.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cli/commands.h"
#include "cli/fanout.h"
#include "cli/process_commands.h"
#include "cli/target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  std::string why;
  if (auto targets = parse_targets(input, 10000, &why))
    for (const target& t : *targets) (void)endpoint_text(t);

  std::vector<std::string> words;
  for (std::size_t start = 0; start <= input.size();) {
    std::size_t end = input.find('\0', start);
    if (end == std::string_view::npos) end = input.size();
    words.emplace_back(input.substr(start, end - start));
    start = end + 1;
  }
  for (const command_spec& spec : command_table()) {
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    command_args args;
    args.several_hosts = size % 2 == 1;
    (void)parse_command_args(spec, argv, &args);
  }

  std::string body(input);
  (void)field_of(body, words.front());
  std::string pending;
  std::size_t half = size / 2;
  (void)prefix_lines("h: ", &pending, input.substr(0, half), false);
  (void)prefix_lines("h: ", &pending, input.substr(half), true);
  return 0;
}
