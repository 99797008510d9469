// The progress bar of put and get: bytes, rate and time left, redrawn in
// place on standard error at most ten times a second. It is shown only for
// transfers over 1 MiB and only when standard error is a terminal.
#pragma once

#include <cstdint>
#include <string>

struct transfer_progress {
  bool shown = false;        // decided when the transfer starts
  std::int64_t started_ms = 0;
  std::int64_t drawn_ms = 0;
  std::uint64_t done = 0, total = 0;
  bool drawn = false;
};

// Prepares `p` for a transfer of `total` bytes.
void progress_start(transfer_progress* p, std::uint64_t total);
// The client library's progress callback; `ctx` is a transfer_progress.
void progress_callback(void* ctx, std::uint64_t done, std::uint64_t total);
// Draws the final state and ends the line, if anything was drawn.
void progress_finish(transfer_progress* p);

// The bar's text: "  12.0 MiB / 64.0 MiB   98.3 MiB/s   0:01 left".
std::string progress_text(std::uint64_t done, std::uint64_t total, double seconds);
