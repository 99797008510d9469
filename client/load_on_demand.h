// Load on demand: before an executable is used, its MD5 signature is
// compared with the load server's copy, and the file is fetched when it is
// missing or differs. The requests are "getExecuteableInfo" and
// "getExecuteable", each with the argument "Name".
#pragma once

#include <cstddef>
#include <cstdint>

struct lod_settings {
  int method;  // as the "LoadMethode" setting: 0 "lod", 1 "none", 2 "lod+"
  char server_ip[17];
  std::uint16_t server_port;
  int initialized;  // 1 once load_on_demand_init has run
};

// The loader's settings; zero until load_on_demand_init.
extern lod_settings lod_setup;

// The size of the file-information record handed to the data handler; its
// layout is the load server's business, here it is an opaque, zeroed block.
inline constexpr std::size_t kFileInfoSize = 148;

// Stores the settings and marks the loader initialized. Returns 0.
int load_on_demand_init(int method, const char* server_ip, std::uint16_t server_port);

// Makes sure `file_name` is current. 0 when it is, when it was loaded, or
// when loading is switched off; 1 when the loader is not initialized (the
// text "loader not initialized" in `message`, bound `message_size`) or the
// load failed.
int load_on_demand(const char* file_name, char* message, std::size_t message_size);

// The data handler of the loader's requests: takes every block, stores
// nothing, and returns its first argument.
long lod_data_cb(long length, const char* block, struct vesk_c_obj* obj);
