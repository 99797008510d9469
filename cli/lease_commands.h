// lease and leases: a device of the -H list held while a command runs on
// this host, the leases of the list shown, a lease broken. The lease itself
// is the client library's (client/lease.h).
#pragma once

#include <vector>

#include "cli/commands.h"
#include "cli/target.h"

// kolta lease [--wait S] [--ttl S] -- COMMAND..., or lease --break.
int run_lease(const std::vector<target>& targets, int timeout_ms, const command_args& args);
// kolta leases: one line per device.
int run_leases(const std::vector<target>& targets, int timeout_ms, const command_args& args);
