// The monotonic clock in milliseconds, for time limits and rates.
#pragma once

#include <time.h>

#include <cstdint>

inline std::int64_t monotonic_ms() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}
