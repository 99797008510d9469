// What a connection worker does to its own process: ending it, and the pause
// before a Data reply's body. Kept apart so that a harness that runs the
// request loop inside its own process can put its own in their place.
#pragma once

// Ends the worker process with `status`, after flushing standard output and
// standard error.
[[noreturn]] void end_worker(int status);

// The connection broke while the worker wrote to it (SIGPIPE, or any failed
// write of a reply): prints the broken-connection block on standard output
// and ends the worker with status 1. Safe in a signal handler.
[[noreturn]] void broken_connection();

// The 20 ms pause between a Data reply's header and its body.
void pause_before_data_body();
