// The smallest commands: "test", "version", and the placeholders that refuse.
#pragma once

#include "protocol/request.h"

// Success; closes the connection.
int test_fn(vesk_request* request, resp_obj* resp);
// The seven-line version text as Data; keeps the connection.
int version_fn(vesk_request* request, resp_obj* resp);
// Fail "not implemented in the moment !"; closes the connection.
int getCap_fn(vesk_request* request, resp_obj* resp);
int exec_exclusive_prepare_fn(vesk_request* request, resp_obj* resp);
int exec_exclusive_fn(vesk_request* request, resp_obj* resp);
int exec_exclusive_getDetails_fn(vesk_request* request, resp_obj* resp);

// The kernel release.
const char* getOS();
