// File transfer: "getFile" sends a file as a Data reply, "putFile" stores the
// request's data body and signs it on the way, "remFile" deletes a file.
// One transfer at a time per worker: the open file and the digest are
// process-wide.
#pragma once

#include <cstdint>
#include <cstdio>

#include "protocol/request.h"

// The open file of the current transfer.
extern std::FILE* gFp;

int getFile_fn(vesk_request* request, resp_obj* resp);
int putFile_fn(vesk_request* request, resp_obj* resp);
int remFile_fn(vesk_request* request, resp_obj* resp);

// Reader of a "getFile" reply: the next block of the file; at its end closes it.
int getf_grabber_cb(std::intptr_t ctx, char* buffer, int size);

// Writer of a "putFile" body: stores and signs each block; at the end closes
// the file and logs the announced ("Soll: ") and computed ("Ist: ")
// signatures. A failed write makes the request fail with its reason and
// removes the partial file; so does a body that is to be discarded.
int putf_writer_cb(int operation, const char* buffer, int length, char* error_text, int error_size);
