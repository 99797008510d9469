// "server_setup" and "server_reset": the connection settings.
#pragma once

#include "protocol/request.h"

// Changes the settings named by its arguments, in a fixed order, and answers
// with all settings as they now are. The first refusal ends the request;
// changes made before it stay. Keeps the connection.
int server_setup_fn(vesk_request* request, resp_obj* resp);

// Puts the settings back to their defaults; Success, closes the connection.
int server_reset_fn(vesk_request* request, resp_obj* resp);
