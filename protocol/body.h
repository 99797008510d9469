// Reception of a request's data body.
#pragma once

#include "protocol/request.h"

inline constexpr unsigned kBodyBlockSize = 513;

// Receives the body announced by the request's "content-length" and hands it
// to `writer` block by block (discarding it when `resp` is already Fail).
// A writer failure turns `resp` into Fail with " data write fn: (...)".
// Returns false when the peer closed before the whole body had arrived; the
// writer has then been told to discard, and the connection is unusable.
bool RcvData(int sock, writer_fn writer, const vesk_request* request, resp_obj* resp);
