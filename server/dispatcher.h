// Turns a request's command name into a call of its handler.
#pragma once

#include "protocol/request.h"

// The worker's command handler: logs the request, finds the command in the
// table without regard to case and returns its handler's result. Answers
// Fail itself, returning 0, for an unknown or not yet implemented command.
int cmd_dispatcher(vesk_request* request, resp_obj* resp);

// "help": a fixed 15-character text/plain Data reply; keeps the connection.
int help_fn(vesk_request* request, resp_obj* resp);

// Ends the worker process without a reply, after a line on standard error.
[[noreturn]] void end_worker_without_reply(const char* why);
