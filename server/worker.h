// The connection worker: reads requests on one connection, dispatches them
// and sends the replies, until a handler closes the connection.
#pragma once

#include "protocol/header.h"
#include "protocol/request.h"

inline constexpr char kHeaderLimitsReason[] = "Error: request header exceeds limits !";

// Serves the connection on `sock` with `handler`; returns when the worker is
// done with it. A header must be complete within `header_timeout_ms`. A
// failed write of a reply is a broken connection (broken_connection()).
void serve_connection(int sock, command_fn handler,
                      int header_timeout_ms = kHeaderTimeoutSeconds * 1000);
