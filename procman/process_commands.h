// The commands that start, stop and query background processes and fetch
// their output, through the process-manager task. All keep the connection.
#pragma once

#include "protocol/request.h"

int process_start_fn(vesk_request* request, resp_obj* resp);
int process_stop_fn(vesk_request* request, resp_obj* resp);
int process_getState_fn(vesk_request* request, resp_obj* resp);
int process_getDetails_fn(vesk_request* request, resp_obj* resp);

// Not in the command table: refuses and closes the connection.
int process_list_fn(vesk_request* request, resp_obj* resp);

// The reader of a "process_getDetails" reply: the next block of the output
// file; at its end closes it, removes the process when asked to, and frees
// the context.
int pgd_getf_grabber_cb(std::intptr_t ctx, char* buffer, int size);
