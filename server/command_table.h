// The daemon's table of commands, searched from the top by the dispatcher.
#pragma once

#include "protocol/request.h"

struct command_entry {
  const char* name;
  command_fn handler;  // nullptr: "not implemented at the moment"
};

inline constexpr int kCommandCount = 23;

// The 23 commands in their fixed order, ended by an empty pair.
extern const command_entry cmd_table[kCommandCount + 1];
