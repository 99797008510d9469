// The server library: the listening socket, the accept loop that forks one
// worker per connection, and the signal handlers that go with them.
#pragma once

#include "protocol/request.h"

// Installs the broken-connection handler, takes the port from `port_text`
// (strtol, unchecked: empty text gives port 0, chosen by the system), opens
// and binds the socket and stores `handler`. 0 on success, 1 on failure.
int svr_vesk_init(int debug_flag, command_fn handler, const char* port_text);

// Creates the TCP socket with its options and binds it. 0 on success, 1 on failure.
int init_network();

// Runs the accept loop. Returns 1 only when listen fails.
int svr_vesk_run();

// Closes the listening socket; returns 0.
int svr_vesk_deinit();

// 3: printed as "00.03".
int svr_vesk_getLibVersion();

