// "reboot", "shutdown" and "exitapp": the commands that end things.
#pragma once

#include "protocol/request.h"

// "mode" warm (through init) or cold (sync, then shutdown -r); Success once
// the command has run, then closes. Refusals keep the connection.
int reboot_fn(vesk_request* request, resp_obj* resp);
// Halts the device in the background; Data "SH_TIME=15", closes.
int shutdown_fn(vesk_request* request, resp_obj* resp);
// Sends SIGTERM to the daemon's whole process group; closes.
int exitapp_fn(vesk_request* request, resp_obj* resp);

int coldstart_cb();
int warmstart_cb();
