// The table of kolta's commands: their words, options, help and runners.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cli/device.h"
#include "cli/target.h"

// A command's words after its name, with its own options taken out.
struct command_args {
  std::vector<std::string> words;
  std::optional<std::string> timeout;  // --timeout S
  std::optional<std::string> body;     // --body FILE
  bool remove = false;                 // --remove
  bool no_input = false;               // -n: an empty standard input for the command
  int input_fd = -1;                   // set by the caller: the command's standard input,
  std::uint64_t input_length = 0;      //   its length (0: empty)
  std::optional<std::string> wait;     // lease --wait S
  std::optional<std::string> ttl;      // lease --ttl S
  bool break_lease = false;            // lease --break
  bool help = false;                   // --help
  bool several_hosts = false;          // set by the caller: -H named more than one
  std::string label;                   // set by the caller: the host as named
};

enum option_bits : unsigned {
  kTakesTimeout = 1u << 0,
  kTakesRemove = 1u << 1,
  kTakesBody = 1u << 2,
  kProgramWords = 1u << 3,  // the words after the first belong to a program
  kTakesInput = 1u << 4,    // passes standard input on; takes -n
  kTakesLease = 1u << 5,    // --wait S, --ttl S, --break
};

struct command_spec {
  const char* name;
  const char* usage;    // after "kolta [options] "
  const char* summary;  // one line for the overview
  const char* details;  // the rest of `kolta CMD --help`
  int min_words, max_words;  // max -1: no limit
  unsigned options;
  // A usage problem with the words, or empty.
  std::string (*check)(const command_args& args);
  int (*run)(device& dev, const command_args& args);
  // Instead of `run`: one call for the whole host list (lease, leases).
  int (*run_all)(const std::vector<target>& targets, int timeout_ms,
                 const command_args& args) = nullptr;
};

std::span<const command_spec> command_table();
const command_spec* find_command(std::string_view name);

// Takes the command's options out of `words`. Empty, or the usage problem.
std::string parse_command_args(const command_spec& spec, std::span<char* const> words,
                               command_args* args);

// A time in seconds ("2", "0.5"); nullopt unless it is a number >= 0.
std::optional<double> parse_seconds(std::string_view text);
// A time limit: nullopt unless it is a number of seconds > 0.
std::optional<double> parse_limit(std::string_view text);

void print_overview(std::FILE* out);
void print_command_help(const command_spec& spec, std::FILE* out);
