// The connection settings. Each worker has its own copy from the fork, so a
// change lasts for the rest of its connection only.
#pragma once

#include <cstdint>

inline constexpr int kLodServerIpSize = 18;  // 17 characters and the NUL

enum exec_type_t : std::int32_t { kExecRod = 0, kExecRmd = 1 };

struct kolta_setup {
  std::int32_t LoadMethode;  // 0 "lod", 1 "none", 2 "lod+"
  char lod_server_ip[kLodServerIpSize];
  std::uint16_t lod_server_port;
  std::int32_t exec_type;  // exec_type_t: bare Success, or the output as Data
};

extern kolta_setup gSetup;

// Puts gSetup back to its defaults: "none", "127.0.0.0", 10000, "rmd".
int init_kolta();
