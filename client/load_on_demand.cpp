#include "client/load_on_demand.h"

#include <cstdio>
#include <cstring>

#include "client/connection.h"
#include "lib/md5.h"

lod_settings lod_setup;

namespace {

struct file_info {
  unsigned char bytes[kFileInfoSize];
};

// Carries out one request with the argument "Name" on the open connection
// `fd` and closes it. False when the action failed.
template <typename... DataArgs>
bool ask_load_server(int fd, const char* command, const char* file_name, DataArgs... data_args) {
  vesk_c_obj obj;
  if (VESK_C_OBJ_new(&obj, command) != 0) {
    vesk_c_close(fd);
    return false;
  }
  VESK_C_OBJ_addArgument(&obj, "Name", file_name);
  VESK_C_OBJ_DataHandler(&obj, lod_data_cb, data_args..., static_cast<const char*>(nullptr));
  int result = vesk_c_action(&obj);
  if (result != 0) {
    std::printf("vesk_c_action: operation error !");
    std::fflush(stdout);
  }
  VESK_C_OBJ_destroy(&obj);
  vesk_c_close(fd);
  return result == 0;
}

}  // namespace

long lod_data_cb(long length, const char* /*block*/, vesk_c_obj* /*obj*/) { return length; }

int load_on_demand_init(int method, const char* server_ip, std::uint16_t server_port) {
  lod_setup.method = method;
  // Copied with a bound of 17: a name that fills the field is not terminated.
  std::memset(lod_setup.server_ip, 0, sizeof lod_setup.server_ip);
  std::memcpy(lod_setup.server_ip, server_ip, ::strnlen(server_ip, sizeof lod_setup.server_ip));
  lod_setup.server_port = server_port;
  lod_setup.initialized = 1;
  return 0;
}

int load_on_demand(const char* file_name, char* message, std::size_t message_size) {
  if (lod_setup.initialized == 0) {
    std::strncpy(message, "loader not initialized", message_size);
    return 1;
  }
  if (lod_setup.method == 1) return 0;

  // The loader's own copy of the server name, terminated even when the
  // setting filled its field.
  char server_ip[sizeof lod_setup.server_ip + 1] = {};
  std::memcpy(server_ip, lod_setup.server_ip, sizeof lod_setup.server_ip);

  std::puts("- Load-On-Demand -");
  std::printf("check if file exists locally..");
  std::fflush(stdout);

  std::uint8_t local[16] = {};
  std::uint8_t server[16] = {};  // the data handler stores nothing, so it stays as it is
  file_info info = {};
  if (get_file_md5(file_name, local) == 0) {
    std::puts("Ermittelte Signatur (lokal): ");
    print_md5_sig(stdout, local);
    int fd = vesk_c_open(server_ip, lod_setup.server_port);
    if (fd == 0) return 1;
    if (!ask_load_server(fd, "getExecuteableInfo", file_name,
                         reinterpret_cast<const char*>(info.bytes)))
      return 1;
    if (md5_check_signature(local, server) == 0) {
      std::printf("Signatures match - ok - load not nessesary");
      std::fflush(stdout);
      return 0;
    }
    std::printf("Signatures don't match - try loading file ..");
    std::fflush(stdout);
  }

  // The load request takes the file-information record's words as its data
  // arguments. The record is a zeroed block: its first word is null, which
  // ends the list at once.
  int fd = vesk_c_open(server_ip, lod_setup.server_port);
  if (fd == 0) {
    std::printf("load failed !");
    std::fflush(stdout);
    return 1;
  }
  if (!ask_load_server(fd, "getExecuteable", file_name)) {
    std::printf("load failed !");
    std::fflush(stdout);
    return 1;
  }
  std::printf("successfully loaded !");
  std::fflush(stdout);
  return 0;
}
